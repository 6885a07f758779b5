#pragma once

#include "archives/reading/cage/CVCageSocket.h"

/// The process that readers are forked from: libraries are loaded once, and never an archive is read in it.
///
/// Each message on `requests` carries the reader's end of a conversation and a socket for news of it. The
/// news are a Started with a descriptor of the process, then, when it has ended, its wait status.
/// Every reader confines itself before it hears the first word. All end when `requests` is closed, which the
/// kernel does for a program that dies.
///
/// Returns the exit status of the server; never in a reader.
int cvServeReaders(CVCageSocket requests);

namespace CVCageServer {

/// The number under which the server finds its requests when it starts.
constexpr int requestsDescriptor = 3;

struct Started
{
    std::int32_t process;
};
struct Ended
{
    std::int32_t waitStatus;
};

} // namespace CVCageServer

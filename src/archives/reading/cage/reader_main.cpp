#include "archives/reading/cage/CVCageServer.h"

#include <cerrno>
#include <clocale>
#include <cstdio>

#include <sys/socket.h>

/// Started by the program alone, with its requests under a number that both know.
int main()
{
    int type = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(CVCageServer::requestsDescriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0 ||
        type != SOCK_SEQPACKET) {
        std::fputs("corvane-reader is started by corvane.\n", stderr);
        return 2;
    }
    std::setlocale(LC_ALL, "C.UTF-8");
    return cvServeReaders(CVCageSocket(LXFileDescriptor(CVCageServer::requestsDescriptor)));
}

#pragma once

#include <stdexcept>
#include <string>

#include <cerrno>
#include <cstring>

// What splitting and combining raise inside; CVFileSplitter::split() and CVFileCombiner::combine() turn
// each into an error value.

/// A bzip2 stream could not be made or read.
class Bzip2Exception : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A part, or the checksum file, could not be made.
class FileSplitterIOException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The joined file could not be made, or a part not be read.
class FileCombinerIOException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Reading or writing an open file failed.
class LXFileHandleException : public std::runtime_error
{
public:
    explicit LXFileHandleException(int systemError = errno)
        : std::runtime_error(std::strerror(systemError))
        , m_systemError(systemError)
    {}
    int systemError() const noexcept { return m_systemError; }
    bool isDiskFull() const noexcept { return m_systemError == ENOSPC || m_systemError == EDQUOT; }

private:
    int m_systemError;
};

/// Whoever was asked whether to stop said so.
class LXStoppedException : public std::exception
{};

/// Our own mistake, or an input that the naming of parts cannot hold; not turned into an error value.
class LXAssertionException : public std::logic_error
{
public:
    using std::logic_error::logic_error;
};

#pragma once

#include <QByteArrayView>

#include <cstddef>

#include <sys/types.h>

// Writes that come back when everything is written: interrupted ones go on, and a descriptor that takes
// nothing for now is waited for. False with errno after a failure; some of it may have been written. Any
// thread.

/// At the place where the file stands.
bool writeAll(int file, const void *data, std::size_t size);
inline bool writeAll(int file, QByteArrayView bytes)
{
    return writeAll(file, bytes.data(), static_cast<std::size_t>(bytes.size()));
}

/// From the byte `at` on; where the file stands does not matter and does not change.
bool writeAllAt(int file, const void *data, std::size_t size, off_t at);

#pragma once

#include <stdexcept>

/// Raised inside a back end and caught by CVArchive::open(); never crosses it.
/// The names in use: "DCArchiveNoPasswordException", "DCArchiveInvalidFileException".
class CVArchiveException : public std::runtime_error
{
public:
    CVArchiveException(const char *name, const char *reason)
        : std::runtime_error(reason)
        , m_name(name)
    {}
    const char *name() const noexcept { return m_name; }

private:
    const char *m_name;
};

#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <strings.h>

/// The one line of the tool of 7-Zip that we carry out ourselves, without the switches that we do not know.
/// For the launcher and for the program that it becomes then.
struct ZipLine
{
    int level = 5;
    std::uint64_t volumeBytes = 0; ///< 0: one file
    bool isEncrypted = false;      ///< the password comes in a line on standard input
    const char *archive = nullptr;
};

/// `a -tzip -mx=N [-vNb] [-p] ARCHIVE.zip .` False for everything else. Of the password only the switch is
/// left.
inline bool readZipLine(int count, char **arguments, ZipLine &line)
{
    if (count < 5 || std::strcmp(arguments[1], "a") != 0 || std::strcmp(arguments[count - 1], ".") != 0)
        return false;
    bool isZip = false;
    for (int i = 2; i < count - 2; ++i) {
        const char *const text = arguments[i];
        char *end = nullptr;
        if (::strcasecmp(text, "-tzip") == 0) {
            isZip = true;
        } else if (std::strncmp(text, "-mx=", 4) == 0 && text[4] >= '0' && text[4] <= '9' &&
                   text[5] == '\0') {
            line.level = text[4] - '0';
        } else if (std::strncmp(text, "-v", 2) == 0 && text[2] >= '1' && text[2] <= '9') {
            line.volumeBytes = std::strtoull(text + 2, &end, 10);
            if (std::strcmp(end, "b") != 0 || line.volumeBytes > INT64_MAX)
                return false;
        } else if (std::strcmp(text, "-p") == 0) {
            line.isEncrypted = true;
        } else {
            return false;
        }
    }
    // The tool takes "@" for a list of names, and gives a name without an extension one.
    line.archive = arguments[count - 2];
    const std::size_t length = std::strlen(line.archive);
    return isZip && line.archive[0] != '-' && line.archive[0] != '@' && length > 4 &&
           ::strcasecmp(line.archive + length - 4, ".zip") == 0;
}

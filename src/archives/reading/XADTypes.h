#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <limits>

/// Outcome of opening an archive or of one entry. The numbers below 100 are what back ends switch
/// on; those from 100 are ours and all mean "this entry was left out, go on with the rest".
enum class XADErrorCode : int {
    None = 0,
    Damaged = 1,              ///< damaged, truncated or unverifiable data; also: it could not be written
    PasswordMissing = 2,      ///< on opening: names are encrypted and no password was given
    PasswordWrongOpening = 9, ///< on opening: names are encrypted and the password does not fit
    Password = 15,            ///< entry: password missing or wrong
    PasswordOrDamage = 16,    ///< the password is wrong or the data damaged; the format cannot tell which
    NotSupported = 30,        ///< the method or format is not known to the reader
    NeedsPackage = 31,        ///< known, but only a program that is not installed can read it
    Stopped = 40,             ///< the delegate asked to stop, or the work directory went away
    Refused = 101,            ///< the safety rules forbid the entry
    NotMade = 102,            ///< a link, device or attribute that cannot be made here
};

/// What a delegate answers after a failed entry.
enum class XADAction : int { Abort = 0, Retry = 1, Skip = 2 };

/// How the bytes of a name are to be read.
enum class CVNameEncoding : std::uint8_t {
    Unmarked, ///< bytes without a mark: decoded together with all others of the archive
    Utf8, ///< the format says UTF-8, or the engine converted from UTF-16; bytes that are not are no text at
          ///< all
};

/// One entry as its engine found it; nothing here is made safe or decoded.
struct XADEntry
{
    enum class Type : std::uint8_t {
        File,
        Directory,
        Symlink,
        HardLink, ///< linkTarget names another entry of the archive; may carry data in odd archives
        Special,  ///< device, FIFO, socket: never made
    };

    static constexpr qint64 unknownTime = std::numeric_limits<qint64>::min();

    QByteArray name;       ///< components joined by "/" as stored; may point into memory of the engine
    QByteArray linkTarget; ///< empty when the target is the entry's data and not known before reading
    qint64 size = -1;      ///< bytes after unpacking; below zero when not known
    qint64 modified = unknownTime; ///< nanoseconds since 1970 UTC
    std::uint32_t mode = 0;        ///< permission bits (07777); meaningful when hasMode
    Type type = Type::File;
    CVNameEncoding nameEncoding = CVNameEncoding::Unmarked;
    bool hasMode = false;
    bool encrypted = false;
};

/// What was left out of an extraction and why, for the person.
struct CVSkippedEntry
{
    QString name;   ///< decoded, as it would be shown (control characters not yet escaped)
    QString reason; ///< one sentence in plain words
    XADErrorCode code = XADErrorCode::Refused;
};

#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVZipBytes.h"

#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

/// Where and how the data of one entry is stored. One a directory record, so kept small: a million
/// of them is a case that has to fit beside the entries themselves.
struct CVZipRecord
{
    quint64 headerOffset =
        0; ///< of the local header, in the file (whatever stands before the archive included)
    quint64 packedSize = 0;
    quint32 crc = 0;
    quint16 storedNameSize = 0; ///< bytes of the name as the local header must repeat it
    quint8 method = 0;
    bool isEncrypted = false;

    bool isDeflated() const { return method == 8; }
};

/// The central directory of a ZIP file, taken over only if it is free of contradictions.
///
/// Accepted: one disk, ZIP64, methods stored and deflated, nothing encrypted (or all of these, for a reader
/// that only compares), anything before the archive (self-extracting stubs) and up to 64 KiB behind it. All
/// else is answered with NotSupported, because readers that repair or guess stand behind this one; this one
/// must never be wrong about an archive it takes.
///
/// Memory: a buffer of 1 MiB while reading; afterwards 96 bytes and the name for each entry. A file has to
/// bring at least 76 bytes for each, so memory stays within about 1.3 times the size of the file.
/// Thread: read() on one thread, then constant.
class CVZipDirectory
{
public:
    struct Outcome
    {
        XADErrorCode code = XADErrorCode::None;
        QString detail;
    };

    enum class Accept { WhatWeUnpack, EveryMethod };

    /// Reads the directory of an archive of `fileSize` bytes.
    Outcome read(const CVZipBytes::Input &input, quint64 fileSize, Accept accept = Accept::WhatWeUnpack);

    /// Names point into memory of this object.
    const std::vector<XADEntry> &entries() const { return m_entries; }
    std::span<const CVZipRecord> records() const { return m_records; }

    /// The name byte for byte as the directory has it (entries() may have a better one).
    QByteArray storedName(int index) const;

    /// Where the entries' data ends at the latest.
    quint64 directoryOffset() const { return m_directoryOffset; }
    /// How many bytes of something else stand before the archive.
    quint64 base() const { return m_base; }

    /// The place of the last end record within `tail` (the end of a file) that leads to a sensible
    /// single-disk archive, or below zero. With `toTheEnd`, only one whose comment ends with the file.
    static qsizetype findEnd(QByteArrayView tail, bool toTheEnd);

private:
    class DosClock;
    struct Place
    {
        quint64 offset = 0; ///< of the directory in the file
        quint64 size = 0;
        quint64 base = 0; ///< what to add to the offsets the archive states
        quint64 count = 0;
        bool isCountWhole = false; ///< else only its lowest 16 bits
    };

    Outcome locate(const CVZipBytes::Input &input, quint64 fileSize, QByteArrayView tail, quint64 tailOffset,
                   qsizetype end, Place &place);
    Outcome readRecords(const CVZipBytes::Input &input, const Place &place);
    Outcome takeRecord(const char *record, const Place &place, DosClock &clock);
    const char *keepName(const char *name, std::size_t size);

    std::vector<XADEntry> m_entries;
    std::vector<CVZipRecord> m_records;
    std::unordered_map<int, QByteArray> m_storedNames; ///< only where it differs from the entry's name
    std::vector<std::unique_ptr<char[]>> m_nameBlocks;
    std::size_t m_nameBlockUsed = 0;
    std::size_t m_nameBlockSize = 0;
    quint64 m_directoryOffset = 0;
    quint64 m_base = 0;
    Accept m_accept = Accept::WhatWeUnpack;
};

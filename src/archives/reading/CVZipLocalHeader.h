#pragma once

#include "archives/reading/CVZipBytes.h"
#include "archives/reading/CVZipDirectory.h"

/// What stands in the file around the data of one entry, compared with what the directory says of it.
class CVZipLocalHeader
{
public:
    CVZipLocalHeader(const CVZipDirectory &directory, int index)
        : m_record(directory.records()[std::size_t(index)])
        , m_size(quint64(directory.entries()[std::size_t(index)].size))
        , m_name(directory.storedName(index))
    {}

    /// Bytes that are enough for read(), as long as the extra field is.
    qint64 mostBytes() const { return CVZipBytes::localHeaderSize + m_name.size() + 0xffff; }

    /// Empty, or in what the header at `bytes` contradicts the directory; the data has to end at `limit`.
    QString read(const char *bytes, quint64 available, quint64 limit);

    /// Of header, name and extra field, known after read().
    quint64 headerSize() const { return m_headerSize; }
    /// Where the data ends in the file.
    quint64 dataEnd() const { return m_record.headerOffset + m_headerSize + m_record.packedSize; }

    /// What follows the data, and as much of it as readBehind() wants to see.
    static constexpr quint64 bytesBehind = 32;
    /// The same for the sizes that may follow the data. `isUnlisted`: an entry that the directory does not
    /// name comes next.
    QString readBehind(const char *bytes, quint64 available, bool &isUnlisted) const;

private:
    bool readWideSizes(const char *extra, quint64 extraSize, quint64 &packedSize, quint64 &size) const;

    const CVZipRecord &m_record;
    quint64 m_size;
    QByteArray m_name;
    quint64 m_headerSize = 0;
    bool m_hasDescriptor = false;
};

/// Compares the headers of the wanted entries of the ZIP that `input` reads with its directory, for an
/// engine that believes the directory alone; `report` hears of each contradiction.
/// NotSupported when the directory itself cannot be followed (the number of its entries is 0 then).
struct CVZipComparison
{
    CVZipDirectory::Outcome outcome;
    std::size_t entries = 0;
};
CVZipComparison cvZipCompareHeaders(const CVZipBytes::Input &input, quint64 fileSize,
                                    const std::function<bool(int index)> &isWanted,
                                    const std::function<void(int index, const QString &fault)> &report);

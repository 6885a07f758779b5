#pragma once

#include "archives/reading/SevenZipInterfaces.h"
#include "util/LXFileDescriptor.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

/// One file, or numbered parts ("x.7z.001", "x.7z.002", …), as one run of bytes.
/// Immutable after opening and read by position: any number of threads may share it.
class CVSevenZipSource
{
public:
    /// Null when a file cannot be opened, is no regular file or changes meanwhile.
    static std::shared_ptr<const CVSevenZipSource> open(const QStringList &paths);

    /// `path` alone, or all parts from it on when its name ends in the number one and the next is there.
    static QStringList numberedParts(const QString &path);

    qint64 size() const { return m_size; }
    const QStringList &paths() const { return m_paths; }
    /// It is a set of parts, even if only the first one is there.
    bool isNumbered() const;

    /// How many bytes came; less than `size` only at the end. Below zero on a read error.
    qint64 readAt(char *data, qint64 size, qint64 offset) const;
    QByteArray readAt(qint64 offset, qint64 size) const;

private:
    struct Part
    {
        LXFileDescriptor file;
        qint64 start;
        qint64 size;
    };
    std::vector<Part> m_parts;
    QStringList m_paths;
    qint64 m_size = 0;
};

/// A position in a source, for the module. Lives as long as its owner keeps it: the references that
/// the module counts do not destroy it.
class CVSevenZipInStream final : public sevenzip::InStream, public sevenzip::StreamGetSize
{
public:
    explicit CVSevenZipInStream(std::shared_ptr<const CVSevenZipSource> source)
        : m_source(std::move(source))
    {}
    CVSevenZipInStream(const CVSevenZipInStream &) = delete;
    CVSevenZipInStream &operator=(const CVSevenZipInStream &) = delete;
    virtual ~CVSevenZipInStream() = default;

    const CVSevenZipSource &source() const { return *m_source; }

    sevenzip::Result QueryInterface(const sevenzip::Guid &iid, void **out) override;
    std::uint32_t AddRef() override { return 1; }
    std::uint32_t Release() override { return 1; }
    sevenzip::Result Read(void *data, std::uint32_t size, std::uint32_t *processed) override;
    sevenzip::Result Seek(std::int64_t offset, std::uint32_t origin, std::uint64_t *newPosition) override;
    sevenzip::Result GetSize(std::uint64_t *size) override;

private:
    std::shared_ptr<const CVSevenZipSource> m_source;
    qint64 m_position = 0;
};

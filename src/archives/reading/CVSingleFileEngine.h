#pragma once

#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVStreamDecoders.h"

/// One compressed file without a container: its only entry is named after the archive, without the
/// last extension (a name inside the stream is not to be trusted and often stale).
class CVSingleFileEngine final : public CVReadingEngine
{
public:
    CVSingleFileEngine(std::shared_ptr<const CVArchiveSource> source, CVStreamKind kind);

    QString formatName() const override { return cvStreamKindName(m_kind); }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return false; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override;
    bool compressedProgress(qint64 &done, qint64 &total) const override;

    /// "a/b/letter.txt.gz" gives "letter.txt", "x.tgz" gives "x.tar".
    static QString outputName(const QString &archivePath);

private:
    std::shared_ptr<const CVArchiveSource> m_source;
    CVStreamKind m_kind;
    std::vector<XADEntry> m_entries;
};

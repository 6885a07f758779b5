#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVSevenZipStreams.h"

#include <memory>
#include <vector>

/// Whether the first entry of an ARJ archive began in the volume before, and the last one goes on in
/// the next. Each part of a divided entry is a whole entry of its volume with its own checksum.
struct CVArjDivision
{
    bool isVolume = false;
    bool firstContinues = false;
    bool lastContinues = false;
};
CVArjDivision cvArjDivision(const CVSevenZipSource &source, qint64 offset);

/// `path` and the volumes that follow it and are there: x.arj, x.a01, x.a02, …
QStringList cvArjVolumePaths(const QString &path);

/// Several volumes, each open on its own, as one archive: entries that were divided are one again.
class CVArjVolumes final : public CVReadingEngine
{
public:
    struct Volume
    {
        std::unique_ptr<CVReadingEngine> engine;
        CVArjDivision division;
    };

    /// At least one volume, in order, `paths` to match.
    CVArjVolumes(std::vector<Volume> volumes, QStringList paths);

    QString formatName() const override { return m_volumes.front().engine->formatName(); }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return false; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override;
    QStringList volumePaths() const override { return m_paths.mid(1); }

private:
    class Joiner;

    /// Where an entry of a volume belongs.
    struct Place
    {
        int entry = 0;
        bool isFirstPart = true;
        bool isLastPart = true;
    };

    std::vector<Volume> m_volumes;
    QStringList m_paths;
    std::vector<XADEntry> m_entries;
    std::vector<std::vector<Place>> m_places; ///< per volume, per entry of it
};

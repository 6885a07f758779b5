#include "archives/reading/CVArjVolumes.h"

#include "archives/reading/CVArchiveFiles.h"

#include <QFileInfo>
#include <QtEndian>

#include <algorithm>

namespace {

constexpr int maximumVolumes = 1000;

/// Length of a header at `at` with its extensions and of the data behind it; 0 at the end or in damage.
struct ArjHeader
{
    qint64 size = 0;
    qint64 dataSize = 0;
    quint8 flags = 0;
};

ArjHeader arjHeaderAt(const CVSevenZipSource &source, qint64 at)
{
    constexpr qsizetype frontSize = 4;
    constexpr qsizetype leastBasicSize = 30;
    constexpr qsizetype mostBasicSize = 2600;
    const QByteArray start = source.readAt(at, frontSize + leastBasicSize);
    if (start.size() < frontSize + leastBasicSize || !start.startsWith("\x60\xEA"))
        return {};
    const qsizetype basicSize = qFromLittleEndian<quint16>(start.constData() + 2);
    if (basicSize < leastBasicSize || basicSize > mostBasicSize)
        return {};
    ArjHeader header;
    header.flags = quint8(start[frontSize + 4]);
    header.dataSize = qFromLittleEndian<quint32>(start.constData() + frontSize + 12);
    header.size = frontSize + basicSize + 4;
    for (;;) {
        const QByteArray extension = source.readAt(at + header.size, 2);
        if (extension.size() < 2)
            return {};
        const qint64 length = qFromLittleEndian<quint16>(extension.constData());
        header.size += 2;
        if (length == 0)
            return header;
        header.size += length + 4;
    }
}

} // namespace

CVArjDivision cvArjDivision(const CVSevenZipSource &source, qint64 offset)
{
    constexpr quint8 goesOn = 0x04;
    constexpr quint8 cameFrom = 0x08;
    CVArjDivision division;
    ArjHeader header = arjHeaderAt(source, offset);
    bool isFirst = true;
    // The fields of the main header at the place of the data size are something else.
    for (qint64 at = offset + header.size; header.size > 0; isFirst = false) {
        header = arjHeaderAt(source, at);
        if (header.size == 0)
            break;
        if (isFirst)
            division.firstContinues = (header.flags & cameFrom) != 0;
        division.lastContinues = (header.flags & goesOn) != 0;
        at += header.size + header.dataSize;
    }
    division.isVolume = division.firstContinues || division.lastContinues;
    return division;
}

QStringList cvArjVolumePaths(const QString &path)
{
    QStringList paths{path};
    const QFileInfo info(path);
    const QString stem = info.path() + u'/' + info.completeBaseName();
    const QString extension = info.suffix();
    bool isNumber = true;
    int number = 0;
    if (extension.compare(QLatin1String("arj"), Qt::CaseInsensitive) != 0) {
        number = extension.mid(1).toInt(&isNumber);
        if (extension.size() != 3 || !extension.startsWith(u'a', Qt::CaseInsensitive) || !isNumber)
            return paths;
    }
    const QChar letter = extension.at(0);
    while (paths.size() < maximumVolumes) {
        const QString next = stem + u'.' + letter + QStringLiteral("%1").arg(++number, 2, 10, QChar(u'0'));
        if (!CVArchiveFiles::exists(next))
            break;
        paths << next;
    }
    return paths;
}

CVArjVolumes::CVArjVolumes(std::vector<Volume> volumes, QStringList paths)
    : m_volumes(std::move(volumes))
    , m_paths(std::move(paths))
{
    bool isOpenEnded = false;
    for (const Volume &volume : m_volumes) {
        const auto &parts = volume.engine->entries();
        std::vector<Place> places;
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const bool continues = i == 0 && volume.division.firstContinues;
            if (continues && isOpenEnded) {
                XADEntry &entry = m_entries.back();
                if (entry.size < 0 || parts[i].size < 0 ||
                    __builtin_add_overflow(entry.size, parts[i].size, &entry.size))
                    entry.size = -1;
            } else {
                m_entries.push_back(parts[i]);
            }
            const bool goesOn = i + 1 == parts.size() && volume.division.lastContinues;
            // A part whose beginning is not here can be no first part, so it is never taken for a whole.
            places.push_back({int(m_entries.size()) - 1, !continues, !goesOn});
        }
        if (!parts.empty())
            isOpenEnded = volume.division.lastContinues;
        m_places.push_back(std::move(places));
    }
}

/// Passes the parts of a divided entry on to one writer.
class CVArjVolumes::Joiner final : public CVEntrySink
{
public:
    Joiner(CVEntrySink &sink)
        : m_sink(sink)
    {}

    void enter(const std::vector<Place> &places) { m_places = &places; }

    std::unique_ptr<CVEntryWriter> beginEntry(int index) override
    {
        const Place &place = (*m_places)[std::size_t(index)];
        if (place.isFirstPart) {
            end(); // a volume between may be missing
            m_writer = m_sink.beginEntry(place.entry);
        } else if (!m_writer && place.entry != m_lastEntry)
            (void)entryFailed(index, XADErrorCode::Damaged,
                              QStringLiteral("It begins in a volume that is missing."));
        m_lastEntry = place.entry;
        return m_writer ? std::make_unique<Part>(*this, place.isLastPart) : nullptr;
    }

    CVEntryWriter::Flow entryFailed(int index, XADErrorCode code, const QString &detail) override
    {
        const Place &place = (*m_places)[std::size_t(index)];
        if (m_writer)
            return finish(code, detail);
        if (place.entry == m_lastEntry) // its failure is known already
            return CVEntryWriter::Flow::Go;
        m_lastEntry = place.entry;
        return m_sink.entryFailed(place.entry, code, detail);
    }

    bool shouldStop() override { return m_sink.shouldStop(); }

    /// What still waits for a part never gets it.
    void end()
    {
        if (m_writer)
            (void)finish(XADErrorCode::Damaged, QStringLiteral("It goes on in a volume that is missing."));
    }

private:
    class Part final : public CVEntryWriter
    {
    public:
        Part(Joiner &joiner, bool isLast)
            : m_joiner(joiner)
            , m_isLast(isLast)
        {}
        Flow write(const char *data, qsizetype size) override { return m_joiner.m_writer->write(data, size); }
        Flow writeHole(qint64 size) override { return m_joiner.m_writer->writeHole(size); }
        Flow finish(XADErrorCode code, const QString &detail) override
        {
            return m_isLast || code != XADErrorCode::None ? m_joiner.finish(code, detail) : Flow::Go;
        }

    private:
        Joiner &m_joiner;
        bool m_isLast;
    };

    CVEntryWriter::Flow finish(XADErrorCode code, const QString &detail)
    {
        const auto writer = std::move(m_writer);
        return writer->finish(code, detail);
    }

    CVEntrySink &m_sink;
    const std::vector<Place> *m_places = nullptr;
    std::unique_ptr<CVEntryWriter> m_writer; ///< of the entry whose parts are coming
    int m_lastEntry = -1;
};

CVReadingEngine::Outcome CVArjVolumes::extract(std::span<const int> indices, bool all, CVEntrySink &sink)
{
    std::vector<char> wanted(m_entries.size(), all ? 1 : 0);
    for (const int index : indices)
        wanted[std::size_t(index)] = 1;

    Outcome outcome;
    Joiner joiner(sink);
    for (std::size_t v = 0; v < m_volumes.size(); ++v) {
        const std::vector<Place> &places = m_places[v];
        std::vector<int> parts;
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (wanted[std::size_t(places[i].entry)])
                parts.push_back(int(i));
        }
        joiner.enter(places);
        const Outcome one = m_volumes[v].engine->extract(parts, parts.size() == places.size(), joiner);
        if (one.code == XADErrorCode::Stopped)
            return one;
        if (outcome.code == XADErrorCode::None)
            outcome = one;
    }
    joiner.end();
    return outcome;
}

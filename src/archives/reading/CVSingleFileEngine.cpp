#include "archives/reading/CVSingleFileEngine.h"

#include "archives/reading/CVDecodePipeline.h"
#include "archives/reading/CVReadingText.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

CVSingleFileEngine::CVSingleFileEngine(std::shared_ptr<const CVArchiveSource> source, CVStreamKind kind)
    : m_source(std::move(source))
    , m_kind(kind)
{
    XADEntry entry;
    entry.name = outputName(m_source->paths().value(0)).toUtf8();
    entry.nameEncoding = CVNameEncoding::Utf8;
    // As the unpackers of these formats do.
    entry.modified = m_source->modified() * 1'000'000;
    m_entries.push_back(std::move(entry));
}

QString CVSingleFileEngine::outputName(const QString &archivePath)
{
    const QString name = QFileInfo(archivePath).fileName();
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot < 0)
        return name;
    if (dot == 0)
        return u"data"_s;
    const QString extension = name.mid(dot + 1).toLower();
    static const QStringList tars{u"tgz"_s, u"tbz"_s, u"tbz2"_s, u"tb2"_s,  u"txz"_s, u"tlz"_s,
                                  u"taz"_s, u"tz"_s,  u"tz2"_s,  u"tzst"_s, u"tbr"_s, u"tzo"_s};
    return name.left(dot) + (tars.contains(extension) ? u".tar"_s : QString());
}

bool CVSingleFileEngine::compressedProgress(qint64 &done, qint64 &total) const
{
    done = m_source->position();
    total = m_source->size();
    return true;
}

CVReadingEngine::Outcome CVSingleFileEngine::extract(std::span<const int> indices, bool all,
                                                     CVEntrySink &sink)
{
    using Flow = CVEntryWriter::Flow;
    if (!all && indices.empty())
        return {};
    m_source->resetPosition();
    const std::unique_ptr<CVEntryWriter> writer = sink.beginEntry(0);
    if (!writer)
        return {sink.shouldStop() ? XADErrorCode::Stopped : XADErrorCode::None, {}};
    CVDecodePipeline pipeline(m_source, 0, m_kind);
    Flow flow = Flow::Go;
    while (flow == Flow::Go) {
        const auto data = pipeline.next();
        if (data.empty())
            break;
        flow =
            sink.shouldStop() ? Flow::Stop : writer->write(data.data(), static_cast<qsizetype>(data.size()));
    }
    if (flow == Flow::Stop)
        return {XADErrorCode::Stopped, {}};
    if (flow == Flow::SkipEntry) {
        flow = writer->finish(XADErrorCode::None);
        return {flow == Flow::Stop ? XADErrorCode::Stopped : XADErrorCode::None, {}};
    }
    Outcome outcome{pipeline.result().code, pipeline.result().detail, {}};
    if (outcome.code == XADErrorCode::None && pipeline.result().trailingGarbage)
        outcome.remark = readingText("Other data follows the compressed data.");
    flow = writer->finish(outcome.code, outcome.detail);
    if (flow == Flow::Stop && outcome.code == XADErrorCode::None)
        return {XADErrorCode::Stopped, {}};
    return outcome;
}

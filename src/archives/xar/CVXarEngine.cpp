#include "archives/xar/CVXarEngine.h"

#include "archives/reading/CVArchiveFiles.h"
#include "archives/reading/CVSafePath.h"

#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_set>

Q_LOGGING_CATEGORY(lcXarEngine, "corvane.archives.xar")

namespace {

// The bid of a reader made for its format; nobody else gets what this one cannot open.
constexpr int bidForXar = 90;
// As much as the machine has, but no more than one disk is any good for.
constexpr unsigned maxThreads = 8;
// Zeros in so large pieces become holes again.
constexpr std::size_t holeBytes = std::size_t(64) << 10;

bool isZeros(const char *data, std::size_t size)
{
    return data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0;
}

XADErrorCode codeOf(const LXError &error)
{
    if (error.domain != QLatin1String(xar_domain))
        return XADErrorCode::Damaged;
    switch (static_cast<xar_error>(error.code)) {
    case xar_error::not_supported:
        return XADErrorCode::NotSupported;
    case xar_error::stopped:
        return XADErrorCode::Stopped;
    case xar_error::damaged:
        break;
    }
    return XADErrorCode::Damaged;
}

int bid(const CVArchiveProbe &probe)
{
    return probe.head.startsWith("xar!") ? bidForXar : 0;
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &)
{
    LXFileDescriptor file = CVArchiveFiles::open(probe.path);
    if (!file.isOpen())
        return {nullptr, XADErrorCode::Damaged, QStringLiteral("The file could not be opened.")};
    auto opened = xar_read(std::move(file));
    if (!opened) {
        qCDebug(lcXarEngine) << "cannot be read:" << opened.error().reason;
        // Final: the other readers check less, and one of them can be made to loop.
        return {nullptr, codeOf(opened.error()), opened.error().reason, true};
    }
    auto engine = CVXarEngine::create(std::move(opened).value());
    if (!engine)
        return {nullptr, XADErrorCode::Damaged, QStringLiteral("The paths in the archive are too long."),
                true};
    return {std::move(engine), XADErrorCode::None, {}};
}

XADEntry::Type typeOf(xar_file::Type type)
{
    switch (type) {
    case xar_file::Type::directory:
        return XADEntry::Type::Directory;
    case xar_file::Type::symlink:
        return XADEntry::Type::Symlink;
    case xar_file::Type::hardlink:
        return XADEntry::Type::HardLink;
    case xar_file::Type::special:
        return XADEntry::Type::Special;
    case xar_file::Type::file:
        break;
    }
    return XADEntry::Type::File;
}

} // namespace

struct CVXarEngine::Run
{
    CVEntrySink &sink;
    std::span<const int> indices;
    std::vector<bool> wanted; // by entry; not changed while it runs
    std::atomic<std::size_t> next = 0;
    std::atomic<bool> stopped = false;

    std::mutex mutex; // what follows
    enum class End : std::uint8_t { No, Delivered, Lost };
    std::vector<End> ended; // by place in indices
    std::size_t told = 0;

    Run(CVEntrySink &to, std::span<const int> which, std::size_t entries)
        : sink(to)
        , indices(which)
        , wanted(entries)
        , ended(which.size(), End::No)
    {
        for (const int index : indices)
            wanted[static_cast<std::size_t>(index)] = true;
    }

    void end(std::size_t place, bool good, const std::function<void(int)> &tell)
    {
        const std::lock_guard lock(mutex);
        ended[place] = good ? End::Delivered : End::Lost;
        for (; told < ended.size() && ended[told] != End::No; ++told)
            if (ended[told] == End::Delivered && tell)
                tell(indices[told]);
    }
};

std::unique_ptr<CVXarEngine> CVXarEngine::create(xar_t archive)
{
    auto engine = std::make_unique<CVXarEngine>();
    qsizetype pathBytes = 0;
    const xar_iter_t iterator = xar_iter_new();
    for (xar_file_t file = xar_file_first(*archive, *iterator); file;
         file = xar_file_next(*archive, *iterator)) {
        XADEntry entry;
        entry.name = file->name;
        if (file->parent) {
            const QByteArray &folder =
                engine->m_entries[static_cast<std::size_t>(engine->m_indices.at(file->parent))].name;
            // What is too long already is refused, however it goes on.
            entry.name = folder.size() > 2 * CVSafePath::maxPathBytes ? folder : folder + '/' + file->name;
        }
        pathBytes += entry.name.size();
        if (pathBytes > maxPathBytes)
            return nullptr;
        // The format knows no other encoding; what does not fit was kept byte by byte.
        entry.nameEncoding = CVNameEncoding::Utf8;
        entry.type = typeOf(file->type);
        entry.mode = file->mode;
        entry.hasMode = file->hasMode;
        entry.size = static_cast<qint64>(file->size);
        if (file->type == xar_file::Type::file &&
            entry.size <= std::numeric_limits<qint64>::max() - engine->m_total)
            engine->m_total += entry.size;
        if (file->modified)
            entry.modified = *file->modified * 1'000'000'000;
        if (file->type == xar_file::Type::symlink)
            entry.linkTarget = file->target;
        engine->m_indices.emplace(file, static_cast<int>(engine->m_files.size()));
        engine->m_files.push_back(file);
        engine->m_entries.push_back(std::move(entry));
    }
    for (std::size_t i = 0; i < engine->m_files.size(); ++i)
        if (const xar_file_t original = engine->m_files[i]->original)
            engine->m_entries[i].linkTarget =
                engine->m_entries[static_cast<std::size_t>(engine->m_indices.at(original))].name;
    engine->m_archive = std::move(archive);
    return engine;
}

QString CVXarEngine::formatName() const
{
    return QStringLiteral("XAR");
}

CVReadingEngine::Outcome CVXarEngine::extract(std::span<const int> indices, bool, CVEntrySink &sink)
{
    Run run(sink, indices, m_entries.size());
    const auto work = [&] {
        while (!run.stopped) {
            const std::size_t place = run.next++;
            if (place >= run.indices.size())
                return;
            run.end(place, extractOne(run, run.indices[place]), delivered);
        }
    };
    // Which of two gets the name must not depend on the threads.
    const unsigned limit = hasNamesTwice() ? 1 : maxThreads;
    const auto threads =
        std::min<std::size_t>(std::clamp(std::thread::hardware_concurrency(), 1U, limit), indices.size());
    std::vector<std::thread> others;
    for (std::size_t i = 1; i < threads; ++i)
        others.emplace_back(work);
    work();
    for (std::thread &thread : others)
        thread.join();
    return {run.stopped ? XADErrorCode::Stopped : XADErrorCode::None};
}

bool CVXarEngine::hasNamesTwice() const
{
    std::unordered_set<std::string_view> names;
    names.reserve(m_entries.size());
    for (const XADEntry &entry : m_entries)
        if (!names.emplace(entry.name.constData(), static_cast<std::size_t>(entry.name.size())).second)
            return true;
    return false;
}

/// True when it is there, or will be when the links are made.
bool CVXarEngine::extractOne(Run &run, int index)
{
    const xar_file &entry = file(index);
    const std::unique_ptr<CVEntryWriter> writer = run.sink.beginEntry(index);
    if (!writer) {
        run.stopped = run.stopped || run.sink.shouldStop();
        return entry.type == xar_file::Type::directory || entry.type == xar_file::Type::symlink;
    }
    // A link whose file is not extracted gets the data itself.
    const bool needsData =
        entry.type == xar_file::Type::file ||
        (entry.original && !run.wanted[static_cast<std::size_t>(m_indices.at(entry.original))]);
    CVEntryWriter::Flow flow = CVEntryWriter::Flow::Go;
    LXResult<void> result;
    if (needsData)
        result = xar_extract(*m_archive, entry.original ? *entry.original : entry,
                             [&](const char *data, std::size_t size) {
                                 while (size > 0 && flow == CVEntryWriter::Flow::Go) {
                                     const std::size_t part = std::min(size, holeBytes);
                                     flow = part == holeBytes && isZeros(data, part)
                                                ? writer->writeHole(static_cast<qint64>(part))
                                                : writer->write(data, static_cast<qsizetype>(part));
                                     data += part;
                                     size -= part;
                                 }
                                 return flow == CVEntryWriter::Flow::Go;
                             });
    // A writer that wants no more has said why already.
    const bool isLost = !result || flow != CVEntryWriter::Flow::Go;
    const CVEntryWriter::Flow end = flow != CVEntryWriter::Flow::Go || result
                                        ? writer->finish(XADErrorCode::None)
                                        : writer->finish(codeOf(result.error()), result.error().reason);
    if (end == CVEntryWriter::Flow::Stop || flow == CVEntryWriter::Flow::Stop)
        run.stopped = true;
    return !isLost;
}

CVEngineDescriptor cvXarEngineDescriptor()
{
    return {"xar", bid, open};
}

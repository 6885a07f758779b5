#include "archives/reading/CVSevenZipEngine.h"

#include "archives/reading/CVArjVolumes.h"
#include "archives/reading/CVSevenZipArchive.h"
#include "archives/reading/CVSevenZipEntryReader.h"
#include "archives/reading/CVSevenZipExtraction.h"
#include "archives/reading/CVSevenZipFormats.h"
#include "archives/reading/CVSevenZipHeader.h"
#include "archives/reading/CVSevenZipPeek.h"
#include "archives/reading/CVZipLocalHeader.h"
#include "util/LXSaturatingSum.h"

#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <limits>
#include <thread>

#include <unistd.h>

using namespace sevenzip;

Q_LOGGING_CATEGORY(lcSevenZipEngine, "corvane.reading.sevenzip.engine")

namespace {

constexpr qint64 mebibyte = 1024 * 1024;
/// Below this, opening the archive a second time costs more than a second worker saves.
constexpr qint64 minimumParallelBytes = 4 * mebibyte;
/// A worker's share of a zip: small enough to even out, large enough that asking for it costs nothing.
constexpr qint64 shareBytes = 8 * mebibyte;
constexpr std::size_t shareItems = 512;
/// Every preset of 7-Zip unpacks within this, whatever the machine.
constexpr qint64 leastDecoderMemory = 256 * mebibyte;
/// Real data is not packed better than this; what is (zeros) needs no large window.
constexpr qint64 plausibleRatio = 100;

/// The module decodes names by the locale of the thread; in UTF-8 it keeps foreign bytes recoverable.
class Utf8Locale
{
public:
    Utf8Locale()
        : m_locale(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr))
    {
        if (m_locale)
            m_previous = uselocale(m_locale);
    }
    Utf8Locale(const Utf8Locale &) = delete;
    Utf8Locale &operator=(const Utf8Locale &) = delete;
    ~Utf8Locale()
    {
        if (m_locale) {
            uselocale(m_previous);
            freelocale(m_locale);
        }
    }

private:
    locale_t m_locale;
    locale_t m_previous = nullptr;
};

/// What a decoder may take. More than the least only for archives that carry something to fill it
/// with: a few kilobytes that ask for gigabytes are an attack.
qint64 decoderMemoryLimit(qint64 archiveBytes)
{
    const qint64 machine = qint64(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
    return std::max(leastDecoderMemory, std::min(machine / 4, archiveBytes * plausibleRatio));
}

/// What the module says about the archive as a whole.
CVSevenZipFailure archiveFailure(const CVSevenZipLibrary &library, InArchive &archive)
{
    CVSevenZipValue value(library);
    std::uint64_t flags = 0;
    if (archive.GetArchiveProperty(PropertyErrorFlags, value.out()) == Ok)
        flags = value.number();
    if (archive.GetArchiveProperty(PropertyWarningFlags, value.out()) == Ok)
        flags |= value.number() & (ErrorUnexpectedEnd | ErrorUnavailableStart);
    // Something appended to a whole archive (a signature, padding) takes nothing from it.
    flags &= ~std::uint64_t(ErrorDataAfterEnd);
    if (flags & ErrorUnexpectedEnd)
        return {XADErrorCode::Damaged, QStringLiteral("The archive ends too early.")};
    if (flags & ErrorUnavailableStart)
        return {XADErrorCode::Damaged, QStringLiteral("The beginning of the archive is missing.")};
    if (flags & (ErrorUnsupportedMethod | ErrorUnsupportedFeature))
        return {XADErrorCode::NotSupported,
                QStringLiteral("The archive uses a feature that is not supported.")};
    if (flags != 0)
        return {XADErrorCode::Damaged, QStringLiteral("The directory of the archive is damaged.")};
    return {};
}

CVSevenZipFailure headerFailure(const CVSevenZipSource &source, qint64 offset)
{
    switch (cvSevenZipCheckHeader(source, offset)) {
    case CVSevenZipHeader::Whole:
        break;
    case CVSevenZipHeader::TooShort:
        return {XADErrorCode::Damaged,
                source.isNumbered()
                    ? QStringLiteral("The archive ends too early; a part of the set may be missing.")
                    : QStringLiteral("The archive ends too early.")};
    case CVSevenZipHeader::Damaged:
        return {XADErrorCode::Damaged, QStringLiteral("The checksum of the directory does not fit.")};
    case CVSevenZipHeader::OtherVersion:
        return {XADErrorCode::NotSupported, QStringLiteral("The archive is of another version.")};
    case CVSevenZipHeader::TooLarge:
        return {XADErrorCode::NotSupported, QStringLiteral("The directory of the archive is too large.")};
    }
    return {};
}

class SevenZipEngine final : public CVReadingEngine
{
public:
    SevenZipEngine(const CVSevenZipLibrary &library, CVEngineHost &host,
                   std::shared_ptr<const CVSevenZipSource> source)
        : m_library(library)
        , m_host(host)
        , m_source(std::move(source))
    {}

    /// The outcome of trying one guess. None: open.
    CVSevenZipFailure open(const CVSevenZipGuess &guess);

    QString formatName() const override { return m_formatName; }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return m_isEncrypted; }
    bool entryIsArchive(int index) const override { return m_entryIsArchive && index == 0; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override;
    bool compressedProgress(qint64 &done, qint64 &total) const override;
    QStringList volumePaths() const override { return m_archive->callback().volumePaths(); }

private:
    bool isZip() const { return m_format == "zip"; }
    CVSevenZipFailure readEntries();
    void peekInside();
    CVSevenZipFailure unsupportedVariant();

    Outcome run(CVSevenZipRun &extraction);
    void failLocked(CVSevenZipRun &extraction);
    void failContradictions(CVSevenZipRun &extraction);
    void failEntry(CVSevenZipRun &extraction, std::size_t entry, XADErrorCode code, const QString &text);
    void makeShares(CVSevenZipRun &extraction);
    void work(CVSevenZipRun &extraction, CVSevenZipArchive &archive);
    void reportMissing(CVSevenZipRun &extraction, const std::vector<std::uint32_t> &share);
    QString blockTooLarge(std::uint32_t item, qint64 unpackedBytes);
    std::uint64_t blockOf(std::uint32_t item);

    const CVSevenZipLibrary &m_library;
    CVEngineHost &m_host;
    std::shared_ptr<const CVSevenZipSource> m_source;
    std::unique_ptr<CVSevenZipArchive> m_archive;
    CVSevenZipGuess m_guess;
    QByteArray m_format; ///< of the innermost level
    QString m_formatName;
    std::vector<XADEntry> m_entries;
    std::vector<std::uint32_t> m_itemOfEntry;
    std::vector<int> m_entryOfItem; ///< -1 for items that are no entries
    CVSevenZipFailure m_archiveFailure;
    std::atomic<qint64> m_progress = 0;
    bool m_isEncrypted = false;
    bool m_headersEncrypted = false;
    bool m_entryIsArchive = false;
};

unsigned availableCores()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

CVSevenZipFailure SevenZipEngine::open(const CVSevenZipGuess &guess)
{
    m_guess = guess;
    const auto &format = m_library.formats()[std::size_t(guess.format)];
    m_archive = std::make_unique<CVSevenZipArchive>(
        m_library, m_source, [this] { return m_host.password(); }, [this] { return m_host.shouldStop(); });
    if (CVSevenZipFailure failure =
            format.name == "7z" ? headerFailure(*m_source, guess.offset) : CVSevenZipFailure{};
        failure.code != XADErrorCode::None)
        return failure;
    const Result result = m_archive->open(format, guess.offset, availableCores());
    const CVSevenZipOpenCallback &callback = m_archive->callback();
    if (callback.stopped())
        return {XADErrorCode::Stopped, {}};
    if (callback.passwordMissing())
        return {XADErrorCode::PasswordMissing, QStringLiteral("The names in the archive are encrypted.")};
    if (result != Ok && callback.passwordAsked())
        return {XADErrorCode::PasswordOrDamage,
                QStringLiteral("The password is wrong, or the archive is damaged.")};
    if (result == OutOfMemory)
        return {XADErrorCode::NotSupported,
                QStringLiteral("There is not enough memory to open the archive.")};
    if (result != Ok) {
        const CVSevenZipFailure failure = archiveFailure(m_library, m_archive->top());
        if (failure.code != XADErrorCode::None)
            return failure;
        return {XADErrorCode::Damaged, QStringLiteral("The archive is damaged or incomplete.")};
    }
    m_headersEncrypted = callback.passwordAsked();
    m_archive->descend();

    QStringList names;
    for (const CVSevenZipLibrary::Format *level : m_archive->formats())
        names << cvSevenZipFormatName(level->name);
    m_formatName = names.first();
    if (names.size() > 1)
        m_formatName += QStringLiteral(" (%1)").arg(names.last());
    m_format = m_archive->topFormat().name;
    m_archiveFailure = archiveFailure(m_library, m_archive->top());
    if (m_archiveFailure.code != XADErrorCode::None && !callback.missingVolume().isEmpty())
        m_archiveFailure.text = QStringLiteral("The volume \"%1\" is missing.").arg(callback.missingVolume());

    if (CVSevenZipFailure failure = readEntries(); failure.code != XADErrorCode::None)
        return failure;
    if (CVSevenZipFailure failure = unsupportedVariant(); failure.code != XADErrorCode::None)
        return failure;
    peekInside();
    return {};
}

/// Where another reader can do what this one cannot, it must hear of it before anything is shown.
CVSevenZipFailure SevenZipEngine::unsupportedVariant()
{
    if (m_format != "Arj")
        return {};
    if (m_isEncrypted)
        return {XADErrorCode::NotSupported, QStringLiteral("Encrypted ARJ is not supported.")};
    return {};
}

CVSevenZipFailure SevenZipEngine::readEntries()
{
    InArchive &archive = m_archive->top();
    std::uint32_t count = 0;
    if (archive.GetNumberOfItems(&count) != Ok)
        return {XADErrorCode::Damaged, QStringLiteral("The directory of the archive cannot be read.")};
    m_isEncrypted = m_headersEncrypted;
    m_entryOfItem.assign(count, -1);
    m_entries.reserve(count);
    m_itemOfEntry.reserve(count);
    CVSevenZipEntryReader reader(m_library, archive, m_format, m_source->paths());
    for (std::uint32_t item = 0; item < count; ++item) {
        if (item % 4096 == 0 && m_host.shouldStop())
            return {XADErrorCode::Stopped, {}};
        std::optional<XADEntry> entry = reader.read(item);
        if (!entry)
            continue;
        m_isEncrypted = m_isEncrypted || entry->encrypted;
        m_entryOfItem[item] = int(m_entries.size());
        m_itemOfEntry.push_back(item);
        m_entries.push_back(std::move(*entry));
    }
    return {};
}

/// A tar in a compressed file is what the person wants, not the tar.
void SevenZipEngine::peekInside()
{
    if (m_entries.size() != 1 || m_isEncrypted)
        return;
    if (m_format == "Rpm") {
        m_entryIsArchive = true;
        return;
    }
    if (!cvSevenZipIsSingleStream(m_format))
        return;
    m_entryIsArchive = cvSevenZipItemIsArchive(m_archive->top(), m_itemOfEntry[0]);
}

bool SevenZipEngine::compressedProgress(qint64 &done, qint64 &total) const
{
    if (!cvSevenZipIsSingleStream(m_format))
        return false;
    total = m_source->size();
    done = std::min(total, m_progress.load(std::memory_order_relaxed));
    return true;
}

CVReadingEngine::Outcome SevenZipEngine::extract(std::span<const int> indices, bool all, CVEntrySink &sink)
{
    const Utf8Locale locale;
    try {
        CVSevenZipRun extraction{.library = m_library,
                                 .entries = m_entries,
                                 .entryOfItem = m_entryOfItem,
                                 .checksumsAreCertain = m_format == "7z",
                                 .isZip = isZip(),
                                 .headersAreEncrypted = m_headersEncrypted,
                                 .progress = m_progress,
                                 .sink = sink};
        extraction.wanted.assign(m_entries.size(), all ? 1 : 0);
        extraction.delivered.assign(m_entries.size(), 0);
        for (const int index : indices)
            extraction.wanted[std::size_t(index)] = 1;
        return run(extraction);
    } catch (const std::bad_alloc &) {
        return {XADErrorCode::NotSupported,
                QStringLiteral("There is not enough memory to unpack the archive.")};
    } catch (
        ...) { // the module's own exceptions should not come out of it, but they are not ours to rule out
        return {XADErrorCode::Damaged, QStringLiteral("The archive cannot be read.")};
    }
}

CVReadingEngine::Outcome SevenZipEngine::run(CVSevenZipRun &extraction)
{
    m_progress = 0;
    failLocked(extraction);
    failContradictions(extraction);
    if (extraction.stopped)
        return {XADErrorCode::Stopped, {}};
    makeShares(extraction);
    if (extraction.stopped)
        return {XADErrorCode::Stopped, {}};

    const unsigned cores = availableCores();
    const auto workers = unsigned(std::min<std::size_t>(cores, extraction.shares.size()));
    if (workers > 1)
        m_archive->setThreads(std::max(1U, cores / workers));
    std::vector<std::thread> helpers;
    for (unsigned i = 1; i < workers; ++i) {
        helpers.emplace_back([this, &extraction, workers, cores] {
            const Utf8Locale locale;
            try {
                CVSevenZipArchive own(
                    m_library, m_source, [&extraction] { return extraction.password; },
                    [&extraction] { return extraction.isOver() || extraction.sink.shouldStop(); });
                const auto &format = m_library.formats()[std::size_t(m_guess.format)];
                // Without an archive of its own the helper leaves the work to the others.
                if (own.open(format, m_guess.offset, std::max(1U, cores / workers)) == Ok)
                    work(extraction, own);
            } catch (...) {
                extraction.fail(XADErrorCode::Damaged, QStringLiteral("The archive cannot be read."));
            }
        });
    }
    try {
        work(extraction, *m_archive);
    } catch (...) {
        extraction.fail(XADErrorCode::Damaged, QStringLiteral("The archive cannot be read."));
    }
    for (std::thread &helper : helpers)
        helper.join();

    if (extraction.stopped)
        return {XADErrorCode::Stopped, {}};
    if (extraction.outcome.code != XADErrorCode::None)
        return extraction.outcome;
    return {m_archiveFailure.code, m_archiveFailure.text};
}

/// Without a password the encrypted entries fail, and the others still come out.
void SevenZipEngine::failLocked(CVSevenZipRun &extraction)
{
    const auto isLocked = [&](std::size_t i) { return extraction.wanted[i] && m_entries[i].encrypted; };
    bool any = m_headersEncrypted;
    for (std::size_t i = 0; i < m_entries.size() && !any; ++i)
        any = isLocked(i);
    if (!any)
        return;
    extraction.password = m_host.password();
    for (std::size_t i = 0; i < m_entries.size() && !extraction.password && !extraction.stopped; ++i) {
        if (isLocked(i))
            failEntry(extraction, i, XADErrorCode::Password, QStringLiteral("A password is needed."));
    }
}

void SevenZipEngine::failEntry(CVSevenZipRun &extraction, std::size_t entry, XADErrorCode code,
                               const QString &text)
{
    extraction.wanted[entry] = 0;
    extraction.follow(extraction.sink.entryFailed(int(entry), code, text));
}

/// The module believes the directory of a zip, names included, and does not look at what the entries say.
void SevenZipEngine::failContradictions(CVSevenZipRun &extraction)
{
    if (!isZip() || m_archive->formats().size() > 1)
        return;
    const auto entryOf = [this](int item) {
        return std::size_t(item) < m_entryOfItem.size() ? m_entryOfItem[std::size_t(item)] : -1;
    };
    std::vector<std::pair<std::size_t, QString>> faults;
    const CVZipComparison comparison = cvZipCompareHeaders(
        [this](char *to, qint64 size, quint64 offset) { return m_source->readAt(to, size, qint64(offset)); },
        quint64(m_source->size()),
        [&](int item) {
            const int entry = entryOf(item);
            return entry >= 0 && extraction.wanted[std::size_t(entry)] && !extraction.isOver();
        },
        [&](int item, const QString &fault) { faults.emplace_back(std::size_t(entryOf(item)), fault); });
    // Of a set of volumes, and of a directory that only the module can follow, no more is known.
    if (comparison.entries != m_entryOfItem.size())
        return;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (extraction.wanted[i] && m_entries[i].type == XADEntry::Type::Directory && m_entries[i].size > 0)
            faults.emplace_back(i, QStringLiteral("An entry with data is called a folder."));
    }
    for (const auto &[entry, fault] : faults) {
        if (extraction.wanted[entry] && !extraction.isOver())
            failEntry(extraction, entry, XADErrorCode::Damaged, fault);
    }
}

std::uint64_t SevenZipEngine::blockOf(std::uint32_t item)
{
    CVSevenZipValue block(m_library);
    constexpr std::uint64_t none = ~std::uint64_t(0);
    return m_archive->top().GetProperty(item, PropertyBlock, block.out()) == Ok ? block.number(none) : none;
}

/// Why the block cannot be unpacked here; empty when it can. A window never fills beyond what is
/// unpacked through it, so a large one before little data is harmless.
QString SevenZipEngine::blockTooLarge(std::uint32_t item, qint64 unpackedBytes)
{
    CVSevenZipValue method(m_library);
    if (m_archive->top().GetProperty(item, PropertyMethod, method.out()) != Ok || !method.isString())
        return {};
    const qint64 limit = decoderMemoryLimit(m_source->size());
    const qint64 needed = std::min(cvSevenZipDecoderMemory(method.string()), unpackedBytes);
    if (needed <= limit)
        return {};
    return QStringLiteral("Unpacking needs %1 MiB of memory; the limit here is %2 MiB.")
        .arg(needed / mebibyte)
        .arg(limit / mebibyte);
}

/// Divides the work: blocks of 7z and runs of zip entries can be unpacked independently.
void SevenZipEngine::makeShares(CVSevenZipRun &extraction)
{
    const bool byBlock = m_format == "7z";
    qint64 total = 0;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (extraction.wanted[i])
            total = saturatingSum(total, std::max<qint64>(0, m_entries[i].size));
    }
    const bool isParallel =
        (byBlock || isZip()) && m_archive->formats().size() == 1 && total >= minimumParallelBytes;

    struct Share
    {
        std::vector<std::uint32_t> items;
        qint64 bytes = 0;
    };
    std::vector<Share> shares(1);
    std::uint64_t block = ~std::uint64_t(0);
    std::vector<std::pair<std::size_t, qint64>> blocks; // position in entries where each begins, its size
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        const qint64 size = std::max<qint64>(0, m_entries[i].size);
        if (byBlock && size > 0) {
            if (const std::uint64_t own = blockOf(m_itemOfEntry[i]); own != block) {
                block = own;
                blocks.emplace_back(i, 0);
            }
            blocks.back().second = saturatingSum(blocks.back().second, size);
        }
    }
    std::size_t nextBlock = 0;
    QString tooLarge;
    for (std::size_t i = 0; i < m_entries.size() && !extraction.stopped; ++i) {
        if (nextBlock < blocks.size() && blocks[nextBlock].first == i) {
            tooLarge = blockTooLarge(m_itemOfEntry[i], blocks[nextBlock].second);
            ++nextBlock;
            // Folders and empty files come along with the next block: a worker of their own would cost
            // the decoder of a single block its second thread.
            if (isParallel && shares.back().bytes > 0)
                shares.emplace_back();
        }
        if (!extraction.wanted[i])
            continue;
        if (!tooLarge.isEmpty() && m_entries[i].size > 0) {
            failEntry(extraction, i, XADErrorCode::NotSupported, tooLarge);
            continue;
        }
        if (isParallel && !byBlock &&
            (shares.back().bytes >= shareBytes || shares.back().items.size() >= shareItems))
            shares.emplace_back();
        shares.back().items.push_back(m_itemOfEntry[i]);
        shares.back().bytes = saturatingSum(shares.back().bytes, std::max<qint64>(0, m_entries[i].size));
    }
    // The longest first, so that no worker begins a large block when the others have finished.
    if (byBlock)
        std::stable_sort(shares.begin(), shares.end(),
                         [](const Share &a, const Share &b) { return a.bytes > b.bytes; });
    for (Share &share : shares) {
        if (!share.items.empty())
            extraction.shares.push_back(std::move(share.items));
    }
}

void SevenZipEngine::work(CVSevenZipRun &extraction, CVSevenZipArchive &archive)
{
    CVSevenZipExtraction callback(extraction, archive.top());
    while (!extraction.isOver()) {
        const std::size_t next = extraction.nextShare.fetch_add(1);
        if (next >= extraction.shares.size())
            return;
        const auto &share = extraction.shares[next];
        const Result result = archive.top().Extract(share.data(), std::uint32_t(share.size()), 0, &callback);
        if (result == Ok) {
            callback.abandon(QStringLiteral("The entry did not end."));
            reportMissing(extraction, share);
            continue;
        }
        callback.abandon(QStringLiteral("The archive cannot be read further."));
        if (extraction.isOver())
            return;
        if (result == OutOfMemory)
            extraction.fail(XADErrorCode::NotSupported,
                            QStringLiteral("There is not enough memory to unpack the archive."));
        else if (result == NotImplemented)
            extraction.fail(XADErrorCode::NotSupported, QStringLiteral("The archive cannot be unpacked."));
        else
            extraction.fail(XADErrorCode::Damaged, QStringLiteral("The archive cannot be read further."));
    }
}

/// The module passes over some entries without a word (folders of some formats, lost data).
void SevenZipEngine::reportMissing(CVSevenZipRun &extraction, const std::vector<std::uint32_t> &share)
{
    for (const std::uint32_t item : share) {
        const auto index = std::size_t(m_entryOfItem[item]);
        if (extraction.delivered[index] || extraction.isOver())
            continue;
        extraction.delivered[index] = 1;
        if (m_entries[index].type == XADEntry::Type::Directory) {
            if (const auto writer = extraction.sink.beginEntry(int(index)))
                extraction.follow(writer->finish(XADErrorCode::None));
        } else {
            extraction.follow(
                extraction.sink.entryFailed(int(index), XADErrorCode::Damaged,
                                            QStringLiteral("The archive gives no data for the entry.")));
        }
    }
}

CVSevenZipBytes bytesOf(const CVArchiveProbe &probe)
{
    CVSevenZipBytes bytes{probe.head, probe.tail, probe.fileSize, {}};
    bytes.more = [path = probe.path](qint64 offset, qint64 size) {
        const auto source = CVSevenZipSource::open({path});
        return source ? source->readAt(offset, size) : QByteArray();
    };
    return bytes;
}

constexpr int bidForParts = 95; ///< nobody else joins them
constexpr int bidForZip = 80;   ///< less for what only ends in one

int bid(const CVArchiveProbe &probe)
{
    const CVSevenZipLibrary *library = CVSevenZipLibrary::instance();
    if (!library)
        return 0;
    const auto guesses = cvSevenZipGuesses(*library, bytesOf(probe));
    if (guesses.empty())
        return 0;
    return CVSevenZipSource::numberedParts(probe.path).size() > 1 ? bidForParts : guesses.front().bid;
}

/// The module would give the first part of a divided entry as the whole.
CVEngineDescriptor::OpenOutcome openArjVolumes(const CVSevenZipLibrary &library, CVSevenZipGuess guess,
                                               const QString &path, CVEngineHost &host)
{
    std::vector<CVArjVolumes::Volume> volumes;
    QStringList paths;
    for (const QString &volumePath : cvArjVolumePaths(path)) {
        const auto source = CVSevenZipSource::open({volumePath});
        auto engine = source ? std::make_unique<SevenZipEngine>(library, host, source) : nullptr;
        const CVSevenZipFailure failure =
            engine ? engine->open(guess)
                   : CVSevenZipFailure{XADErrorCode::Damaged,
                                       QStringLiteral("A volume of the archive cannot be read.")};
        if (failure.code != XADErrorCode::None)
            return {nullptr, failure.code, failure.text};
        const CVArjDivision division = cvArjDivision(*source, guess.offset);
        volumes.push_back({std::move(engine), division});
        paths << volumePath;
        if (!division.lastContinues) // a file with the next number would belong to something else
            break;
        guess.offset = 0; // only the first volume may be a program
    }
    return {std::make_unique<CVArjVolumes>(std::move(volumes), paths), XADErrorCode::None, {}};
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &host)
{
    const CVSevenZipLibrary *library = CVSevenZipLibrary::instance();
    if (!library)
        return {nullptr, XADErrorCode::NotSupported,
                QStringLiteral("The 7-Zip library is not installed (package p7zip-full).")};
    const Utf8Locale locale;
    try {
        const auto source = CVSevenZipSource::open(CVSevenZipSource::numberedParts(probe.path));
        if (!source)
            return {nullptr, XADErrorCode::Damaged, QStringLiteral("The file cannot be read.")};
        CVSevenZipBytes bytes = bytesOf(probe);
        bytes.size = source->size();
        bytes.more = [&source](qint64 offset, qint64 size) { return source->readAt(offset, size); };
        if (source->paths().size() > 1)
            bytes.tail = source->readAt(std::max<qint64>(0, bytes.size - 64 * 1024 - 22), 64 * 1024 + 22);

        const auto guesses = cvSevenZipGuesses(*library, bytes);
        const auto formatOf = [library](const CVSevenZipGuess &guess) {
            return library->formats()[std::size_t(guess.format)].name;
        };
        if (!guesses.empty() && formatOf(guesses.front()) == "Arj") {
            if (const CVArjDivision division = cvArjDivision(*source, guesses.front().offset);
                division.isVolume)
                return openArjVolumes(*library, guesses.front(), probe.path, host);
        }
        CVSevenZipFailure first;
        for (const CVSevenZipGuess &guess : guesses) {
            auto engine = std::make_unique<SevenZipEngine>(*library, host, source);
            const CVSevenZipFailure failure = engine->open(guess);
            switch (failure.code) {
            case XADErrorCode::None:
                return {std::move(engine), XADErrorCode::None, {}};
            case XADErrorCode::Stopped:
            case XADErrorCode::PasswordMissing:
                return {nullptr, failure.code, failure.text};
            case XADErrorCode::PasswordOrDamage: // no other reader knows more
                return {nullptr, failure.code, failure.text, true};
            default:
                break;
            }
            if (first.code == XADErrorCode::None)
                first = failure;
            // The checksums of a 7z leave no doubt, and neither does a zip that the module, which forgives
            // much, gives up. A reader that looks at less makes of the rest what it can: an entry of another
            // kind, or parts that are merely joined.
            const bool isZip = formatOf(guess) == "zip" && guess.bid >= bidForZip;
            if (failure.code == XADErrorCode::Damaged && (isZip || formatOf(guess) == "7z"))
                return {nullptr, failure.code, failure.text, true};
        }
        if (first.code == XADErrorCode::None)
            return {nullptr, XADErrorCode::NotSupported, QStringLiteral("The format is not known.")};
        return {nullptr, first.code, first.text};
    } catch (const std::bad_alloc &) {
        return {nullptr, XADErrorCode::NotSupported,
                QStringLiteral("There is not enough memory to open the archive.")};
    } catch (...) {
        return {nullptr, XADErrorCode::Damaged, QStringLiteral("The archive cannot be read.")};
    }
}

} // namespace

CVEngineDescriptor cvSevenZipEngineDescriptor()
{
    return {"7-Zip library", &bid, &open};
}

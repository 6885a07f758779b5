#include "archives/reading/XADArchive.h"

#include "archives/reading/CVArchiveFiles.h"
#include "archives/reading/CVNameDecoder.h"
#include "archives/reading/CVSafeWriter.h"
#include "archives/reading/CVUnarEngine.h"
#include "archives/reading/cage/CVCagedEngine.h"
#include "archives/reading/cage/CVReaderSession.h"
#include "util/LXFileName.h"
#include "util/LXSaturatingSum.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSet>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <mutex>
#include <numeric>

#include <fcntl.h>
#include <sys/stat.h>

Q_LOGGING_CATEGORY(lcReading, "corvane.archives.reading", QtWarningMsg)

namespace {

// Enough for every signature that is looked for, the ones deep inside disc images included.
constexpr qint64 probeHeadBytes = qint64(64) << 10;
// The end record of a zip with the longest comment that it can have.
constexpr qint64 probeTailBytes = (qint64(64) << 10) + 22;
// A compressed archive inside one entry is unpacked to disk first; more layers than this are somebody's joke.
constexpr int maxInnerLayers = 4;

QString text(const char *source)
{
    return QCoreApplication::translate("XADArchive", source);
}

LXFileDescriptor readProbe(const QString &path, CVArchiveProbe &probe)
{
    probe.path = path;
    LXFileDescriptor fd = CVArchiveFiles::open(path);
    struct stat info;
    if (!fd.isOpen() || ::fstat(fd.get(), &info) != 0)
        return LXFileDescriptor();
    probe.fileSize = info.st_size;
    const auto readAt = [&fd](qint64 offset, qint64 size) {
        QByteArray bytes(static_cast<qsizetype>(size), Qt::Uninitialized);
        qint64 got = 0;
        while (got < size) {
            const ssize_t n =
                ::pread(fd.get(), bytes.data() + got, static_cast<std::size_t>(size - got), offset + got);
            if (n <= 0)
                break;
            got += n;
        }
        bytes.truncate(got);
        return bytes;
    };
    probe.head = readAt(0, std::min(probe.fileSize, probeHeadBytes));
    const qint64 tail = std::min(probe.fileSize, probeTailBytes);
    probe.tail = tail == probe.head.size() ? probe.head : readAt(probe.fileSize - tail, tail);
    return fd;
}

/// An engine that could open the archive: one of the reader's, by its number, or the one that works here by
/// starting programs.
struct Candidate
{
    static constexpr int unar = -1;
    int bid;
    int number;
};

CVNameDecoder::Family nameFamily(const QString &format)
{
    using Family = CVNameDecoder::Family;
    const auto is = [&format](QLatin1StringView start) {
        return format.startsWith(start, Qt::CaseInsensitive);
    };
    if (is(QLatin1StringView("zip")))
        return Family::Zip;
    if (is(QLatin1StringView("rar")))
        return Family::Rar;
    if (is(QLatin1StringView("tar")) || is(QLatin1StringView("cpio")))
        return Family::Tar;
    if (is(QLatin1StringView("lha")) || is(QLatin1StringView("lzh")))
        return Family::Lha;
    if (is(QLatin1StringView("arj")))
        return Family::Arj;
    return Family::Other;
}

} // namespace

struct XADArchive::Private : CVEngineHost
{
    XADArchive *q = nullptr;
    XADArchiveDelegate *delegate = nullptr;
    CVArchiveProbe probe;
    std::shared_ptr<CVReaderSession> session;
    std::unique_ptr<CVReadingEngine> engine;
    std::vector<Candidate> others; // not tried so far, best first

    std::unique_ptr<CVNameDecoder> decoder;
    bool namesObserved = false; ///< every name went through the decoder

    std::recursive_mutex passwordMutex; ///< recursive: the delegate answers through setPassword()
    std::optional<QString> givenPassword;
    bool passwordAsked = false;

    std::vector<CVSkippedEntry> skipped;
    QString errorText;
    int systemError = 0;
    std::shared_ptr<QTemporaryDir> innerFolder; ///< holds the unpacked inner archive
    int layer = 0;                              ///< how many archives this one was unpacked from

    // CVEngineHost
    std::optional<QString> password() override
    {
        const std::lock_guard lock(passwordMutex);
        if (!givenPassword && !passwordAsked && delegate && q) {
            passwordAsked = true;
            delegate->archiveNeedsPassword(*q);
        }
        return givenPassword;
    }
    bool shouldStop() override { return delegate && q && delegate->archiveExtractionShouldStop(*q); }

    XADErrorCode openNext();
    void resetDecoder()
    {
        decoder = std::make_unique<CVNameDecoder>(nameFamily(engine->formatName()));
        namesObserved = false;
    }
    void observeAllNames();
    QString decode(const QByteArray &raw, CVNameEncoding encoding);
    qint64 archiveBytes() const;
};

/// Opens with the best of the engines left. Damaged or unsupported: the next may do better.
XADErrorCode XADArchive::Private::openNext()
{
    XADErrorCode first = XADErrorCode::None;
    QString firstText;
    while (!others.empty()) {
        const int number = others.front().number;
        others.erase(others.begin());
        CVEngineDescriptor::OpenOutcome outcome = number == Candidate::unar
                                                      ? cvUnarEngineDescriptor().open(probe, *this)
                                                      : cvOpenCaged(session, number);
        if (outcome.engine) {
            qCDebug(lcReading) << "engine" << number << "reads" << probe.path << "as"
                               << outcome.engine->formatName();
            engine = std::move(outcome.engine);
            resetDecoder();
            return XADErrorCode::None;
        }
        qCDebug(lcReading) << "engine" << number << "cannot open" << probe.path << int(outcome.code)
                           << outcome.detail;
        if (outcome.code == XADErrorCode::None)
            outcome.code = XADErrorCode::NotSupported;
        // A wrong password is known by the reader that could read the archive; asking another proves nothing.
        const bool isFinal = outcome.code == XADErrorCode::PasswordMissing ||
                             outcome.code == XADErrorCode::PasswordWrongOpening ||
                             outcome.code == XADErrorCode::Stopped || outcome.damageIsCertain;
        if (first == XADErrorCode::None || isFinal ||
            (first == XADErrorCode::NotSupported && outcome.code == XADErrorCode::Damaged)) {
            first = outcome.code;
            firstText = outcome.detail;
        }
        if (isFinal)
            break;
    }
    errorText = firstText;
    return first == XADErrorCode::None ? XADErrorCode::NotSupported : first;
}

void XADArchive::Private::observeAllNames()
{
    if (namesObserved)
        return;
    for (const XADEntry &entry : engine->entries()) {
        if (entry.nameEncoding == CVNameEncoding::Utf8)
            continue;
        decoder->observe(entry.name);
        if (!entry.linkTarget.isEmpty())
            decoder->observe(entry.linkTarget);
    }
    decoder->decide();
    namesObserved = true;
}

QString XADArchive::Private::decode(const QByteArray &raw, CVNameEncoding encoding)
{
    return decoder->decode(raw, encoding);
}

XADArchive::XADArchive(std::unique_ptr<Private> p)
    : d(std::move(p))
{
    d->q = this;
}

XADArchive::~XADArchive() = default;

std::unique_ptr<XADArchive> XADArchive::openFile(const QString &path, XADArchiveDelegate *delegate,
                                                 XADErrorCode *error, QString *detail)
{
    const auto fail = [&](XADErrorCode code, const QString &reason) {
        if (error)
            *error = code;
        if (detail)
            *detail = reason;
        return nullptr;
    };
    auto p = std::make_unique<Private>();
    p->delegate = delegate;
    LXFileDescriptor file = readProbe(path, p->probe);
    if (!file.isOpen())
        return fail(XADErrorCode::Damaged, QString::fromLocal8Bit(std::strerror(errno)));
    if (p->probe.fileSize == 0)
        return fail(XADErrorCode::Damaged, text("The file is empty."));

    p->session = std::make_shared<CVReaderSession>(path, std::move(file), p->probe.fileSize, *p);
    int number = 0;
    for (const int bid : p->session->bids())
        p->others.push_back({bid, number++});
    if (!p->session->isRunning())
        return p->session->hasFailed() ? fail(XADErrorCode::Damaged, p->session->failureText())
                                       : fail(XADErrorCode::Stopped, {});
    p->others.push_back({cvUnarEngineDescriptor().bid(p->probe), Candidate::unar});
    std::erase_if(p->others, [](const Candidate &candidate) { return candidate.bid <= 0; });
    std::stable_sort(p->others.begin(), p->others.end(),
                     [](const Candidate &a, const Candidate &b) { return a.bid > b.bid; });
    if (p->others.empty())
        return fail(XADErrorCode::NotSupported,
                    text("It is not an archive that any installed reader knows."));

    std::unique_ptr<XADArchive> archive(new XADArchive(std::move(p)));
    const XADErrorCode code = archive->d->openNext();
    if (code != XADErrorCode::None)
        return fail(code, archive->d->errorText);
    if (error)
        *error = XADErrorCode::None;
    return archive;
}

std::unique_ptr<XADArchive> XADArchive::openEntry(XADArchive &outer, int entry, XADArchiveDelegate *delegate,
                                                  XADErrorCode *error, QString *detail)
{
    if (outer.d->layer >= maxInnerLayers) {
        // An archive that unpacks to itself would never come to an end.
        if (error)
            *error = XADErrorCode::NotSupported;
        return nullptr;
    }
    const auto place = std::make_shared<QTemporaryDir>();
    const XADErrorCode code =
        place->isValid() ? outer.extractEntry(entry, place->path()) : XADErrorCode::Damaged;
    QString inner;
    if (code == XADErrorCode::None) {
        const CVDestination destination(QFile::encodeName(place->path()));
        if (const auto names = destination.topLevelNames(2); names && names->size() == 1)
            inner = place->filePath(fileNameFromBytes(names->front()));
    }
    if (inner.isEmpty()) {
        if (error)
            *error = code == XADErrorCode::None ? XADErrorCode::Damaged : code;
        if (detail)
            *detail = outer.lastErrorText();
        return nullptr;
    }
    auto archive = openFile(inner, delegate, error, detail);
    if (archive) {
        archive->d->innerFolder = place;
        archive->d->layer = outer.d->layer + 1;
        archive->setPassword(outer.password());
    }
    return archive;
}

std::unique_ptr<XADArchive> XADArchive::recursiveArchiveForFile(const QString &path,
                                                                XADArchiveDelegate *delegate,
                                                                XADErrorCode *error, QString *detail)
{
    auto archive = openFile(path, delegate, error, detail);
    while (archive) {
        if (!archive->entryIsArchive(0) || archive->numberOfEntries() != 1)
            break;
        XADErrorCode innerError = XADErrorCode::None;
        auto inner = openEntry(*archive, 0, delegate, &innerError, detail);
        if (!inner) {
            if (innerError == XADErrorCode::NotSupported)
                break; // it only looked like an archive: deliver it as it is
            if (error)
                *error = innerError;
            return nullptr;
        }
        archive = std::move(inner);
    }
    return archive;
}

void XADArchive::setDelegate(XADArchiveDelegate *delegate)
{
    d->delegate = delegate;
}

void XADArchive::setPassword(const std::optional<QString> &password)
{
    const std::lock_guard lock(d->passwordMutex);
    d->givenPassword = password;
}

std::optional<QString> XADArchive::password() const
{
    const std::lock_guard lock(d->passwordMutex);
    return d->givenPassword;
}

QString XADArchive::formatName() const
{
    return d->engine->formatName();
}

QString XADArchive::path() const
{
    return d->probe.path;
}

int XADArchive::numberOfEntries() const
{
    return static_cast<int>(d->engine->entries().size());
}

QString XADArchive::listingProblem() const
{
    const CVReadingEngine::Outcome outcome = d->engine->listingOutcome();
    if (outcome.code == XADErrorCode::None)
        return {};
    return outcome.detail.isEmpty() ? text("The archive is damaged or cut off.") : outcome.detail;
}

bool XADArchive::isEncrypted() const
{
    return d->engine->isEncrypted();
}

bool XADArchive::entryIsArchive(int index) const
{
    return d->engine->entryIsArchive(index);
}

bool XADArchive::entryIsDirectory(int index) const
{
    return entry(index).type == XADEntry::Type::Directory;
}

QString XADArchive::nameOfEntry(int index) const
{
    d->observeAllNames();
    const XADEntry &e = entry(index);
    return canonicalPath(d->decode(e.name, e.nameEncoding));
}

QString XADArchive::linkTargetOfEntry(int index) const
{
    d->observeAllNames();
    const XADEntry &e = entry(index);
    return d->decode(e.linkTarget, e.nameEncoding);
}

qint64 XADArchive::uncompressedSizeOfEntry(int index) const
{
    const XADEntry &e = entry(index);
    // A hard link stores nothing; its size is that of the file it leads to.
    return e.type == XADEntry::Type::HardLink && e.size == 0 ? -1 : e.size;
}

const XADEntry &XADArchive::entry(int index) const
{
    return d->engine->entries()[static_cast<std::size_t>(index)];
}

const std::vector<CVSkippedEntry> &XADArchive::skippedEntries() const
{
    return d->skipped;
}

QString XADArchive::lastErrorText() const
{
    return d->errorText;
}

int XADArchive::lastSystemError() const
{
    return d->systemError;
}

XADErrorCode XADArchive::extractTo(const QString &destination, bool subArchives)
{
    if (subArchives && entryIsArchive(0) && numberOfEntries() == 1) {
        XADErrorCode error = XADErrorCode::None;
        QString detail;
        if (auto inner = openEntry(*this, 0, d->delegate, &error, &detail)) {
            const XADErrorCode code = inner->extractTo(destination, subArchives);
            d->skipped = inner->d->skipped;
            d->errorText = inner->d->errorText;
            d->systemError = inner->d->systemError;
            return code;
        }
        if (error != XADErrorCode::NotSupported) {
            d->errorText = detail;
            return error;
        }
    }
    return extractIndices({}, true, destination);
}

XADErrorCode XADArchive::extractEntries(const std::vector<int> &indices, const QString &destination)
{
    return extractIndices(indices, false, destination);
}

XADErrorCode XADArchive::extractEntry(int index, const QString &destination)
{
    return extractIndices({index}, false, destination);
}

qint64 XADArchive::Private::archiveBytes() const
{
    qint64 bytes = 0;
    for (const QString &volume : engine->volumePaths())
        bytes += QFileInfo(volume).size();
    return std::max(bytes, probe.fileSize);
}

XADErrorCode XADArchive::extractIndices(const std::vector<int> &indices, bool all,
                                        const QString &destinationPath)
{
    d->skipped.clear();
    d->errorText.clear();
    d->systemError = 0;
    CVDestination destination(bytesOfFileName(destinationPath));
    if (!destination.isOpen()) {
        d->systemError = errno;
        d->errorText = QString::fromLocal8Bit(std::strerror(errno));
        return XADErrorCode::Damaged;
    }
    // Only what this extraction made may be thrown away for another try.
    const bool ownsContents = destination.isEmpty();
    if (!all || !ownsContents)
        d->observeAllNames();

    std::vector<int> wanted = indices;
    Attempt attempt = attemptExtraction(wanted, all, destination, ownsContents);
    if (attempt.needsAllNames) {
        destination.empty();
        d->observeAllNames();
        attempt = attemptExtraction(wanted, all, destination, ownsContents);
    }
    const Attempt first = attempt;
    while (attempt.mayDoBetter && ownsContents) {
        QStringList names;
        if (!all)
            for (const int index : wanted)
                names << nameOfEntry(index);
        if (d->openNext() != XADErrorCode::None)
            break;
        qCInfo(lcReading) << "trying again with another reader:" << first.text;
        destination.empty();
        d->observeAllNames();
        if (!all) {
            const QSet<QString> chosen(names.cbegin(), names.cend());
            wanted.clear();
            for (int index = 0; index < numberOfEntries(); ++index)
                if (chosen.contains(nameOfEntry(index)))
                    wanted.push_back(index);
        }
        attempt = attemptExtraction(wanted, all, destination, ownsContents, true);
    }
    if (attempt.mayDoBetter) {
        // No other reader did better: the first one's account stands, and the delegate hears of it now.
        attempt = first;
        if (d->delegate && attempt.failedEntry >= 0)
            d->delegate->archiveExtractionOfEntryDidFail(*this, attempt.failedEntry, attempt.code);
    } else if (first.code == XADErrorCode::Damaged && attempt.code == XADErrorCode::None)
        attempt.remark =
            text("One reader found damage in it (%1); what was delivered passed the checks of another.")
                .arg(first.text);
    d->skipped = std::move(attempt.skipped);
    if (!attempt.remark.isEmpty())
        d->skipped.push_back({QFileInfo(path()).fileName(), attempt.remark, XADErrorCode::NotMade});
    d->errorText = attempt.text;
    d->systemError = attempt.systemError;
    return attempt.code;
}

XADArchive::Attempt XADArchive::attemptExtraction(const std::vector<int> &indices, bool all,
                                                  CVDestination &destination, bool ownsContents, bool isRetry)
{
    Attempt attempt;
    CVReadingEngine &engine = *d->engine;
    const bool streaming = all && engine.entriesAreLazy();

    qint64 total = engine.declaredTotal();
    std::vector<int> wanted = indices;
    if (!streaming) {
        d->observeAllNames();
        if (all) {
            wanted.resize(static_cast<std::size_t>(numberOfEntries()));
            std::iota(wanted.begin(), wanted.end(), 0);
        }
        if (total <= 0)
            for (const int index : wanted)
                total = saturatingSum(total, std::max<qint64>(entry(index).size, 0));
    }

    CVSafeWriter::Callbacks callbacks;
    callbacks.decode = [this, &attempt](const QByteArray &raw, CVNameEncoding encoding) {
        if (!d->namesObserved && encoding == CVNameEncoding::Unmarked) {
            d->decoder->observe(raw);
            // The charset is chosen from all names; this pass has only seen the first of them.
            if (!d->decoder->isAllUtf8())
                attempt.needsAllNames = true;
        }
        return d->decode(raw, encoding);
    };
    callbacks.progress = [this, &engine, &total](qint64 done) {
        if (!d->delegate)
            return;
        qint64 position = 0, size = 0;
        if (total <= 0 && engine.compressedProgress(position, size))
            d->delegate->archiveExtractionProgressBytes(*this, position, size);
        else
            d->delegate->archiveExtractionProgressBytes(*this, done, std::max(done, total));
    };
    callbacks.shouldStop = [this, &attempt] {
        return attempt.needsAllNames || (d->delegate && d->delegate->archiveExtractionShouldStop(*this));
    };
    // What a later reader fails with says less than the first one's account, which then stands.
    const bool othersLeft = ownsContents && (isRetry || !d->others.empty());
    // A method that this reader does not know says nothing about the others, whoever has the last word on
    // damage.
    const auto mayDoBetter = [othersLeft, &engine](XADErrorCode code) {
        return othersLeft && (code == XADErrorCode::NotSupported ||
                              (code == XADErrorCode::Damaged && !engine.isDamageFinal()));
    };
    callbacks.entryDidFail = [this, &attempt, mayDoBetter](int index, XADErrorCode code) {
        if (attempt.needsAllNames)
            return XADAction::Skip;
        if (mayDoBetter(code)) {
            attempt.mayDoBetter = true;
            attempt.failedEntry = index;
            return XADAction::Abort;
        }
        return d->delegate ? d->delegate->archiveExtractionOfEntryDidFail(*this, index, code)
                           : XADAction::Skip;
    };
    callbacks.mayExceedLimit = [this](const QString &explanation) {
        return d->delegate && d->delegate->archiveExtractionMayExceedLimit(*this, explanation);
    };

    const auto free = static_cast<qint64>(
        std::min<std::uint64_t>(destination.freeBytes(), std::uint64_t(std::numeric_limits<qint64>::max())));
    if (total > free - CVWriteLimits::reservedFreeBytes) {
        const QString explanation =
            text("The archive says that it unpacks to %1 bytes, but only %2 bytes are free.")
                .arg(total)
                .arg(free);
        if (!callbacks.mayExceedLimit(explanation)) {
            attempt.code = XADErrorCode::Damaged;
            attempt.text = explanation;
            attempt.systemError = ENOSPC;
            return attempt;
        }
    }

    CVSafeWriter writer(
        destination, engine, std::move(callbacks),
        {.archiveBytes = d->archiveBytes(),
         .ownsContents = ownsContents,
         .laterReplaces = ownsContents && engine.formatName().startsWith(QLatin1StringView("tar"))});
    const CVReadingEngine::Outcome outcome = engine.extract(wanted, all, writer);
    writer.finishTree();

    attempt.code = outcome.code;
    attempt.text = outcome.detail;
    attempt.remark = outcome.remark;
    if (writer.outcome() != XADErrorCode::None) {
        attempt.code = writer.outcome();
        attempt.text = writer.outcomeText();
    }
    attempt.systemError = writer.systemError();
    attempt.skipped = writer.takeSkipped();
    const bool stopped = d->delegate && d->delegate->archiveExtractionShouldStop(*this);
    if (attempt.needsAllNames) {
        attempt.mayDoBetter = false;
        attempt.needsAllNames = !stopped;
    }
    // The engine itself gave up (not one entry, not the disk, not the person): another may not.
    if (writer.outcome() == XADErrorCode::None && mayDoBetter(outcome.code))
        attempt.mayDoBetter = true;
    if (stopped) {
        attempt.code = XADErrorCode::Stopped;
        attempt.mayDoBetter = false;
    }
    return attempt;
}

#include "archives/reading/cage/CVReaderSession.h"

#include "archives/reading/CVArchiveFiles.h"
#include "archives/reading/CVReadingText.h"
#include "archives/reading/cage/CVCageServer.h"
#include "archives/reading/cage/CVCagedExtraction.h"
#include "archives/reading/cage/CVReaderServer.h"
#include "archives/reading/cage/CVVolumeNames.h"
#include "util/write_all.h"

#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

using namespace CVCage;

Q_LOGGING_CATEGORY(lcCaged, "corvane.archives.reader", QtWarningMsg)

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// How long a stop or a silent reader goes unnoticed.
constexpr int lookMs = 20;
/// A reader that was asked to stop comes back within a block; one that does not is ended.
constexpr auto timeToStop = 200ms;
/// News of a death come with it.
constexpr int newsMs = 2000;
/// More questions for volumes than any real set brings about.
constexpr int maxVolumeQuestions = 50'000;

/// Readers speak the language of the texts' keys.
void translate(QString &detail)
{
    if (!detail.isEmpty())
        detail = readingText(detail.toUtf8().constData());
}

LXFileDescriptor memoryFile()
{
    return LXFileDescriptor(::memfd_create("corvane-list", MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

} // namespace

CVReaderSession::CVReaderSession(QString path, LXFileDescriptor file, qint64 fileSize, CVEngineHost &host)
    : m_path(std::move(path))
    , m_file(std::move(file))
    , m_fileSize(fileSize)
    , m_host(host)
{}

CVReaderSession::~CVReaderSession()
{
    end();
}

/// Kills the reader. It holds nothing that would have to be put in order.
void CVReaderSession::end()
{
    if (m_processHandle.isOpen())
        ::syscall(SYS_pidfd_send_signal, m_processHandle.get(), SIGKILL, nullptr, 0);
    // One that never got as far as to be known ends with its conversation.
    m_processHandle.reset();
    m_process = -1;
    m_control.close();
    m_news.close();
    for (const CVCageSocket &stream : m_streams) // whoever serves it comes back
        ::shutdown(stream.fd(), SHUT_RDWR);
}

void CVReaderSession::failed(const QString &why)
{
    qCWarning(lcCaged) << "the reader of" << m_path << "was ended:" << why;
    m_failure = why;
    end();
}

void CVReaderSession::spokeNonsense()
{
    failed(readingText("The reader gave up on this archive. It is damaged, or made to do harm."));
}

/// The conversation is over, and not by our doing.
void CVReaderSession::died()
{
    CVCageServer::Ended ended{};
    std::size_t size = 0;
    int signal = 0;
    if (m_news.receive(&ended, sizeof ended, size, newsMs) == CVCageSocket::Got::Message &&
        size == sizeof ended) {
        signal = WIFSIGNALED(ended.waitStatus) ? WTERMSIG(ended.waitStatus) : 0;
        qCWarning(lcCaged) << "the reader of" << m_path << "ended with signal" << signal << "status"
                           << (WIFEXITED(ended.waitStatus) ? WEXITSTATUS(ended.waitStatus) : 0);
    }
    // Nobody else kills it than the kernel that has no memory left.
    failed(signal == SIGKILL
               ? readingText("The reader gave up on this archive: there was not enough memory for it.")
               : readingText("The reader gave up on this archive. It is damaged, or made to do harm."));
}

CVReadingEngine::Outcome CVReaderSession::failureOutcome() const
{
    if (m_failure)
        return {XADErrorCode::Damaged, *m_failure, {}};
    return {XADErrorCode::Stopped, {}, {}};
}

qint64 CVReaderSession::position() const
{
    return m_memory ? std::clamp<qint64>(m_memory->position().load(std::memory_order_relaxed), 0, m_fileSize)
                    : 0;
}

bool CVReaderSession::start()
{
    if (m_failure)
        return false;
    if (m_control.isOpen())
        return true;
    ++m_generation;
    for (int attempt = 0; attempt < 2; ++attempt) {
        LXResult<CVReaderServer::Reader> reader = CVReaderServer::instance().start();
        if (!reader) {
            const LXError &error = reader.error();
            m_failure = error.reason.isEmpty() ? error.description : error.description + u' ' + error.reason;
            if (!error.suggestion.isEmpty())
                *m_failure += u' ' + error.suggestion;
            return false;
        }
        CVReaderServer::Reader made = std::move(reader).value();
        m_control = std::move(made.conversation);
        m_news = std::move(made.news);
        // First comes the process itself, or the end of the server, which had nothing to do with the archive.
        QByteArray message;
        std::vector<LXFileDescriptor> handles;
        if (m_news.receive(message, &handles, 10'000) == CVCageSocket::Got::Message &&
            message.size() == qsizetype(sizeof(CVCageServer::Started)) && handles.size() == 1) {
            CVCageServer::Started started{};
            memcpy(&started, message.constData(), sizeof started);
            m_process = started.process;
            m_processHandle = std::move(handles.front());
            return begin();
        }
        end();
    }
    failed(readingText("The reader of archives could not be started."));
    return false;
}

bool CVReaderSession::begin()
{
    m_memory = CVCageMemory::create();
    m_streams.clear();
    std::vector<CVCageSocket> theirs;
    std::vector<int> descriptors{m_file.get(), m_memory ? m_memory->fd() : -1};
    const int count = std::clamp(int(std::thread::hardware_concurrency()), 1, CVCageMemory::maxStreams);
    for (int i = 0; i < count && m_memory; ++i) {
        auto [ours, other] = CVCageSocket::pair();
        descriptors.push_back(other.fd());
        theirs.push_back(std::move(other));
        m_streams.push_back(std::move(ours));
    }
    if (std::any_of(descriptors.begin(), descriptors.end(), [](int fd) { return fd < 0; })) {
        failed(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    const auto message = command(
        Command::Begin, [this](QDataStream &to) { put(to, m_path.mid(m_path.lastIndexOf(u'/') + 1)); },
        descriptors, Report::Bids, Report::Bids);
    if (!message)
        return false;
    QDataStream from(*message);
    quint8 kind = 0;
    from >> kind;
    m_bids.clear();
    while (!from.atEnd() && int(m_bids.size()) < maxEngines) {
        qint32 bid = 0;
        from >> bid;
        m_bids.push_back(std::clamp(bid, 0, 1000));
    }
    return true;
}

std::vector<int> CVReaderSession::bids()
{
    return start() ? m_bids : std::vector<int>{};
}

template <typename Fill>
std::optional<QByteArray> CVReaderSession::command(Command kind, Fill fill, std::span<const int> descriptors,
                                                   Report expected, Report other,
                                                   CVCagedExtraction *extraction, CVEntrySink *sink)
{
    m_memory->stop() = 0;
    QByteArray message;
    QDataStream to(&message, QIODevice::WriteOnly);
    to << quint8(kind);
    fill(to);
    if (!m_control.send(message, descriptors, CVCageSocket::Wait::Never)) {
        died();
        return std::nullopt;
    }
    return await(expected, other, extraction, sink);
}

/// Until one of the two reports comes, with everything that an extraction brings before it.
std::optional<QByteArray> CVReaderSession::await(Report expected, Report other, CVCagedExtraction *extraction,
                                                 CVEntrySink *sink)
{
    CVReaderWatch watch;
    watch.setProcess(m_process);
    std::uint64_t signs = 0;
    qint64 furthest = 0;
    Clock::time_point nextLook = Clock::now() + std::chrono::milliseconds(lookMs);
    std::optional<Clock::time_point> stoppedAt;
    std::optional<QByteArray> result;
    for (;;) {
        if (result && (!extraction || extraction->hasEnded()))
            return result;
        const bool servesFirst = extraction && !extraction->hasFirstEnded();
        pollfd waiting[] = {{result ? -1 : m_control.fd(), POLLIN, 0},
                            {servesFirst ? extraction->firstSocket() : -1, POLLIN, 0}};
        ::poll(waiting, 2, lookMs);
        if (waiting[1].revents)
            extraction->serveFirst();
        if (extraction && extraction->isBroken()) {
            if (extraction->isCutOff())
                died();
            else
                spokeNonsense();
            return std::nullopt;
        }
        if (waiting[0].revents) {
            QByteArray message;
            if (m_control.receive(message) != CVCageSocket::Got::Message) {
                died();
                return std::nullopt;
            }
            QDataStream from(message);
            quint8 kind = 0;
            from >> kind;
            const auto report = static_cast<Report>(kind);
            ++signs;
            if (report == expected || report == other) {
                result = message;
            } else {
                if (!answer(report, from, extraction)) {
                    spokeNonsense();
                    return std::nullopt;
                }
            }
            watch.excuse(); // it may have waited for a person
        }
        const Clock::time_point now = Clock::now();
        if (now < nextLook)
            continue;
        nextLook = now + std::chrono::milliseconds(lookMs);
        // During an extraction the sink asks, which does so one at a time.
        const bool stops = sink ? sink->shouldStop() : m_host.shouldStop();
        if (stops)
            m_memory->stop() = 1;
        // The archive may be read on when it was the sink alone that had enough.
        if (stops && m_host.shouldStop()) {
            if (!stoppedAt)
                stoppedAt = now;
            else if (now - *stoppedAt > timeToStop) {
                end();
                return std::nullopt;
            }
        }
        if (const qint64 at = position(); at > furthest) {
            furthest = at;
            ++signs;
        }
        if (extraction && extraction->isBusy())
            watch.excuse();
        else if (!watch.isAlive(signs + (extraction ? extraction->signs() : 0),
                                m_memory->ticks().load(std::memory_order_relaxed))) {
            failed(
                readingText("The reader gave up on this archive: it came to no end. It is damaged, or made "
                            "to do harm."));
            return std::nullopt;
        }
    }
}

/// False: it cannot have asked that.
bool CVReaderSession::answer(Report kind, QDataStream &from, CVCagedExtraction *extraction)
{
    switch (kind) {
    case Report::Volume:
        return answerVolume(from);
    case Report::Password: {
        const std::optional<QString> password = m_host.password();
        QByteArray message;
        QDataStream to(&message, QIODevice::WriteOnly);
        to << password.has_value();
        put(to, password.value_or(QString()));
        const bool isSent = m_control.send(message, {}, CVCageSocket::Wait::Never);
        message.fill('\0');
        return isSent;
    }
    case Report::StreamUsed: {
        qint32 stream = 0;
        from >> stream;
        return extraction && extraction->use(stream);
    }
    case Report::Bids:
    case Report::Opened:
    case Report::NotOpened:
    case Report::Listed:
    case Report::Ended:
        break;
    }
    return false;
}

bool CVReaderSession::answerVolume(QDataStream &from)
{
    QString name;
    bool anyCase = false;
    if (!take(from, name) || !take(from, anyCase) || ++m_volumesAsked > maxVolumeQuestions)
        return false;
    const qsizetype slash = m_path.lastIndexOf(u'/') + 1;
    LXFileDescriptor file;
    QString path;
    if (cvIsVolumeName(QStringView(m_path).mid(slash), name)) {
        path = m_path.left(slash) + name;
        if (anyCase)
            path = CVArchiveFiles::findBeside(m_path, {name});
        if (!path.isEmpty())
            file = CVArchiveFiles::open(path);
    }
    QByteArray message;
    QDataStream to(&message, QIODevice::WriteOnly);
    to << file.isOpen();
    put(to, path.mid(slash));
    const int descriptor = file.get();
    if (file.isOpen() && !m_volumes.contains(path))
        m_volumes << path;
    return m_control.send(message, {&descriptor, file.isOpen() ? std::size_t(1) : std::size_t(0)},
                          CVCageSocket::Wait::Never);
}

bool CVReaderSession::takeList(const Listing &listing, int file, CVCageList::Held &list)
{
    if (listing.count < 0 || listing.count > maxEntries)
        return false;
    return listing.isInline ? list.fromBytes(listing.inlineBytes, listing.count)
                            : list.fromFile(file, listing.bytes, listing.count);
}

CVReaderSession::Opened CVReaderSession::open(int engine, CVCageList::Held &list)
{
    Opened opened;
    const auto failure = [&] {
        const CVReadingEngine::Outcome outcome = failureOutcome();
        opened.code = outcome.code;
        opened.detail = outcome.detail;
        opened.damageIsCertain = true;
        return opened;
    };
    const LXFileDescriptor file = memoryFile();
    if (!start())
        return failure();
    const int descriptors[] = {file.get()};
    const auto message = command(
        Command::Open, [engine](QDataStream &to) { to << quint32(engine); }, descriptors, Report::Opened,
        Report::NotOpened);
    if (!message)
        return failure();
    QDataStream from(*message);
    quint8 kind = 0;
    from >> kind;
    bool isGood = false;
    if (static_cast<Report>(kind) == Report::NotOpened) {
        isGood = take(from, opened.code) && take(from, opened.detail) && take(from, opened.damageIsCertain);
        translate(opened.detail);
        if (opened.code == XADErrorCode::None)
            opened.code = XADErrorCode::NotSupported;
    } else {
        Listing listing;
        isGood = take(from, opened.opening) && take(from, listing) && takeList(listing, file.get(), list);
        opened.listing = listing.outcome;
    }
    if (!isGood) {
        spokeNonsense();
        return failure();
    }
    return opened;
}

CVReadingEngine::Outcome CVReaderSession::list(CVCageList::Held &list)
{
    const LXFileDescriptor file = memoryFile();
    const int descriptors[] = {file.get()};
    const auto message = command(
        Command::List, [](QDataStream &) {}, descriptors, Report::Listed, Report::Listed);
    if (!message)
        return failureOutcome();
    QDataStream from(*message);
    quint8 kind = 0;
    from >> kind;
    Listing listing;
    if (!take(from, listing) || !takeList(listing, file.get(), list)) {
        spokeNonsense();
        return failureOutcome();
    }
    translate(listing.outcome.detail);
    return listing.outcome;
}

CVReadingEngine::Outcome CVReaderSession::extract(std::span<const int> indices, bool all, bool listGrows,
                                                  std::vector<XADEntry> &entries, CVEntrySink &sink,
                                                  bool &isDamageFinal)
{
    LXFileDescriptor file;
    std::vector<int> descriptors;
    if (!all) {
        file = memoryFile();
        if (!file.isOpen() || !writeAll(file.get(), indices.data(), indices.size_bytes()))
            return {XADErrorCode::Damaged, QString::fromLocal8Bit(std::strerror(errno)), {}};
        descriptors.push_back(file.get());
    }
    m_memory->position() = 0;
    for (int stream = 0; stream < int(m_streams.size()); ++stream)
        m_memory->unwanted(stream) = 0;
    std::optional<QByteArray> message;
    {
        CVCagedExtraction extraction(*m_memory, m_streams, sink, entries, indices, all, listGrows);
        message = command(
            Command::Extract, [&](QDataStream &to) { to << all << qint64(indices.size()); }, descriptors,
            Report::Ended, Report::Ended, &extraction, &sink);
    }
    if (!message)
        return failureOutcome();
    QDataStream from(*message);
    quint8 kind = 0;
    from >> kind;
    CVReadingEngine::Outcome outcome;
    if (!take(from, outcome) || !take(from, isDamageFinal)) {
        spokeNonsense();
        return failureOutcome();
    }
    translate(outcome.detail);
    translate(outcome.remark);
    return outcome;
}

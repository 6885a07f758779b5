#include "archives/reading/cage/CVCageReader.h"

#include "archives/reading/CVArchiveFiles.h"
#include "archives/reading/cage/CVCageList.h"
#include "archives/reading/cage/CVCageMessages.h"
#include "archives/reading/cage/CVCageSink.h"
#include "util/write_all.h"

#include <QIODevice>

#include <mutex>
#include <numeric>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace CVCage;

namespace {

// Enough for every signature that is looked for, the ones deep inside disc images included.
constexpr qint64 probeHeadBytes = qint64(64) << 10;
// The end record of a zip with the longest comment that it can have.
constexpr qint64 probeTailBytes = (qint64(64) << 10) + 22;
// A list is written to its file in pieces of this size.
constexpr qsizetype listPieceBytes = qsizetype(1) << 20;

QByteArray readAt(int file, qint64 offset, qint64 size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    qint64 got = 0;
    while (got < size) {
        const ssize_t n = ::pread(file, bytes.data() + got, std::size_t(size - got), offset + got);
        if (n <= 0)
            break;
        got += n;
    }
    bytes.truncate(got);
    return bytes;
}

class Reader final : public CVEngineHost
{
public:
    explicit Reader(CVCageSocket control)
        : m_control(std::move(control))
    {}

    void run()
    {
        QByteArray message;
        std::vector<LXFileDescriptor> descriptors;
        while (m_control.receive(message, &descriptors) == CVCageSocket::Got::Message) {
            QDataStream from(message);
            quint8 command = 0;
            from >> command;
            switch (static_cast<Command>(command)) {
            case Command::Begin:
                begin(from, descriptors);
                break;
            case Command::Open:
                open(from, descriptors);
                break;
            case Command::List:
                list(descriptors);
                break;
            case Command::Extract:
                extract(from, descriptors);
                break;
            }
            descriptors.clear();
        }
    }

    // CVEngineHost
    std::optional<QString> password() override
    {
        QByteArray answer;
        ask([](QDataStream &) {}, Report::Password, answer, nullptr);
        QDataStream from(answer);
        bool isGiven = false;
        QString password;
        if (!take(from, isGiven) || !isGiven || !take(from, password))
            return std::nullopt;
        return password;
    }
    bool shouldStop() override
    {
        m_memory->ticks().fetch_add(1, std::memory_order_relaxed);
        return m_memory->stop().load(std::memory_order_relaxed) != 0;
    }

private:
    template <typename Fill> void report(Report kind, Fill fill)
    {
        QByteArray message;
        QDataStream to(&message, QIODevice::WriteOnly);
        to << quint8(kind);
        fill(to);
        if (!m_control.send(message))
            ::_exit(0); // nobody is there any more
    }

    template <typename Fill>
    void ask(Fill fill, Report kind, QByteArray &answer, std::vector<LXFileDescriptor> *descriptors)
    {
        const std::lock_guard lock(m_asking);
        report(kind, fill);
        if (m_control.receive(answer, descriptors) != CVCageSocket::Got::Message)
            ::_exit(0);
    }

    CVArchiveFiles::Found find(const QString &name, bool anyCase)
    {
        if (!anyCase && name == m_probe.path)
            return {LXFileDescriptor(::fcntl(m_archive.get(), F_DUPFD_CLOEXEC, 3)), name};
        QByteArray answer;
        std::vector<LXFileDescriptor> descriptors;
        ask(
            [&](QDataStream &to) {
                put(to, name);
                to << anyCase;
            },
            Report::Volume, answer, &descriptors);
        QDataStream from(answer);
        bool isThere = false;
        QString found;
        if (!take(from, isThere) || !isThere || !take(from, found) || descriptors.size() != 1) {
            errno = ENOENT;
            return {LXFileDescriptor(), {}};
        }
        return {std::move(descriptors.front()), found};
    }

    void begin(QDataStream &from, std::vector<LXFileDescriptor> &descriptors)
    {
        if (!take(from, m_probe.path) || descriptors.size() < 3 || m_memory)
            ::_exit(0);
        m_archive = std::move(descriptors[0]);
        m_memory = CVCageMemory::map(std::move(descriptors[1]));
        for (std::size_t i = 2; i < descriptors.size(); ++i)
            m_streams.emplace_back(std::move(descriptors[i]));
        struct stat status = {};
        if (!m_memory || ::fstat(m_archive.get(), &status) != 0)
            ::_exit(0);
        CVArchiveFiles::setSource([this](const QString &name, bool anyCase) { return find(name, anyCase); });
        m_probe.fileSize = status.st_size;
        m_probe.head = readAt(m_archive.get(), 0, std::min(m_probe.fileSize, probeHeadBytes));
        const qint64 tail = std::min(m_probe.fileSize, probeTailBytes);
        m_probe.tail = tail == m_probe.head.size() ? m_probe.head
                                                   : readAt(m_archive.get(), m_probe.fileSize - tail, tail);
        report(Report::Bids, [this](QDataStream &to) {
            for (const CVEngineDescriptor &descriptor : cvReadingEngines())
                to << qint32(descriptor.bid(m_probe));
        });
    }

    void open(QDataStream &from, const std::vector<LXFileDescriptor> &descriptors)
    {
        const std::span<const CVEngineDescriptor> engines = cvReadingEngines();
        quint32 number = 0;
        from >> number;
        if (number >= engines.size() || descriptors.size() != 1 || !m_memory)
            ::_exit(0);
        m_engine.reset();
        CVEngineDescriptor::OpenOutcome outcome = engines[number].open(m_probe, *this);
        m_engine = std::move(outcome.engine);
        if (!m_engine) {
            report(Report::NotOpened, [&outcome](QDataStream &to) {
                to << qint32(outcome.code);
                put(to, outcome.detail);
                to << outcome.damageIsCertain;
            });
            return;
        }
        qint64 done = 0, total = 0;
        const Opening opening{m_engine->formatName(),
                              m_engine->isEncrypted(),
                              m_engine->entriesAreLazy(),
                              m_engine->isDamageFinal(),
                              m_engine->compressedProgress(done, total),
                              m_engine->declaredTotal()};
        m_known = 0;
        const Listing listing = opening.isLazy ? Listing{} : makeListing(descriptors.front().get());
        report(Report::Opened, [&](QDataStream &to) {
            put(to, opening);
            put(to, listing);
        });
    }

    void list(const std::vector<LXFileDescriptor> &descriptors)
    {
        if (!m_engine || descriptors.size() != 1)
            ::_exit(0);
        const Listing listing = makeListing(descriptors.front().get());
        report(Report::Listed, [&](QDataStream &to) { put(to, listing); });
    }

    Listing makeListing(int file)
    {
        Listing listing;
        const std::vector<XADEntry> &entries = m_engine->entries();
        listing.outcome = m_engine->listingOutcome();
        listing.count = qint64(entries.size());
        QByteArray bytes;
        bytes.reserve(2 * listPieceBytes);
        bool isWritten = true;
        const auto writeOut = [&] {
            isWritten = isWritten && writeAll(file, bytes);
            listing.bytes += bytes.size();
            bytes.resize(0);
        };
        for (std::size_t i = 0; i < entries.size() && isWritten; ++i) {
            CVCageList::append(bytes, entries[i], m_engine->entryIsArchive(int(i)));
            if (bytes.size() >= listPieceBytes)
                writeOut();
        }
        if (listing.bytes == 0 && bytes.size() <= maxInlineListBytes) {
            listing.inlineBytes = bytes;
            listing.bytes = bytes.size();
        } else {
            writeOut();
            listing.isInline = false;
        }
        if (!isWritten) {
            listing = {};
            listing.outcome = {XADErrorCode::NotSupported, QStringLiteral("It has too many entries."), {}};
        }
        m_known = std::size_t(listing.count);
        return listing;
    }

    void extract(QDataStream &from, const std::vector<LXFileDescriptor> &descriptors)
    {
        bool all = false;
        qint64 count = 0;
        if (!m_engine || !take(from, all))
            ::_exit(0);
        from >> count;
        std::vector<int> indices;
        if (all) {
            indices.resize(m_known);
            std::iota(indices.begin(), indices.end(), 0);
        } else if (descriptors.size() == 1) {
            const QByteArray bytes = readAt(descriptors.front().get(), 0, count * qint64(sizeof(int)));
            indices.resize(std::size_t(bytes.size()) / sizeof(int));
            memcpy(indices.data(), bytes.constData(), indices.size() * sizeof(int));
        }
        CVCageSink sink(*m_memory, m_streams, *m_engine, m_known, [this](int stream) {
            report(Report::StreamUsed, [stream](QDataStream &to) { to << qint32(stream); });
        });
        const CVReadingEngine::Outcome outcome = m_engine->extract(indices, all, sink);
        const bool isWhole = all && outcome.code == XADErrorCode::None;
        sink.end(isWhole);
        if (m_engine->entriesAreLazy() && isWhole)
            m_known = m_engine->entries().size();
        report(Report::Ended, [&](QDataStream &to) {
            put(to, outcome);
            to << m_engine->isDamageFinal();
        });
    }

    CVCageSocket m_control;
    std::mutex m_asking;
    LXFileDescriptor m_archive;
    std::unique_ptr<CVCageMemory> m_memory;
    std::vector<CVCageSocket> m_streams;
    CVArchiveProbe m_probe;
    std::size_t m_known = 0;                   ///< entries that the program has
    std::unique_ptr<CVReadingEngine> m_engine; // last: it may use all of the above until it goes
};

} // namespace

void cvReadOneArchive(CVCageSocket control)
{
    Reader(std::move(control)).run();
}

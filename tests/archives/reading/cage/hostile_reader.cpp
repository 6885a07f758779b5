// A reader whose engine does what its archive says: "HOSTILE deed argument". For tests alone: it stands for a
// decoder that an archive took over.

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVZipEngine.h"
#include "archives/reading/cage/CVCageList.h"
#include "archives/reading/cage/CVCageMemory.h"
#include "archives/reading/cage/CVCageMessages.h"
#include "archives/reading/cage/CVCageServer.h"
#include "archives/reading/cage/CVCageSocket.h"

#include <QIODevice>
#include <QList>

#include <array>
#include <csignal>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Record = CVCageMemory::Record;

// The order in which a reader gets them.
constexpr int control = 3;
constexpr int memory = 5;
constexpr int firstStream = 6;

int connectTo(int domain, int type, const sockaddr *address, socklen_t size)
{
    const int fd = ::socket(domain, type | SOCK_CLOEXEC, 0);
    return fd < 0 ? -1 : ::connect(fd, address, size);
}

int connectToUnix(const QByteArray &path, bool isAbstract)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + (isAbstract ? 1 : 0), path.constData(), std::size_t(path.size()));
    return connectTo(AF_UNIX, SOCK_STREAM, reinterpret_cast<const sockaddr *>(&address),
                     socklen_t(offsetof(sockaddr_un, sun_path) + path.size() + 1));
}

int connectToPort(int type, int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(std::uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connectTo(AF_INET, type, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

/// Whether something was done that a reader must not be able to do.
bool breakOut(const QByteArray &deed, const QByteArray &argument)
{
    const char *const path = argument.constData();
    const timespec times[2] = {};
    char byte = 'x';
    if (deed == "read")
        return ::open(path, O_RDONLY) >= 0;
    if (deed == "look")
        return ::access(path, R_OK) == 0;
    if (deed == "write")
        return ::open(path, O_WRONLY | O_CREAT, 0600) >= 0;
    if (deed == "mkdir")
        return ::mkdir(path, 0700) == 0;
    if (deed == "unlink")
        return ::unlink(path) == 0;
    if (deed == "chmod")
        return ::chmod(path, 0777) == 0;
    if (deed == "truncate")
        return ::truncate(path, 0) == 0;
    if (deed == "utimes")
        return ::utimensat(AT_FDCWD, path, times, 0) == 0;
    if (deed == "reopen") // a descriptor for reading as one for writing
        return ::open("/proc/self/fd/4", O_RDWR) >= 0;
    if (deed == "change-archive")
        return ::write(4, &byte, 1) == 1 || ::fchmod(4, 0777) == 0 || ::ftruncate(4, 0) == 0;
    if (deed == "bus")
        return connectToUnix(argument, false) == 0;
    if (deed == "abstract-bus")
        return connectToUnix(argument, true) == 0;
    if (deed == "tcp")
        return connectToPort(SOCK_STREAM, argument.toInt()) == 0;
    if (deed == "udp")
        return connectToPort(SOCK_DGRAM, argument.toInt()) == 0;
    if (deed == "exec") {
        const char *const arguments[] = {"/bin/touch", path, nullptr};
        return ::execv(arguments[0], const_cast<char *const *>(arguments)) == 0;
    }
    if (deed == "fork") {
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(0);
        return child > 0;
    }
    if (deed == "signal-server")
        return ::kill(::getppid(), SIGTERM) == 0;
    if (deed == "signal-program")
        return ::kill(argument.toInt(), SIGUSR1) == 0;
    if (deed == "trace")
        return ::ptrace(PTRACE_ATTACH, ::getppid(), nullptr, nullptr) == 0;
    return false;
}

[[noreturn]] void die(const QByteArray &how)
{
    if (how == "fault")
        *reinterpret_cast<volatile int *>(8) = 1;
    if (how == "trap")
        __builtin_trap();
    if (how == "abort")
        std::abort();
    if (how == "shrunk") {
        const int file = ::memfd_create("m", 0);
        auto *const map = static_cast<volatile char *>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
        [[maybe_unused]] const char byte = map[100];
    }
    if (how == "throw")
        throw 1;
    ::_exit(how == "status" ? 3 : 0);
}

void fillMemory()
{
    for (QList<QByteArray> all;; all << QByteArray(qsizetype(64) << 20, Qt::Uninitialized)) {
    }
}

/// Speaks to the program behind the engine's back.
class Forger
{
public:
    Forger()
        : m_memory(CVCageMemory::map(LXFileDescriptor(::dup(memory))))
    {}

    void report(CVCage::Report kind, const QByteArray &rest) { send(char(kind) + rest); }
    void send(const QByteArray &message) { ::send(control, message.constData(), size_t(message.size()), 0); }
    void add(Record::Type type, std::int64_t value, const QByteArray &data = {}, int bytesMore = 0)
    {
        const Record record{type, std::uint32_t(data.size() + bytesMore), value};
        m_slot += QByteArray(reinterpret_cast<const char *>(&record), sizeof record) + data;
    }
    void flush(std::uint32_t slot = 0, std::uint32_t more = 0, int stream = 0)
    {
        std::memcpy(m_memory->slot(stream, 0), m_slot.constData(), std::size_t(m_slot.size()));
        const CVCageMemory::Filled filled{slot, std::uint32_t(m_slot.size()) + more};
        ::send(firstStream + stream, &filled, sizeof filled, 0);
        m_slot.clear();
    }
    CVCageMemory &memoryOfBoth() { return *m_memory; }

private:
    std::unique_ptr<CVCageMemory> m_memory;
    QByteArray m_slot;
};

QByteArray bytesOf(const std::function<void(QDataStream &)> &fill)
{
    QByteArray bytes;
    QDataStream to(&bytes, QIODevice::WriteOnly);
    fill(to);
    return bytes;
}

QByteArray opened(qint64 count, const QByteArray &list, bool isInline, qint64 bytes)
{
    return bytesOf([&](QDataStream &to) {
        CVCage::put(to, CVCage::Opening{QStringLiteral("forged"), false, false, true, false, 0});
        CVCage::put(to, CVReadingEngine::Outcome{});
        to << count << bytes << isInline;
        if (isInline) {
            to << quint32(list.size());
            to.writeRawData(list.constData(), int(list.size()));
        }
    });
}

/// What is sent instead of the answer to Open.
void forgeOpening(const QByteArray &how)
{
    Forger forger;
    QByteArray entry;
    XADEntry file;
    file.name = "a";
    CVCageList::append(entry, file, false);
    using CVCage::Report;
    if (how == "nothing-known")
        forger.send(QByteArray(1, 99));
    if (how == "empty")
        forger.send(QByteArray(1, 0));
    if (how == "huge")
        forger.send(QByteArray(CVCage::maxMessageBytes + 1, 'x'));
    if (how == "bids-again")
        forger.report(Report::Bids, QByteArray(64, '\xff'));
    if (how == "cut")
        forger.report(Report::Opened, opened(1, entry, true, entry.size()).left(20));
    if (how == "ended-instead")
        forger.report(Report::Ended, bytesOf([](QDataStream &to) {
                          CVCage::put(to, CVReadingEngine::Outcome{});
                          to << true;
                      }));
    if (how == "long-text")
        forger.report(Report::NotOpened,
                      bytesOf([](QDataStream &to) { to << qint32(1) << quint32(0xfffffff0); }));
    if (how == "no-code")
        forger.report(Report::NotOpened, bytesOf([](QDataStream &to) {
                          to << qint32(12345);
                          CVCage::put(to, QString());
                          to << false;
                      }));
    if (how == "more-entries")
        forger.report(Report::Opened, opened(2, entry, true, entry.size()));
    if (how == "fewer-entries")
        forger.report(Report::Opened, opened(1, entry + entry, true, 2 * entry.size()));
    if (how == "negative-entries")
        forger.report(Report::Opened, opened(-1, entry, true, entry.size()));
    if (how == "countless-entries")
        forger.report(Report::Opened, opened(std::numeric_limits<qint64>::max(), entry, true, entry.size()));
    if (how == "empty-file")
        forger.report(Report::Opened, opened(1000, {}, false, 1 << 20));
    if (how == "name-beyond") {
        entry[16] = '\xff';
        forger.report(Report::Opened, opened(1, entry, true, entry.size()));
    }
    if (how == "no-type") {
        entry[28] = 77;
        forger.report(Report::Opened, opened(1, entry, true, entry.size()));
    }
    if (how == "stream-early")
        forger.report(Report::StreamUsed, bytesOf([](QDataStream &to) { to << qint32(1); }));
    if (how == "closed") {
        ::close(control);
    }
    ::pause();
}

void forgeExtraction(const QByteArray &how)
{
    using Type = Record::Type;
    Forger forger;
    if (how == "slot")
        forger.flush(77);
    if (how == "long-slot")
        forger.flush(0, CVCageMemory::slotBytes + 1);
    if (how == "cut-record")
        forger.flush(0, 7);
    if (how == "record-beyond") {
        forger.add(Type::Begin, 0);
        forger.add(Type::Data, 0, "data", 1 << 30);
        forger.flush();
    }
    if (how == "no-record") {
        forger.add(static_cast<Type>(99), 0);
        forger.flush();
    }
    const auto begin = [&](std::int64_t index) { forger.add(Type::Begin, index); };
    if (how == "begin-negative")
        begin(-1);
    if (how == "begin-beyond")
        begin(1000);
    if (how == "begin-far-beyond")
        begin(std::int64_t(1) << 32); // 0 in 32 bits
    if (how == "begin-inside") {
        begin(0);
        begin(1);
    }
    if (how == "begin-twice") {
        begin(0);
        forger.add(Type::Finish, 0);
        begin(0);
    }
    if (how == "not-wanted")
        begin(2);
    if (how == "data-first")
        forger.add(Type::Data, 0, "data");
    if (how == "data-after") {
        begin(0);
        forger.add(Type::Finish, 0);
        forger.add(Type::Data, 0, "data");
    }
    if (how == "finish-first")
        forger.add(Type::Finish, 0);
    if (how == "no-code") {
        begin(0);
        forger.add(Type::Finish, 4711);
    }
    if (how == "negative-hole") {
        begin(0);
        forger.add(Type::Hole, -5);
    }
    if (how == "failed-well")
        forger.add(Type::Failed, 0, QByteArray(4, '\0'));
    if (how == "entry-added") {
        QByteArray entry;
        CVCageList::append(entry, {}, false);
        forger.add(Type::Entry, 0, entry);
    }
    forger.flush();
    if (how == "end-inside") {
        begin(0);
        forger.flush();
        const CVCageMemory::Filled end{CVCageMemory::endOfStream, 0};
        ::send(firstStream, &end, sizeof end, 0);
    }
    if (how == "stream-twice")
        for (int i = 0; i < 2; ++i)
            forger.report(CVCage::Report::StreamUsed, bytesOf([](QDataStream &to) { to << qint32(1); }));
    if (how == "no-stream")
        forger.report(CVCage::Report::StreamUsed, bytesOf([](QDataStream &to) { to << qint32(99); }));
    if (how == "flood") // never looks at what comes back
        for (;;) {
            forger.add(Type::Entry, 0);
            forger.flush();
        }
    ::pause();
}

class HostileEngine final : public CVReadingEngine
{
public:
    HostileEngine(QByteArray deed, QByteArray argument)
        : m_deed(std::move(deed))
        , m_argument(std::move(argument))
    {
        for (const char *name : {"first", "second", "third"}) {
            XADEntry entry;
            entry.name = name;
            m_entries.push_back(entry);
        }
    }
    QString formatName() const override { return QStringLiteral("hostile"); }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return false; }
    Outcome extract(std::span<const int>, bool, CVEntrySink &sink) override
    {
        // What is under way is to leave nothing.
        const auto writer = sink.beginEntry(1);
        if (writer)
            (void)writer->write("half", 4);
        if (m_deed == "die-extracting")
            die(m_argument);
        if (m_deed == "forge-extraction")
            forgeExtraction(m_argument);
        if (m_deed == "loop-extracting")
            for (volatile bool on = true; on;) {
            }
        return {};
    }

private:
    QByteArray m_deed;
    QByteArray m_argument;
    std::vector<XADEntry> m_entries;
};

QList<QByteArray> wordsOf(const CVArchiveProbe &probe)
{
    QList<QByteArray> words = probe.head.split(' ');
    words.resize(3);
    return words;
}

int bid(const CVArchiveProbe &probe)
{
    const QList<QByteArray> words = wordsOf(probe);
    if (words[0] == "HOSTILE" && words[1] == "die-bidding")
        die(words[2]);
    return words[0] == "HOSTILE" ? 100 : 0;
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &)
{
    const QByteArray deed = wordsOf(probe)[1];
    const QByteArray argument = wordsOf(probe)[2];
    if (deed.endsWith("-extracting") || deed.endsWith("-extraction"))
        return {std::make_unique<HostileEngine>(deed, argument), XADErrorCode::None, {}};
    if (deed == "die")
        die(argument);
    if (deed == "forge")
        forgeOpening(argument);
    if (deed == "memory")
        fillMemory();
    if (breakOut(deed, argument)) // an archive that opens is a test that fails
        return {std::make_unique<HostileEngine>(deed, argument), XADErrorCode::None, {}};
    return {nullptr, XADErrorCode::Damaged, QStringLiteral("It could not."), true};
}

} // namespace

std::span<const CVEngineDescriptor> cvReadingEngines()
{
    static const std::array engines{CVEngineDescriptor{"hostile", bid, open}, cvZipEngineDescriptor()};
    return engines;
}

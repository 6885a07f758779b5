#include "archives/reading/CVUnarEngine.h"

#include "archives/CVToolPaths.h"
#include "archives/CVToolRules.h"
#include "archives/reading/CVCabChecksum.h"
#include "archives/reading/CVLhaHeaders.h"
#include "archives/reading/CVLsarListing.h"
#include "archives/reading/CVRarWitness.h"
#include "archives/reading/CVUnarBids.h"
#include "archives/reading/CVUnarOutput.h"
#include "util/LXChildProcess.h"
#include "util/LXFileDescriptor.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTimeZone>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <zlib.h>

Q_LOGGING_CATEGORY(lcUnar, "corvane.reading.unar")

namespace {

using namespace std::chrono_literals;
using Flow = CVEntryWriter::Flow;

// A decoder that in this time neither prints nor reads nor writes has got stuck on damaged data.
constexpr auto patience = 20s;
// How soon a request to stop is noticed while the program is silent.
constexpr auto stopLatency = 100ms;
constexpr qint64 addressSpaceBytes = 1LL << 30;
// The longest command line the kernel takes is 2 MiB, and an index takes up to 16 bytes of it.
constexpr std::size_t maxIndicesPerRun = 50'000;
// Entries of one name need a run each; more than this is no honest archive.
constexpr std::size_t maxRunsForEqualNames = 32;
constexpr int maxSingleRuns = 256;
constexpr std::size_t maxEntries = 2'000'000;
constexpr qint64 maxUnknownFileBytes = 16LL << 30;
constexpr qsizetype blockBytes = 1 << 20;

// The program's error numbers, as lsar prints them.
enum LsarError {
    BadParameters = 4,
    NotSupportedFile = 7,
    WrongFileType = 10,
    WrongPassword = 15,
    WrongDataFormat = 20,
};

QString text(const char *source)
{
    return QCoreApplication::translate("CVUnarEngine", source);
}

QString wrongPasswordText()
{
    return text("The password does not fit.");
}

QString passwordOrDamageText()
{
    return text("The password does not fit, or the data is damaged.");
}

/// What the person is told, `damage` where it is that.
QString textFor(XADErrorCode code, const QString &damage)
{
    if (code == XADErrorCode::Password)
        return wrongPasswordText();
    if (code == XADErrorCode::PasswordOrDamage)
        return passwordOrDamageText();
    return code == XADErrorCode::NeedsPackage ? CVRarWitness::otherProgramText() : damage;
}

/// Whose headers we can read ourselves.
bool isRar(const CVArchiveProbe &probe)
{
    return probe.head.startsWith("Rar!\x1a\x07") ||
           (probe.head.startsWith("MZ") && probe.head.contains("Rar!\x1a\x07"));
}

/// How unar names an outcome, as one of our codes.
XADErrorCode codeForReason(const QByteArray &reason)
{
    const QByteArray lower = reason.toLower();
    if (lower.contains("password"))
        return XADErrorCode::Password;
    if (lower.contains("not fully supported") || lower.contains("not supported") || lower.contains("memory"))
        return XADErrorCode::NotSupported;
    return XADErrorCode::Damaged;
}

/// The files that belong to one archive by their names: the file itself and its volumes.
QStringList volumeNames(const QFileInfo &file)
{
    struct Family
    {
        const char *member;  ///< capture 1 is what all volumes have in common
        const char *sibling; ///< follows it in the others
    };
    static constexpr Family families[] = {
        {R"(^(.*\.part)\d+\.(?:rar|exe|sfx)$)", R"(\d+\.(?:rar|exe|sfx))"},
        {R"(^(.*\.)(?:rar|[r-z]\d\d)$)", R"((?:rar|[r-z]\d\d))"},
        {R"(^(.*\.)(?:exe|sfx)$)", R"((?:[r-z]\d\d))"},
        {R"(^(.*\.)\d{3}$)", R"(\d{3})"},
        {R"(^(.*\.)(?:arj|a\d\d)$)", R"((?:arj|a\d\d))"},
        {R"(^(.*\.)(?:zip|z\d\d)$)", R"((?:zip|z\d\d))"},
        {R"(^(.*\.)(?:zipx|zx\d\d)$)", R"((?:zipx|zx\d\d))"},
    };
    const QString name = file.fileName();
    QStringList result{name};
    for (const Family &family : families) {
        const QRegularExpression member(QString::fromLatin1(family.member),
                                        QRegularExpression::CaseInsensitiveOption);
        const QRegularExpressionMatch match = member.match(name);
        if (!match.hasMatch())
            continue;
        const QRegularExpression sibling(QLatin1Char('^') + QRegularExpression::escape(match.captured(1)) +
                                             QString::fromLatin1(family.sibling) + QLatin1Char('$'),
                                         QRegularExpression::CaseInsensitiveOption);
        const QStringList all = file.dir().entryList(QDir::Files | QDir::Hidden, QDir::Name);
        for (const QString &other : all)
            if (other != name && sibling.match(other).hasMatch())
                result << other;
        break;
    }
    return result;
}

/// Ends a run of a program that is stuck: it neither prints nor moves data any more.
class Watch
{
public:
    explicit Watch(pid_t pid)
        : m_pid(pid)
    {}

    void sawOutput() { m_last = std::chrono::steady_clock::now(); }

    bool isStuck()
    {
        const auto now = std::chrono::steady_clock::now();
        QFile file(QStringLiteral("/proc/%1/io").arg(m_pid));
        if (file.open(QIODevice::ReadOnly)) {
            QByteArray moved = file.readAll();
            moved.truncate(std::max<qsizetype>(0, moved.indexOf("syscr")));
            if (moved != m_moved) {
                m_moved = moved;
                m_last = now;
            }
        }
        return now - m_last > patience;
    }

private:
    pid_t m_pid;
    QByteArray m_moved;
    std::chrono::steady_clock::time_point m_last = std::chrono::steady_clock::now();
};

/// The archive as lsar shows it under one reading of its names.
struct Listing
{
    struct Item
    {
        XADEntry entry;
        QString name;
        QString target;
        qint64 index = -1;
        std::optional<std::uint32_t> crc32;
        bool isResourceFork = false;
        bool continuesElsewhere = false; ///< split over volumes in a way that unar does not put together
    };
    std::vector<Item> items;
    QString formatName;
    QString encoding;
    double confidence = 0;
    int error = 0;
    bool needsPassword = false;
    bool stopped = false;
    bool broken = false;
    LXError startError;
    bool started = true;
};

Listing::Item itemFrom(const QJsonObject &object)
{
    Listing::Item item;
    XADEntry &entry = item.entry;
    const auto flag = [&](const char *key) { return object.value(QLatin1String(key)).toInteger() != 0; };
    const auto number = [&](const char *key) { return object.value(QLatin1String(key)).toInteger(-1); };
    item.index = number("XADIndex");
    item.name = object.value(QLatin1String("XADFileName")).toString();
    item.target = object.value(QLatin1String("XADLinkDestination")).toString();
    item.isResourceFork = flag("XADIsResourceFork");
    entry.size = number("XADFileSize");
    entry.encrypted = flag("XADIsEncrypted");

    qint64 mode = number("XADPosixPermissions");
    if (mode < 0 && number("RAR5OS") == 1)
        mode = number("RAR5Attributes");
    if (mode < 0 && number("RAROS") == 3)
        mode = number("RARAttributes");
    if (mode >= 0) {
        entry.mode = static_cast<std::uint32_t>(mode) & 07777;
        entry.hasMode = true;
    }
    const qint64 redirection = number("RAR5RedirectionType"); // 4: hard link, 5: the same contents again
    if (flag("XADIsDirectory"))
        entry.type = XADEntry::Type::Directory;
    else if (flag("XADIsHardLink") || redirection == 4 || redirection == 5)
        entry.type = XADEntry::Type::HardLink;
    else if (flag("XADIsLink"))
        entry.type = XADEntry::Type::Symlink;
    else if (flag("XADIsCharacterDevice") || flag("XADIsBlockDevice") || flag("XADIsFIFO") ||
             (mode >= 0 && (S_ISCHR(mode) || S_ISBLK(mode) || S_ISFIFO(mode) || S_ISSOCK(mode))))
        entry.type = XADEntry::Type::Special;
    if (entry.type != XADEntry::Type::File)
        entry.size = entry.type == XADEntry::Type::Symlink && item.target.isEmpty() ? -1 : 0;

    QString date = object.value(QLatin1String("XADLastModificationDate")).toString();
    date.truncate(19); // always UTC
    const QDateTime modified = QDateTime::fromString(date, QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    if (modified.isValid() && modified.date().year() >= 1904 && modified.date().year() < 2200)
        entry.modified =
            QDateTime(modified.date(), modified.time(), QTimeZone::utc()).toSecsSinceEpoch() * 1'000'000'000;

    // What the program checks by itself is left to it; this catches a mix-up of entries of equal size.
    // RAR 5 may keep a keyed sum instead (bit 1 of the flags), which cannot be compared without the key.
    // What is split over volumes has a sum for each part.
    const bool split = (std::max<qint64>(0, number("RARFlags")) & 3) != 0 ||
                       object.value(QLatin1String("RAR5InputParts")).toArray().size() > 1;
    item.continuesElsewhere = (std::max<qint64>(0, number("ARJFlags")) & 0x0c) != 0;
    const bool keyed = (object.value(QLatin1String("RAR5EncryptionFlags")).toInteger() & 2) != 0;
    for (const char *key : {"RAR5CRC32", "RARCRC32", "ARJCRC32", "ZipCRC32"})
        if (const qint64 crc = number(key);
            crc >= 0 && !keyed && !split && entry.type == XADEntry::Type::File)
            item.crc32 = static_cast<std::uint32_t>(crc);
    return item;
}

class CVUnarEngine final : public CVReadingEngine
{
public:
    explicit CVUnarEngine(CVEngineHost &host)
        : m_host(host)
    {}

    CVEngineDescriptor::OpenOutcome prepare(const CVArchiveProbe &probe);

    QString formatName() const override { return m_formatName; }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return m_encrypted; }
    QStringList volumePaths() const override { return m_volumes; }
    qint64 declaredTotal() const override { return m_declaredTotal; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override;

private:
    /// What unar and our side of it know of one entry.
    struct Source
    {
        qint64 index = -1;  ///< the program's number of it
        QByteArray printed; ///< as the program prints its name
        std::optional<std::uint32_t> crc32;
        bool continuesElsewhere = false;
        const CVRarFile *rar = nullptr;
    };

    struct Run
    {
        QString folder;
        LXFileDescriptor descriptor;
        XADErrorCode code = XADErrorCode::None;
        QString detail;
    };

    Listing list(const QString &encoding, const std::optional<QString> &password);
    void takeNames(Listing &listing, const CVArchiveProbe &probe);
    bool trustsNames(const Listing &listing) const;

    bool stopped() { return m_stopped || (m_stopped = m_sink->shouldStop()); }
    void follow(Flow flow) { m_stopped = m_stopped || flow == Flow::Stop; }
    void fail(int entry, XADErrorCode code, const QString &detail);
    void failFor(int entry, const QByteArray &reason);

    XADErrorCode failureOf(int entry, const QByteArray &reason) const;
    bool makeRunFolder(Run &run);
    void run(const std::vector<int> &wanted, bool single);
    bool deliver(int entry, const Run &run);
    bool deliverFrom(int entry, int folder, const QByteArray &path);
    QByteArray onlyFileIn(const QString &folder) const;

    CVEngineHost &m_host;
    LXConfinementRules confinement() const
    {
        LXConfinementRules rules = CVToolRules::single();
        rules.readable += m_readable;
        return rules;
    }

    QStringList m_readable; ///< the archive with its volumes
    QTemporaryDir m_inputFolder;
    QString m_input; ///< the link to the archive in that folder
    QString m_password;
    bool m_hasPassword = false;
    QStringList m_volumes;
    QString m_formatName;
    QString m_encoding;
    QString m_archivePath;
    std::unique_ptr<CVRarWitness> m_rar; ///< for RAR only
    std::vector<XADEntry> m_entries;
    std::vector<Source> m_sources;
    Outcome m_listingState;
    qint64 m_declaredTotal = 0;
    bool m_encrypted = false;

    // During extract()
    CVEntrySink *m_sink = nullptr;
    QString m_staging;
    std::vector<int> m_notFound;
    Outcome m_outcome;
    int m_runs = 0;
    bool m_stopped = false;
    bool m_passwordFits = false; ///< an encrypted entry came out right
};

// ---- listing ----

Listing CVUnarEngine::list(const QString &encoding, const std::optional<QString> &password)
{
    Listing listing;
    QHash<QString, bool> seen;
    CVLsarListing parser([&](const QJsonObject &object) {
        // Disk images of the Amiga are shown with some entries twice: the same object under two indices.
        const QString identity = object.value(QLatin1String("LibXADFileInfo")).toString();
        if (!identity.isEmpty() && std::exchange(seen[identity], true))
            return true;
        listing.items.push_back(itemFrom(object));
        return listing.items.size() <= maxEntries;
    });

    LXChildOptions options;
    options.program = CVToolPaths::toolPath(QStringLiteral("lsar")).value();
    options.arguments = {QStringLiteral("-ja")};
    if (!encoding.isEmpty())
        options.arguments << QStringLiteral("-e") << encoding;
    int ends[2] = {-1, -1};
    if (password) {
        if (::pipe2(ends, O_CLOEXEC) != 0)
            ends[0] = ends[1] = -1;
        options.arguments << QStringLiteral("-E") << QStringLiteral("utf-8") << QStringLiteral("-p")
                          << QString();
        options.environment = {
            {QStringLiteral("LD_PRELOAD"),
             CVToolPaths::resourcesFolder() + QStringLiteral("/lsar_password.so")},
            {QStringLiteral("CORVANE_PASSWORD_DESCRIPTOR"), QString::number(ends[0])},
        };
        options.inheritedDescriptors = {ends[0]};
    }
    const LXFileDescriptor reading(ends[0]);
    LXFileDescriptor writing(ends[1]);
    options.arguments << m_input;
    options.workingFolder = m_inputFolder.path();
    options.environment.insert(QStringLiteral("HOME"), m_inputFolder.path());
    options.confinement = confinement();
    options.limits.addressSpaceBytes = addressSpaceBytes;
    if (password && writing.isOpen()) {
        const QByteArray bytes = password->toUtf8();
        if (::write(writing.get(), bytes.constData(), static_cast<std::size_t>(bytes.size())) != bytes.size())
            qCWarning(lcUnar, "the password could not be handed over");
        writing.reset();
    }

    auto started = LXChildProcess::start(options);
    if (!started) {
        listing.started = false;
        listing.startError = started.error();
        return listing;
    }
    LXChildProcess &child = *started.value();
    Watch watch(child.processId());
    bool readable = true;
    while (readable) {
        const LXChildProcess::Chunk chunk = child.read({}, stopLatency);
        using Kind = LXChildProcess::Chunk::Kind;
        if (m_host.shouldStop()) {
            listing.stopped = true;
            break;
        }
        switch (chunk.kind) {
        case Kind::Output:
            watch.sawOutput();
            readable = parser.add(chunk.data);
            break;
        case Kind::Error:
            listing.needsPassword = listing.needsPassword || chunk.data.contains("requires a password");
            break;
        case Kind::TimedOut:
            readable = !watch.isStuck();
            break;
        case Kind::Closed:
        case Kind::Stopped:
            readable = false;
            break;
        }
    }
    child.terminate();
    listing.needsPassword = listing.needsPassword || parser.needsPassword();
    listing.formatName = parser.formatName();
    listing.encoding = parser.encoding();
    listing.confidence = parser.confidence();
    listing.error = parser.error();
    listing.broken = parser.brokenEntries() > 0 || listing.items.size() > maxEntries;
    return listing;
}

/// Whether the program's own reading of the names is better than ours can be: it knows the charset of
/// Macintosh formats, and where it is sure it has split the path after decoding, not before, which matters
/// where a character's second byte is that of a separator.
bool CVUnarEngine::trustsNames(const Listing &listing) const
{
    static const QSet<QString> certain{QStringLiteral("US-ASCII"), QStringLiteral("UTF-8"),
                                       QStringLiteral("utf-8")};
    for (const char *format :
         {"StuffIt", "BinHex", "MacBinary", "Compact Pro", "PackIt", "DiskDoubler", "AppleSingle"})
        if (listing.formatName.startsWith(QLatin1String(format)))
            return true;
    if (certain.contains(listing.encoding) || listing.confidence >= 0.8)
        return true;
    return std::all_of(listing.items.begin(), listing.items.end(), [](const Listing::Item &item) {
        return std::all_of(item.name.begin(), item.name.end(), [](QChar c) { return c.unicode() < 128; }) &&
               std::all_of(item.target.begin(), item.target.end(), [](QChar c) { return c.unicode() < 128; });
    });
}

void CVUnarEngine::takeNames(Listing &listing, const CVArchiveProbe &probe)
{
    const auto keep = [](Listing::Item &item) {
        item.entry.name = item.name.toUtf8();
        item.entry.linkTarget = item.target.toUtf8();
        item.entry.nameEncoding = CVNameEncoding::Utf8;
    };
    m_encoding = listing.encoding;
    if (trustsNames(listing)) {
        std::for_each(listing.items.begin(), listing.items.end(), keep);
        return;
    }
    // Under ISO 8859-1 every stored byte is one character. A name that the archive itself marks as
    // Unicode is the same under any reading, which a second one brings to light.
    const std::optional<QString> password = m_hasPassword ? std::optional(m_password) : std::nullopt;
    const QString bytewise = QStringLiteral("iso-8859-1");
    Listing bytes = list(bytewise, password);
    Listing other = list(QStringLiteral("ibm437"), password);
    if (bytes.items.size() != listing.items.size() || other.items.size() != listing.items.size()) {
        std::for_each(listing.items.begin(), listing.items.end(), keep);
        return;
    }
    m_encoding = bytewise;
    const bool isAmiga =
        probe.head.startsWith("DOS") || probe.head.startsWith("LZX") || probe.head.startsWith("DMS!");
    for (std::size_t i = 0; i < listing.items.size(); ++i) {
        Listing::Item &item = listing.items[i];
        const bool marked =
            bytes.items[i].name == other.items[i].name && bytes.items[i].target == other.items[i].target;
        item.name = bytes.items[i].name;
        item.target = bytes.items[i].target;
        keep(item);
        if (!marked && !isAmiga) {
            item.entry.name = item.name.toLatin1();
            item.entry.linkTarget = item.target.toLatin1();
            item.entry.nameEncoding = CVNameEncoding::Unmarked;
        }
    }
}

CVEngineDescriptor::OpenOutcome CVUnarEngine::prepare(const CVArchiveProbe &probe)
{
    for (const char *tool : {"lsar", "unar"})
        if (auto path = CVToolPaths::toolPath(QString::fromLatin1(tool)); !path)
            return {nullptr, XADErrorCode::NotSupported,
                    path.error().description + QLatin1Char(' ') + path.error().suggestion};
    const QFileInfo file(probe.path);
    m_archivePath = file.absoluteFilePath();
    if (!m_inputFolder.isValid())
        return {nullptr, XADErrorCode::NotSupported, m_inputFolder.errorString()};
    m_readable = {m_inputFolder.path()};
    const QStringList names = volumeNames(file);
    for (const QString &name : names) {
        const QString original = file.absoluteDir().absoluteFilePath(name);
        m_readable << original;
        QFile::link(original, m_inputFolder.filePath(name));
        if (names.size() > 1)
            m_volumes << original;
    }
    m_input = m_inputFolder.filePath(file.fileName());

    Listing listing = list({}, std::nullopt);
    if (listing.needsPassword && !listing.stopped) {
        const std::optional<QString> password = m_host.password();
        if (!password)
            return {nullptr, XADErrorCode::PasswordMissing,
                    text("The names are encrypted and need a password.")};
        if (!QFileInfo::exists(CVToolPaths::resourcesFolder() + QStringLiteral("/lsar_password.so")))
            return {nullptr, XADErrorCode::NotSupported,
                    text("The part of this program that hands a password to lsar is not installed.")};
        m_password = *password;
        m_hasPassword = true;
        m_encrypted = true;
        if (isRar(probe)) {
            m_rar = std::make_unique<CVRarWitness>(m_archivePath, password);
            if (const CVRarWitness::Verdict verdict = m_rar->verdict(); verdict.code != XADErrorCode::None)
                return {nullptr, verdict.code, verdict.detail, true};
            // With a password that fits, this is what unar does not know.
            if (const CVRarFile *const rar = m_rar->file(0); rar && rar->unpackVersion < 50)
                return {nullptr, XADErrorCode::NeedsPackage, CVRarWitness::otherProgramText(), true};
        }
        listing = list({}, password);
        // Early kinds of encryption give nonsense instead of an answer to a wrong password.
        if (listing.error == WrongPassword)
            return {nullptr, XADErrorCode::PasswordWrongOpening, wrongPasswordText()};
        if (listing.items.empty() && listing.error != 0)
            return {nullptr, XADErrorCode::PasswordOrDamage, passwordOrDamageText()};
    }
    if (!listing.started)
        return {nullptr, XADErrorCode::NotSupported,
                listing.startError.description + QLatin1Char(' ') + listing.startError.reason};
    if (listing.stopped)
        return {nullptr, XADErrorCode::Stopped, {}};
    if (listing.items.empty()) {
        const bool unknown = listing.error == NotSupportedFile || listing.error == WrongFileType ||
                             listing.error == WrongDataFormat || listing.error == BadParameters ||
                             listing.formatName.isEmpty();
        if (unknown || (listing.error == 0 && m_volumes.isEmpty()))
            return {nullptr, XADErrorCode::NotSupported, text("unar does not know this kind of archive.")};
        return {nullptr, XADErrorCode::Damaged,
                text("unar finds nothing in it: it is damaged, or a volume is missing.")};
    }
    if (listing.error != 0 || listing.broken)
        m_listingState = {XADErrorCode::Damaged, text("The list of contents ends early.")};

    if (isRar(probe)) {
        if (!m_rar)
            m_rar = std::make_unique<CVRarWitness>(m_archivePath, std::nullopt);
        if (const CVRarWitness::Verdict verdict = m_rar->verdict(); verdict.code != XADErrorCode::None)
            return {nullptr, verdict.code, verdict.detail, true};
        if (!m_rar->sawAll(listing.items.size()))
            return {nullptr, XADErrorCode::Damaged, text("Its list of contents is not whole."), true};
    }

    // Its reader takes a damaged header for the end.
    if (listing.formatName.startsWith(QLatin1String("LZH")) ||
        listing.formatName.startsWith(QLatin1String("LHA")))
        if (const auto source = CVArchiveSource::open({m_archivePath});
            source && cvCheckLha(*source, 0) == CVLhaState::Damaged)
            return {nullptr, XADErrorCode::Damaged, text("A header is damaged."), true};

    m_formatName = listing.formatName.isEmpty() ? QStringLiteral("unar") : listing.formatName;
    takeNames(listing, probe);
    m_entries.reserve(listing.items.size());
    for (std::size_t i = 0; i < listing.items.size(); ++i) {
        Listing::Item &item = listing.items[i];
        if (item.isResourceFork || item.index < 0)
            continue;
        m_encrypted = m_encrypted || item.entry.encrypted;
        m_declaredTotal += std::max<qint64>(0, item.entry.size);
        m_sources.push_back({item.index, item.name.toUtf8(), item.crc32, item.continuesElsewhere,
                             m_rar ? m_rar->file(i) : nullptr});
        m_entries.push_back(std::move(item.entry));
    }
    return {};
}

// ---- extraction ----

void CVUnarEngine::fail(int entry, XADErrorCode code, const QString &detail)
{
    follow(m_sink->entryFailed(entry, code, detail));
}

/// Damage of an encrypted entry may be the password's doing, unless that is known to fit: by a value that the
/// format stores for the purpose, or because another entry came out right.
XADErrorCode CVUnarEngine::failureOf(int entry, const QByteArray &reason) const
{
    const auto index = static_cast<std::size_t>(entry);
    const XADErrorCode code = codeForReason(reason);
    if (!m_entries[index].encrypted || (code != XADErrorCode::Damaged && code != XADErrorCode::Password))
        return code;
    const CVRarFile *const rar = m_sources[index].rar;
    if (rar && CVRarWitness::needsOtherProgram(*rar))
        return XADErrorCode::NeedsPackage;
    switch (rar ? m_rar->password(*rar) : CVRarWitness::Password::Unknown) {
    case CVRarWitness::Password::Right:
        return XADErrorCode::Damaged;
    case CVRarWitness::Password::Wrong:
        return XADErrorCode::Password;
    case CVRarWitness::Password::Unknown:
        break;
    }
    if (code == XADErrorCode::Password)
        return code;
    return m_passwordFits ? XADErrorCode::Damaged : XADErrorCode::PasswordOrDamage;
}

void CVUnarEngine::failFor(int entry, const QByteArray &reason)
{
    const XADErrorCode code = failureOf(entry, reason);
    fail(entry, code, textFor(code, QString::fromUtf8(reason)));
}

bool CVUnarEngine::makeRunFolder(Run &run)
{
    run.folder = m_staging + QStringLiteral("/run%1").arg(m_runs++);
    const QByteArray path = QFile::encodeName(run.folder);
    if (::mkdir(path.constData(), 0700) == 0)
        run.descriptor =
            LXFileDescriptor(::open(path.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (run.descriptor.isOpen())
        return true;
    m_outcome = {XADErrorCode::Damaged,
                 text("The folder for unpacking cannot be used: %1").arg(qt_error_string(errno))};
    return false;
}

/// Opens what unar has put at the path, without following a link anywhere on the way.
bool CVUnarEngine::deliverFrom(int entry, int folder, const QByteArray &path)
{
    QList<QByteArray> parts = path.split('/');
    parts.removeAll(QByteArray());
    if (parts.isEmpty())
        return false;
    LXFileDescriptor parent(::fcntl(folder, F_DUPFD_CLOEXEC, 3));
    for (const QByteArray &part : parts.mid(0, parts.size() - 1)) {
        if (part == "." || part == "..")
            return false;
        parent = LXFileDescriptor(
            ::openat(parent.get(), part.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!parent.isOpen())
            return false;
    }
    const QByteArray &name = parts.last();
    if (name == "." || name == "..")
        return false;
    const auto index = static_cast<std::size_t>(entry);
    const bool isLink = m_entries[index].type == XADEntry::Type::Symlink;
    QByteArray target;
    LXFileDescriptor file;
    if (isLink) {
        target.resize(4096);
        const ssize_t n = ::readlinkat(parent.get(), name.constData(), target.data(), 4096);
        if (n < 0)
            return false;
        target.truncate(n);
    } else {
        file = LXFileDescriptor(
            ::openat(parent.get(), name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat info
        {};
        if (!file.isOpen() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
            return false;
    }

    const std::unique_ptr<CVEntryWriter> writer = m_sink->beginEntry(entry);
    std::optional<CVRarSum> sum;
    if (const CVRarFile *const rar = m_sources[index].rar)
        sum.emplace(m_rar->sum(*rar));
    // Where it says nothing of itself, an entry without data is as good as one that was checked.
    const bool isUnchecked = sum && !sum->canCompare() && m_entries[index].size > 0;
    bool isGood = !isUnchecked;
    const auto failSum = [&] {
        isGood = false;
        const XADErrorCode code = failureOf(entry, "checksum");
        follow(writer->finish(code, textFor(code, text("The check sum does not fit."))));
    };
    if (writer && isUnchecked) {
        follow(writer->finish(XADErrorCode::NotSupported, text("Nothing tells whether it is whole.")));
    } else if (writer && isLink) {
        follow(writer->write(target.constData(), target.size()));
        if (sum)
            sum->add(target);
        if (sum && sum->canCompare() && !sum->fits())
            failSum();
        else
            follow(writer->finish(XADErrorCode::None));
    } else if (writer) {
        QByteArray block(blockBytes, Qt::Uninitialized);
        uLong crc = ::crc32(0, nullptr, 0);
        Flow flow = Flow::Go;
        ssize_t n = 0;
        while (flow == Flow::Go &&
               (n = ::read(file.get(), block.data(), static_cast<std::size_t>(block.size()))) > 0) {
            if (sum)
                sum->add({block.constData(), static_cast<std::size_t>(n)});
            else
                crc = ::crc32(crc, reinterpret_cast<const Bytef *>(block.constData()), static_cast<uInt>(n));
            flow = writer->write(block.constData(), n);
            follow(flow);
        }
        const auto &expected = m_sources[index].crc32;
        if (n < 0)
            follow(writer->finish(XADErrorCode::Damaged, qt_error_string(errno)));
        else if (flow == Flow::Go && (sum ? sum->canCompare() && !sum->fits() : expected && *expected != crc))
            failSum();
        else
            follow(writer->finish(XADErrorCode::None));
    }
    if (isGood)
        m_passwordFits = m_passwordFits || (m_entries[index].encrypted && m_entries[index].size > 0);
    ::unlinkat(parent.get(), name.constData(), 0);
    return true;
}

bool CVUnarEngine::deliver(int entry, const Run &run)
{
    const QByteArray &name = m_sources[static_cast<std::size_t>(entry)].printed;
    if (deliverFrom(entry, run.descriptor.get(), name))
        return true;
    // Where a format keeps whole paths in its name field, unar takes the separator for part of the name.
    QByteArray flat = name;
    return name.contains('/') && deliverFrom(entry, run.descriptor.get(), flat.replace('/', '_'));
}

/// The path of the one thing that is no folder, for names that unar had to change.
QByteArray CVUnarEngine::onlyFileIn(const QString &folder) const
{
    QByteArray found;
    std::vector<QByteArray> waiting{{}};
    int seen = 0;
    while (!waiting.empty()) {
        const QByteArray inside = waiting.back();
        waiting.pop_back();
        const QFileInfoList children =
            QDir(folder + QLatin1Char('/') + QFile::decodeName(inside))
                .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        for (const QFileInfo &child : children) {
            const QByteArray path = inside + '/' + QFile::encodeName(child.fileName());
            if (child.isDir() && !child.isSymLink())
                waiting.push_back(path);
            else if (++seen > 1)
                return {};
            else
                found = path;
        }
    }
    return found;
}

/// One call of the program for these entries, which have names that do not get in each other's way.
void CVUnarEngine::run(const std::vector<int> &wanted, bool single)
{
    Run run;
    if (wanted.empty() || stopped() || !makeRunFolder(run))
        return;

    qint64 largest = 0;
    for (const int entry : wanted) {
        const qint64 size = m_entries[static_cast<std::size_t>(entry)].size;
        largest = std::max(largest, size < 0 ? maxUnknownFileBytes : size + blockBytes);
    }
    struct statvfs space
    {};
    if (::statvfs(QFile::encodeName(run.folder).constData(), &space) == 0)
        largest =
            std::min(largest, static_cast<qint64>(space.f_bavail) * static_cast<qint64>(space.f_frsize));

    LXChildOptions options;
    options.program = CVToolPaths::toolPath(QStringLiteral("unar")).value();
    options.arguments = {QStringLiteral("-D"),   QStringLiteral("-f"), QStringLiteral("-k"),
                         QStringLiteral("skip"), QStringLiteral("-o"), run.folder};
    if (!m_encoding.isEmpty())
        options.arguments << QStringLiteral("-e") << m_encoding;
    options.arguments << QStringLiteral("-E") << QStringLiteral("utf-8") << QStringLiteral("-i") << m_input;
    for (const int entry : wanted)
        options.arguments << QString::number(m_sources[static_cast<std::size_t>(entry)].index);
    options.workingFolder = run.folder;
    options.environment = {{QStringLiteral("HOME"), m_inputFolder.path()}};
    options.input = options.output = LXChildOptions::Stream::Terminal;
    options.confinement = confinement();
    // The password is typed at its own terminal.
    options.confinement->readable += {run.folder, QStringLiteral("/dev/tty")};
    options.confinement->writable = {run.folder, QStringLiteral("/dev/tty")};
    // It sets modes and times by path, for which the kernel has no bound but the person's own rights:
    // somebody who takes it over could change those of other files, though neither read nor write them.
    options.confinement->changes = LXConfinementRules::Changes::ByPath;
    options.limits.addressSpaceBytes = addressSpaceBytes;
    options.limits.fileSizeBytes = std::max<qint64>(largest, blockBytes);

    auto started = LXChildProcess::start(options);
    if (!started) {
        m_outcome = {XADErrorCode::NotSupported,
                     started.error().description + QLatin1Char(' ') + started.error().reason};
        return;
    }
    LXChildProcess &child = *started.value();
    Watch watch(child.processId());
    const auto accept = [&](int entry) {
        if (single) {
            if (!deliverFrom(entry, run.descriptor.get(), onlyFileIn(run.folder)))
                fail(entry, XADErrorCode::Damaged, text("unar reported success but made no file."));
        } else if (!deliver(entry, run)) {
            m_notFound.push_back(entry);
        }
    };
    CVUnarOutput output;
    std::vector<int> links;   // made by unar only when everything else is
    std::size_t done = 0;     // results that have come
    bool orderIsKnown = true; // the results are those of `wanted`, in order
    bool passwordMissing = false;
    bool stuck = false;
    bool reading = true;
    while (reading && !stopped()) {
        const LXChildProcess::Chunk chunk = child.read({}, stopLatency);
        using Kind = LXChildProcess::Chunk::Kind;
        switch (chunk.kind) {
        case Kind::Output:
            watch.sawOutput();
            output.add(chunk.data);
            break;
        case Kind::TimedOut:
            stuck = watch.isStuck();
            reading = !stuck;
            break;
        case Kind::Closed:
        case Kind::Stopped:
            reading = false;
            break;
        case Kind::Error:
            break;
        }
        for (; !output.results().empty() && !stopped(); output.results().pop_front()) {
            const CVUnarOutput::Result &result = output.results().front();
            orderIsKnown = orderIsKnown && done < wanted.size() &&
                           result.line.startsWith(m_sources[static_cast<std::size_t>(wanted[done])].printed);
            if (!orderIsKnown)
                continue;
            const int entry = wanted[done++];
            if (!result.ok)
                failFor(entry, result.reason);
            else if (m_entries[static_cast<std::size_t>(entry)].type == XADEntry::Type::Symlink)
                links.push_back(entry);
            else
                accept(entry);
        }
        if (output.isPrompting()) {
            if (!m_hasPassword) {
                passwordMissing = true;
                break;
            }
            const QByteArray answer = m_password.toUtf8() + '\n';
            output.add("\n");
            child.write(answer.constData(), answer.size());
        }
    }
    const LXChildProcess::Exit exit = reading ? child.terminate()
                                      : stuck ? child.terminate()
                                              : child.wait().value_or(LXChildProcess::Exit{});
    for (const int entry : links) {
        if (stopped())
            return;
        accept(entry);
    }

    // What is left got no result: the program ended early, or its lines could not be told apart.
    for (; done < wanted.size() && !stopped(); ++done) {
        const int entry = wanted[done];
        const bool verified = exit.succeeded() || m_sources[static_cast<std::size_t>(entry)].crc32;
        if (passwordMissing)
            fail(entry, XADErrorCode::Password, text("A password is needed."));
        else if (stuck)
            fail(entry, XADErrorCode::Damaged, text("unar got stuck and was stopped."));
        else if (!output.archiveFailure().isEmpty())
            failFor(entry, output.archiveFailure());
        else if (orderIsKnown || single || !verified)
            failFor(entry, "unar gave no result for it.");
        else
            accept(entry);
    }
}

CVReadingEngine::Outcome CVUnarEngine::extract(std::span<const int> indices, bool, CVEntrySink &sink)
{
    m_sink = &sink;
    m_outcome = m_listingState;
    m_notFound.clear();
    m_stopped = false;
    m_passwordFits = false;
    m_runs = 0;

    if (m_formatName == QLatin1String("CAB")) {
        const CVCabState state = cvCheckCabinet(m_archivePath, [&] { return stopped(); });
        if (state == CVCabState::Damaged)
            return {XADErrorCode::Damaged, text("A data block of the cabinet does not fit its check sum.")};
    }

    m_staging = sink.stagingFolder();
    std::optional<QTemporaryDir> ownStaging;
    if (m_staging.isEmpty()) {
        ownStaging.emplace(QDir::tempPath() + QStringLiteral("/corvane-XXXXXX"));
        if (!ownStaging->isValid())
            return {XADErrorCode::Damaged, ownStaging->errorString()};
        m_staging = ownStaging->path();
    }

    std::vector<int> links;
    std::vector<int> files;
    std::vector<int> withoutData;
    for (const int entry : indices) {
        const XADEntry &e = m_entries[static_cast<std::size_t>(entry)];
        if (e.encrypted && !m_hasPassword) {
            if (const std::optional<QString> password = m_host.password()) {
                m_password = *password;
                m_hasPassword = true;
                if (m_rar)
                    m_rar->setPassword(*password);
            }
        }
        const bool unreadable = e.encrypted && !m_hasPassword;
        switch (e.type) {
        case XADEntry::Type::Directory:
        case XADEntry::Type::Special:
            if (sink.beginEntry(entry))
                qCWarning(lcUnar, "data asked for an entry that has none");
            break;
        case XADEntry::Type::HardLink:
            withoutData.push_back(entry);
            break;
        case XADEntry::Type::Symlink:
            if (!e.linkTarget.isEmpty())
                withoutData.push_back(entry);
            else if (unreadable)
                fail(entry, XADErrorCode::Password, text("A password is needed."));
            else
                links.push_back(entry);
            break;
        case XADEntry::Type::File:
            if (unreadable)
                fail(entry, XADErrorCode::Password, text("A password is needed."));
            else if (const CVRarFile *const rar = m_sources[static_cast<std::size_t>(entry)].rar;
                     rar && (CVRarWitness::needsOtherProgram(*rar) ||
                             m_rar->password(*rar) == CVRarWitness::Password::Wrong))
                failFor(entry, "password");
            else if (m_sources[static_cast<std::size_t>(entry)].continuesElsewhere)
                fail(entry, XADErrorCode::NotSupported,
                     text("It is split over volumes in a way that unar does not put together."));
            else
                files.push_back(entry);
            break;
        }
        if (stopped())
            return {XADErrorCode::Stopped, {}};
    }

    // Entries whose places get in each other's way (equal names, a file where another needs a folder) go
    // into runs of their own. So do links: nothing is ever unpacked beside a link that it could go through.
    const auto inRuns = [&](const std::vector<int> &entries) {
        struct Group
        {
            QSet<QByteArray> files;
            QSet<QByteArray> folders;
            std::vector<int> entries;
        };
        std::vector<Group> groups;
        for (const int entry : entries) {
            const QByteArray &name = m_sources[static_cast<std::size_t>(entry)].printed;
            QList<QByteArray> parents;
            for (qsizetype at = name.indexOf('/'); at >= 0 && parents.size() < 256;
                 at = name.indexOf('/', at + 1))
                parents << name.first(at);
            std::size_t group = 0;
            for (; group < groups.size(); ++group) {
                const Group &g = groups[group];
                if (g.entries.size() < maxIndicesPerRun && !g.files.contains(name) &&
                    !g.folders.contains(name) &&
                    std::none_of(parents.begin(), parents.end(),
                                 [&](const QByteArray &p) { return g.files.contains(p); }))
                    break;
            }
            if (group >= maxRunsForEqualNames + m_entries.size() / maxIndicesPerRun) {
                fail(entry, XADErrorCode::Refused, text("Too many entries have the same name."));
                if (stopped())
                    return;
                continue;
            }
            if (group == groups.size())
                groups.emplace_back();
            Group &g = groups[group];
            g.files.insert(name);
            for (const QByteArray &parent : parents)
                g.folders.insert(parent);
            g.entries.push_back(entry);
        }
        for (const Group &g : groups)
            run(g.entries, false);
    };
    inRuns(files);
    inRuns(links);

    const std::vector<int> again = std::exchange(m_notFound, {});
    int singleRuns = 0;
    for (const int entry : again) {
        if (stopped())
            break;
        if (++singleRuns > maxSingleRuns)
            fail(entry, XADErrorCode::NotMade, text("unar has changed its name so that it cannot be found."));
        else
            run({entry}, true);
    }
    for (const int entry : withoutData) {
        if (stopped())
            break;
        if (sink.beginEntry(entry))
            qCWarning(lcUnar, "data asked for a link whose target is known");
    }
    if (m_stopped)
        return {XADErrorCode::Stopped, {}};
    return m_outcome;
}

int bid(const CVArchiveProbe &probe)
{
    const int points = cvUnarBid(probe);
    return points > 0 && CVToolPaths::isInstalled(QStringLiteral("unar")) &&
                   CVToolPaths::isInstalled(QStringLiteral("lsar"))
               ? points
               : 0;
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &host)
{
    auto engine = std::make_unique<CVUnarEngine>(host);
    CVEngineDescriptor::OpenOutcome outcome = engine->prepare(probe);
    if (outcome.code == XADErrorCode::None)
        outcome.engine = std::move(engine);
    return outcome;
}

} // namespace

CVEngineDescriptor cvUnarEngineDescriptor()
{
    return {"unar", bid, open};
}

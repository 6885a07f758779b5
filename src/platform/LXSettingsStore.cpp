#include "platform/LXSettingsStore.h"

#include "util/LXBackground.h"
#include "util/LXFileDescriptor.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/write_all.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QSet>
#include <QStandardPaths>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcSettings, "corvane.platform.settings")

using Values = QMap<QString, QVariant>;

constexpr auto section = "[General]"_L1;
/// Bytes in JSON, which has none of its own.
constexpr auto bytesMember = "base64"_L1;
/// Another process holds the lock only while it writes one small file, unless it was stopped there.
constexpr auto longestWaitForLock = std::chrono::seconds(5);
/// How often the file is looked at for the main thread.
constexpr auto lookPeriod = std::chrono::milliseconds(200);
constexpr qsizetype readBlockBytes = 1 << 16;
/// Far beyond any list of ours.
constexpr qsizetype mostBytes = 64 << 20;

QString systemText(const QString &path, int code)
{
    return path + ": "_L1 + QString::fromLocal8Bit(std::strerror(code));
}

LXError systemError(const QString &path, int code)
{
    return LXError{.domain = u"NSPOSIXErrorDomain"_s,
                   .code = code,
                   .description = u"The settings could not be saved."_s,
                   .reason = systemText(path, code),
                   .suggestion = {}};
}

LXError readError(const QString &path, int code)
{
    return LXError{
        .domain = u"NSPOSIXErrorDomain"_s,
        .code = code,
        .description = QCoreApplication::translate("LXSettingsStore", "Your settings could not be read."),
        .reason = code == EBADMSG
                      ? QCoreApplication::translate("LXSettingsStore", "%1 is cut off or damaged.").arg(path)
                      : systemText(path, code),
        .suggestion = QCoreApplication::translate(
            "LXSettingsStore", "The file stays as it is: what you change now is forgotten at the end. "
                               "Repair the file, or move it away to begin with new settings.")};
}

QJsonValue toJson(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QByteArray:
        return QJsonObject{{bytesMember, QString::fromLatin1(value.toByteArray().toBase64())}};
    case QMetaType::QStringList:
        return QJsonArray::fromStringList(value.toStringList());
    case QMetaType::QByteArrayList: {
        QJsonArray list;
        for (const QByteArray &bytes : value.value<QByteArrayList>())
            list.append(toJson(bytes));
        return list;
    }
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return QJsonValue(value.toLongLong());
    default:
        return QJsonValue::fromVariant(value);
    }
}

QVariant fromJson(const QJsonValue &json)
{
    switch (json.type()) {
    case QJsonValue::Double:
        return json.isDouble() && json.toDouble() != static_cast<double>(json.toInteger())
                   ? QVariant(json.toDouble())
                   : QVariant(json.toInteger());
    case QJsonValue::Object:
        return QByteArray::fromBase64(json.toObject().value(bytesMember).toString().toLatin1());
    case QJsonValue::Array: {
        const QJsonArray array = json.toArray();
        if (std::ranges::any_of(array, [](const QJsonValue &item) { return item.isObject(); })) {
            QByteArrayList list;
            for (const auto &item : array)
                list.append(fromJson(item).toByteArray());
            return QVariant::fromValue(list);
        }
        QStringList list;
        for (const auto &item : array)
            list.append(item.toVariant().toString());
        return list;
    }
    default:
        return json.toVariant();
    }
}

QString keyOfLine(const QByteArray &line)
{
    const qsizetype equals = line.indexOf('=');
    if (equals <= 0 || line.startsWith('#') || line.startsWith(';') || line.startsWith('['))
        return {};
    return QString::fromUtf8(line.first(equals).trimmed());
}

// One line: key = JSON value. JSON keeps every kind of value apart and every text on its line.
QByteArray lineOf(const QString &key, const QVariant &value)
{
    const QByteArray array = QJsonDocument(QJsonArray{toJson(value)}).toJson(QJsonDocument::Compact);
    return key.toUtf8() + " = " + array.sliced(1, array.size() - 2);
}

// What `text` becomes when `before`, which it holds, changes to `after`. All that is not ours to change stays
// as it is: comments, what a later version wrote, what nobody understands.
QByteArray changedText(const QByteArray &text, const Values &before, const Values &after)
{
    QByteArrayList lines;
    QSet<QString> kept;
    if (!text.isEmpty()) {
        lines = text.split('\n');
        if (lines.last().isEmpty())
            lines.removeLast();
        // Of a key that stands there several times the last line counts, so that one is looked at first.
        for (qsizetype i = lines.size() - 1; i >= 0; --i) {
            const QString key = keyOfLine(lines[i]);
            if (key.isEmpty())
                continue;
            const auto now = after.constFind(key);
            if (now == after.cend() || kept.contains(key))
                lines.removeAt(i);
            else if (*now != before.value(key))
                lines[i] = lineOf(key, *now);
            kept.insert(key);
        }
    } else {
        lines.append(QByteArray(section.latin1()));
    }
    for (auto it = after.begin(); it != after.end(); ++it) {
        if (!kept.contains(it.key()))
            lines.append(lineOf(it.key(), it.value()));
    }
    return lines.join('\n') + '\n';
}

// Lenient: the file is edited by hand at times, and one bad line must not cost the others.
Values parsed(const QByteArray &text)
{
    Values values;
    for (const QByteArray &line : text.split('\n')) {
        const QString key = keyOfLine(line);
        if (key.isEmpty())
            continue;
        const QByteArray written = line.sliced(line.indexOf('=') + 1).trimmed();
        const QJsonArray array = QJsonDocument::fromJson('[' + written + ']').array();
        values.insert(key,
                      array.size() == 1 ? fromJson(array.first()) : QVariant(QString::fromUtf8(written)));
    }
    return values;
}

// Whether this is the beginning of a file only, or holds what a crash of the system leaves in place of data.
// People leave out the last end of a line too, but not the end of a value that they have begun.
bool isDamaged(const QByteArray &text)
{
    if (text.contains('\0'))
        return true;
    const QByteArray last = text.sliced(text.lastIndexOf('\n') + 1);
    if (last.isEmpty() || last.startsWith('#') || last.startsWith(';') || last.startsWith('['))
        return false;
    const QByteArray value = last.sliced(last.indexOf('=') + 1).trimmed();
    return !last.contains('=') || value.isEmpty() ||
           (QByteArrayView("[{\"").contains(value.front()) &&
            QJsonDocument::fromJson('[' + value + ']').isNull());
}

/// All of a plain file. 0 or an errno; never waits for what is none.
int readWhole(const QByteArray &path, QByteArray &text, struct stat &facts)
{
    const LXFileDescriptor file(::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.isOpen()) {
        if (errno != ENOENT)
            return errno;
        // A link whose target is gone is not "no settings": they may lie on a disk that is not there just
        // now.
        struct stat link = {};
        return ::lstat(path.constData(), &link) == 0 ? EIO : ENOENT;
    }
    if (::fstat(file.get(), &facts) != 0)
        return errno;
    if (!S_ISREG(facts.st_mode))
        return S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    text.clear();
    QByteArray block(readBlockBytes, Qt::Uninitialized);
    for (;;) {
        const ssize_t got = ::read(file.get(), block.data(), static_cast<std::size_t>(block.size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return errno;
        if (got == 0)
            break;
        text.append(block.constData(), got);
        if (text.size() > mostBytes)
            return EFBIG;
    }
    return isDamaged(text) ? EBADMSG : 0;
}

/// Which file the values were read from. A replaced file has another inode or time.
struct Stamp
{
    ino_t inode = 0;
    qint64 seconds = 0;
    qint64 nanoseconds = 0;
    off_t size = -1;

    bool operator==(const Stamp &) const = default;
};

Stamp stampOf(const struct stat &facts)
{
    return {facts.st_ino, facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec, facts.st_size};
}

} // namespace

struct LXSettingsStore::Private
{
    struct Watch
    {
        QString key;
        Observer observer;
    };

    explicit Private(const QString &path)
        : filePath(path)
    {}

    QString filePath;
    std::mutex writing; // one change of the file at a time in this process; taken before `mutex`
    std::mutex mutex;   // guards everything below; not held while the disk is waited for
    QVariantHash defaults;
    QHash<QString, Check> checks;
    QVariantHash overrides;
    std::uint64_t generation = 0; // grows with each change of what follows
    QByteArray text;              // what the file held when it was last read
    Values stored;                // the values in it
    Values unsaved;               // changes that could not be written; an invalid value removes
    Stamp stamp;
    int unreadable = 0; // why the last reading failed; nothing is written then
    bool hasLooked = false;
    bool hasWarned = false;
    bool isSaveDue = false;
    std::atomic<bool> sparesMainThread = false;
    std::chrono::steady_clock::time_point lastLook;
    std::map<int, Watch> watches;
    int nextWatch = 1;

    /// A link to the file is kept: people keep their configuration elsewhere.
    QByteArray realPath() const
    {
        const QString real = QFileInfo(filePath).canonicalFilePath();
        return QFile::encodeName(real.isEmpty() ? filePath : real);
    }

    QVariant lookUp(const QString &key) const
    {
        if (const auto found = overrides.constFind(key); found != overrides.cend())
            return *found;
        if (const auto found = unsaved.constFind(key); found != unsaved.cend())
            return found->isValid() ? *found : defaults.value(key);
        if (const auto found = stored.constFind(key); found != stored.cend() && isRight(key, *found))
            return *found;
        return defaults.value(key);
    }

    bool isRight(const QString &key, const QVariant &value) const
    {
        const auto check = checks.constFind(key);
        return check == checks.cend() || (*check)(value);
    }

    /// Keys whose value differs from what was known.
    QSet<QString> replaceStored(Values values)
    {
        QSet<QString> changed;
        ++generation;
        if (watches.empty()) {
            stored = std::move(values);
            return changed;
        }
        QHash<QString, QVariant> before;
        for (const auto &[id, watch] : watches)
            before.insert(watch.key, lookUp(watch.key));
        stored = std::move(values);
        for (auto it = before.cbegin(); it != before.cend(); ++it) {
            if (lookUp(it.key()) != it.value())
                changed.insert(it.key());
        }
        return changed;
    }

    enum class Reread { IfReplaced, Always };

    /// With `held`, which is let go while the disk is asked. What cannot be read leaves all that was known.
    QSet<QString> reread(std::unique_lock<std::mutex> &held, Reread when = Reread::IfReplaced)
    {
        const QByteArray path = QFile::encodeName(filePath);
        struct stat facts = {};
        QByteArray read;
        int failure = 0;
        std::uint64_t before = 0;
        do {
            before = generation;
            const Stamp known = stamp;
            held.unlock();
            const bool isSame = when == Reread::IfReplaced && ::stat(path.constData(), &facts) == 0 &&
                                stampOf(facts) == known;
            if (!isSame)
                failure = readWhole(path, read, facts);
            held.lock();
            if (isSame)
                return {};
        } while (before != generation); // another thread has read or written something newer
        hasLooked = true;
        unreadable = failure == ENOENT ? 0 : failure;
        if (failure == ENOENT)
            read.clear();
        else if (failure != 0 && failure != EBADMSG)
            return {};
        stamp = failure == ENOENT ? Stamp() : stampOf(facts);
        if (read == text || (failure == EBADMSG && !stored.isEmpty()))
            return {};
        text = std::move(read);
        return replaceStored(parsed(text));
    }

    int lock(LXFileDescriptor &lockFile) const
    {
        const QString folder = QFileInfo(filePath).path();
        if (!QFileInfo(folder).isDir()) {
            QDir().mkpath(QFileInfo(folder).path());
            ::mkdir(QFile::encodeName(folder).constData(), 0700);
        }
        const QByteArray path = QFile::encodeName(filePath + ".lock"_L1);
        lockFile =
            LXFileDescriptor(::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!lockFile.isOpen())
            return errno;
        const auto giveUp = std::chrono::steady_clock::now() + longestWaitForLock;
        while (::flock(lockFile.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR)
                return errno;
            if (std::chrono::steady_clock::now() > giveUp)
                return ETIMEDOUT;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return 0;
    }

    /// Replaces the file. It is not forced to the disk: the list of work directories changes twice an
    /// archive, and what a crash of the whole machine costs here is the last choices.
    int write(const QByteArray &contents, Stamp &written) const
    {
        const QByteArray target = realPath();
        // One name is enough under the lock, and a killed process leaves one file at most.
        const QByteArray temporary = target + ".new";
        ::unlink(temporary.constData());
        LXFileDescriptor file(::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.isOpen())
            return errno;
        struct stat facts = {};
        int failure = 0;
        if (!writeAll(file.get(), contents) || ::fstat(file.get(), &facts) != 0)
            failure = errno;
        if (!file.reset() && failure == 0)
            failure = errno;
        if (failure == 0 && ::rename(temporary.constData(), target.constData()) != 0)
            failure = errno;
        if (failure == 0)
            written = stampOf(facts);
        else
            ::unlink(temporary.constData());
        return failure;
    }

    /// Applies `change` to what is in the file now. With `writing` held, and `held`, which is let go while
    /// the file is locked and written: whoever only reads, the main thread above all, must not wait for a
    /// disk.
    int store(const std::function<void(Values &)> &change, QSet<QString> &changed,
              std::unique_lock<std::mutex> &held)
    {
        held.unlock();
        LXFileDescriptor lockFile;
        const int refused = lock(lockFile);
        held.lock();
        if (refused != 0)
            return refused;
        // Two replacements within one tick of the clock may look like none, so the stamp is not enough.
        changed |= reread(held, Reread::Always);
        if (unreadable != 0)
            return unreadable;
        Values values = stored;
        const Values saved = unsaved; // more may come while the file is written
        for (auto it = saved.cbegin(); it != saved.cend(); ++it)
            put(values, it.key(), it.value());
        change(values);
        if (values != stored) {
            Stamp written;
            QByteArray contents = changedText(text, stored, values);
            held.unlock();
            const int failure = write(contents, written);
            held.lock();
            if (failure != 0)
                return failure;
            stamp = written;
            text = std::move(contents);
        }
        for (auto it = saved.cbegin(); it != saved.cend(); ++it) {
            if (const auto now = unsaved.constFind(it.key()); now != unsaved.cend() && *now == it.value())
                unsaved.erase(now);
        }
        changed |= replaceStored(std::move(values));
        hasWarned = false;
        return 0;
    }

    static void put(Values &values, const QString &key, const QVariant &value)
    {
        if (value.isValid())
            values.insert(key, value);
        else
            values.remove(key);
    }

    bool isMainThreadSpared() const { return sparesMainThread && LXMainThread::isCurrent(); }

    /// Whether the file was replaced. Where the main thread does not wait for it, another one looks.
    QSet<QString> look(std::unique_lock<std::mutex> &held, const std::shared_ptr<Private> &self)
    {
        if (!isMainThreadSpared() || !hasLooked)
            return reread(held);
        const auto now = std::chrono::steady_clock::now();
        if (now - lastLook < lookPeriod)
            return {};
        lastLook = now;
        runInBackground([self] {
            std::unique_lock guard(self->mutex);
            const QSet<QString> changed = self->reread(guard);
            guard.unlock();
            self->tell(changed);
        });
        return {};
    }

    /// With `mutex` held. One writing takes all that has come until it begins.
    void saveLater(const std::shared_ptr<Private> &self)
    {
        if (std::exchange(isSaveDue, true))
            return;
        runInBackground([self] {
            {
                const std::lock_guard guard(self->mutex);
                self->isSaveDue = false;
            }
            if (const int failure = self->saveNow()) {
                const std::lock_guard guard(self->mutex);
                self->warn(failure);
            }
        });
    }

    int saveNow()
    {
        QSet<QString> changed;
        int failure = 0;
        {
            const std::lock_guard one(writing);
            std::unique_lock guard(mutex);
            if (!unsaved.isEmpty())
                failure = store([](Values &) {}, changed, guard);
        }
        tell(changed);
        return failure;
    }

    /// Once, until it works again: there may be a hundred changes.
    void warn(int failure)
    {
        if (!std::exchange(hasWarned, true))
            LX_WARNING(lcSettings, "the settings could not be saved: %s", std::strerror(failure));
    }

    void tell(const QSet<QString> &changed)
    {
        if (changed.isEmpty())
            return;
        std::vector<Watch> told;
        {
            const std::lock_guard guard(mutex);
            for (const auto &[id, watch] : watches) {
                if (changed.contains(watch.key))
                    told.push_back(watch);
            }
        }
        for (const Watch &watch : told)
            watch.observer(watch.key);
    }
};

LXSettingsStore::LXSettingsStore(const QString &filePath)
    : d(std::make_shared<Private>(filePath))
{}

LXSettingsStore::~LXSettingsStore() = default;

QString LXSettingsStore::defaultFilePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           "/corvane/corvane.conf"_L1;
}

void LXSettingsStore::registerDefaults(const QVariantHash &defaults)
{
    const std::lock_guard guard(d->mutex);
    d->defaults.insert(defaults);
}

void LXSettingsStore::registerChecks(const QHash<QString, Check> &checks)
{
    const std::lock_guard guard(d->mutex);
    d->checks.insert(checks);
}

QStringList LXSettingsStore::wrongValues() const
{
    const std::lock_guard guard(d->mutex);
    QStringList keys;
    for (auto it = d->stored.cbegin(); it != d->stored.cend(); ++it) {
        if (!d->isRight(it.key(), it.value()))
            keys.append(it.key());
    }
    return keys;
}

QVariant LXSettingsStore::value(const QString &key) const
{
    QSet<QString> changed;
    QVariant found;
    {
        std::unique_lock guard(d->mutex);
        changed = d->look(guard, d);
        found = d->lookUp(key);
    }
    d->tell(changed);
    return found;
}

bool LXSettingsStore::boolean(const QString &key) const
{
    const QVariant found = value(key);
    if (found.typeId() == QMetaType::QString) {
        const QString text = found.toString().toLower();
        return text == "true"_L1 || text == "yes"_L1 || text == "1"_L1;
    }
    return found.toBool();
}

qint64 LXSettingsStore::integer(const QString &key) const
{
    return value(key).toLongLong();
}

QString LXSettingsStore::string(const QString &key) const
{
    return value(key).toString();
}

QStringList LXSettingsStore::stringList(const QString &key) const
{
    return value(key).toStringList();
}

QByteArrayList LXSettingsStore::bytesList(const QString &key) const
{
    return value(key).value<QByteArrayList>();
}

bool LXSettingsStore::isStored(const QString &key) const
{
    QSet<QString> changed;
    bool found = false;
    {
        std::unique_lock guard(d->mutex);
        changed = d->look(guard, d);
        const auto unsaved = d->unsaved.constFind(key);
        found = unsaved != d->unsaved.cend() ? unsaved->isValid() : d->stored.contains(key);
    }
    d->tell(changed);
    return found;
}

void LXSettingsStore::setValue(const QString &key, const QVariant &value)
{
    QSet<QString> changed;
    const bool waits = !d->isMainThreadSpared();
    {
        const auto one = waits ? std::unique_lock(d->writing) : std::unique_lock<std::mutex>();
        std::unique_lock guard(d->mutex);
        const QVariant before = d->lookUp(key);
        if (d->overrides.contains(key)) {
            d->overrides.insert(key, value);
        } else if (!waits) {
            d->unsaved.insert(key, value);
            d->saveLater(d);
        } else if (const int failure =
                       d->store([&](Values &values) { Private::put(values, key, value); }, changed, guard)) {
            d->warn(failure);
            d->unsaved.insert(key, value);
        }
        if (d->lookUp(key) != before)
            changed.insert(key);
    }
    d->tell(changed);
}

void LXSettingsStore::remove(const QString &key)
{
    setValue(key, {});
}

LXResult<void> LXSettingsStore::update(const QString &key,
                                       const std::function<QVariant(const QVariant &stored)> &change)
{
    QSet<QString> changed;
    int failure = 0;
    {
        const std::lock_guard one(d->writing);
        std::unique_lock guard(d->mutex);
        failure = d->store([&](Values &values) { Private::put(values, key, change(values.value(key))); },
                           changed, guard);
        if (failure != 0) {
            const auto unsaved = d->unsaved.constFind(key);
            const QVariant known = unsaved != d->unsaved.cend() ? *unsaved : d->stored.value(key);
            d->unsaved.insert(key, change(known));
            changed.insert(key);
        }
    }
    d->tell(changed);
    if (failure != 0)
        return systemError(d->filePath, failure);
    return {};
}

void LXSettingsStore::setOverride(const QString &key, const QVariant &value)
{
    {
        const std::lock_guard guard(d->mutex);
        const QVariant before = d->lookUp(key);
        if (value.isValid())
            d->overrides.insert(key, value);
        else
            d->overrides.remove(key);
        if (d->lookUp(key) == before)
            return;
    }
    d->tell({key});
}

std::optional<LXError> LXSettingsStore::readProblem() const
{
    QSet<QString> changed;
    int failure = 0;
    {
        std::unique_lock guard(d->mutex);
        changed = d->look(guard, d);
        failure = d->unreadable;
    }
    d->tell(changed);
    if (failure == 0)
        return std::nullopt;
    return readError(d->filePath, failure);
}

LXResult<void> LXSettingsStore::flush()
{
    const int failure = d->saveNow();
    if (failure != 0)
        return systemError(d->filePath, failure);
    return {};
}

void LXSettingsStore::spareMainThread()
{
    const std::lock_guard guard(d->mutex);
    d->sparesMainThread = true;
}

int LXSettingsStore::observe(const QString &key, Observer observer)
{
    QSet<QString> changed;
    int id = 0;
    {
        std::unique_lock guard(d->mutex);
        changed = d->look(guard, d); // so that the first change told to the new one comes after this call
        id = d->nextWatch++;
    }
    d->tell(changed);
    const std::lock_guard guard(d->mutex);
    d->watches.emplace(id, Private::Watch{key, std::move(observer)});
    return id;
}

void LXSettingsStore::removeObserver(int id)
{
    const std::lock_guard guard(d->mutex);
    d->watches.erase(id);
}

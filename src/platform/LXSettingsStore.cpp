#include "platform/LXSettingsStore.h"

#include "util/LXFileDescriptor.h"
#include "util/LXLog.h"
#include "util/write_all.h"

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
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
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

LXError systemError(const QString &path, int code)
{
    return LXError{.domain = u"NSPOSIXErrorDomain"_s,
                   .code = code,
                   .description = u"The settings could not be saved."_s,
                   .reason = path + ": "_L1 + QString::fromLocal8Bit(std::strerror(code)),
                   .suggestion = {}};
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

// One line: key = JSON value. JSON keeps every kind of value apart and every text on its line.
QByteArray serialised(const Values &values)
{
    QByteArray text = section.latin1() + QByteArray("\n");
    for (auto it = values.begin(); it != values.end(); ++it) {
        const QByteArray array = QJsonDocument(QJsonArray{toJson(it.value())}).toJson(QJsonDocument::Compact);
        text += it.key().toUtf8() + " = " + array.sliced(1, array.size() - 2) + '\n';
    }
    return text;
}

// Lenient: the file is edited by hand at times, and one bad line must not cost the others.
Values parsed(const QByteArray &text)
{
    Values values;
    for (const QByteArray &line : text.split('\n')) {
        const qsizetype equals = line.indexOf('=');
        if (equals <= 0 || line.startsWith('#') || line.startsWith(';') || line.startsWith('['))
            continue;
        const QString key = QString::fromUtf8(line.first(equals).trimmed());
        const QByteArray written = line.sliced(equals + 1).trimmed();
        const QJsonArray array = QJsonDocument::fromJson('[' + written + ']').array();
        values.insert(key,
                      array.size() == 1 ? fromJson(array.first()) : QVariant(QString::fromUtf8(written)));
    }
    return values;
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
    QVariantHash overrides;
    Values stored;  // what the file held when it was last read
    Values unsaved; // changes that could not be written; an invalid value removes
    Stamp stamp;
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
        if (const auto found = stored.constFind(key); found != stored.cend())
            return *found;
        return defaults.value(key);
    }

    /// Keys whose value differs from what was known.
    QSet<QString> replaceStored(Values values)
    {
        QSet<QString> changed;
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

    QSet<QString> reread(Reread when = Reread::IfReplaced)
    {
        struct stat facts;
        const QByteArray path = QFile::encodeName(filePath);
        if (::stat(path.constData(), &facts) != 0) {
            if (stamp == Stamp())
                return {};
            stamp = {};
            return replaceStored({});
        }
        if (when == Reread::IfReplaced && stampOf(facts) == stamp)
            return {};
        QFile file(filePath);
        if (!file.open(QIODevice::ReadOnly) || ::fstat(file.handle(), &facts) != 0)
            return {};
        stamp = stampOf(facts);
        return replaceStored(parsed(file.readAll()));
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
    int write(const Values &values, Stamp &written) const
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
        if (!writeAll(file.get(), serialised(values)) || ::fstat(file.get(), &facts) != 0)
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
        changed |= reread(Reread::Always);
        Values values = stored;
        for (auto it = unsaved.cbegin(); it != unsaved.cend(); ++it)
            put(values, it.key(), it.value());
        change(values);
        if (values != stored) {
            Stamp written;
            held.unlock();
            const int failure = write(values, written);
            held.lock();
            if (failure != 0)
                return failure;
            stamp = written;
        }
        unsaved.clear();
        changed |= replaceStored(std::move(values));
        return 0;
    }

    static void put(Values &values, const QString &key, const QVariant &value)
    {
        if (value.isValid())
            values.insert(key, value);
        else
            values.remove(key);
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
    : d(std::make_unique<Private>(filePath))
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

QVariant LXSettingsStore::value(const QString &key) const
{
    QSet<QString> changed;
    QVariant found;
    {
        const std::lock_guard guard(d->mutex);
        changed = d->reread();
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
        const std::lock_guard guard(d->mutex);
        changed = d->reread();
        const auto unsaved = d->unsaved.constFind(key);
        found = unsaved != d->unsaved.cend() ? unsaved->isValid() : d->stored.contains(key);
    }
    d->tell(changed);
    return found;
}

void LXSettingsStore::setValue(const QString &key, const QVariant &value)
{
    QSet<QString> changed;
    {
        const std::lock_guard one(d->writing);
        std::unique_lock guard(d->mutex);
        const QVariant before = d->lookUp(key);
        if (d->overrides.contains(key)) {
            d->overrides.insert(key, value);
        } else if (const int failure =
                       d->store([&](Values &values) { Private::put(values, key, value); }, changed, guard)) {
            LX_WARNING(lcSettings, "could not save %s: %s", qUtf8Printable(key), std::strerror(failure));
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

LXResult<void> LXSettingsStore::flush()
{
    QSet<QString> changed;
    int failure = 0;
    {
        const std::lock_guard one(d->writing);
        std::unique_lock guard(d->mutex);
        if (!d->unsaved.isEmpty())
            failure = d->store([](Values &) {}, changed, guard);
    }
    d->tell(changed);
    if (failure != 0)
        return systemError(d->filePath, failure);
    return {};
}

int LXSettingsStore::observe(const QString &key, Observer observer)
{
    QSet<QString> changed;
    int id = 0;
    {
        const std::lock_guard guard(d->mutex);
        changed = d->reread(); // so that the first change told to the new one comes after this call
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

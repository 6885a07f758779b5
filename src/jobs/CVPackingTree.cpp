#include "jobs/CVPackingTree.h"

#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXCopyFile.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"
#include "util/unique_destination.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>

using namespace Qt::StringLiterals;

namespace {

/// More names say no more, and an alert has only so much room.
constexpr int problemsNamed = 3;

QString tr(const char *text)
{
    return QCoreApplication::translate("CVPackingTree", text);
}

QString systemText(int failure)
{
    return QString::fromLocal8Bit(std::strerror(failure));
}

QString shown(QByteArrayView path)
{
    return LXDisplay::displayEscaped(fileNameFromBytes(path));
}

QByteArray folderOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash > 0 ? path.first(slash) : QByteArray(slash == 0 ? "/" : ".");
}

QByteArray resolved(const QByteArray &path)
{
    struct Free
    {
        void operator()(char *text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, Free> real(::realpath(path.constData(), nullptr));
    return real ? QByteArray(real.get()) : QByteArray();
}

/// The item's own path, closed by a slash, with the links on the way to it resolved.
QByteArray placeOf(const QByteArray &path)
{
    QByteArray place = resolved(folderOf(path));
    if (!place.endsWith('/'))
        place += '/';
    return place + lastComponent(path) + '/';
}

QString kindThatCannotBePacked(mode_t mode)
{
    if (S_ISFIFO(mode))
        return tr("It is a named pipe, which has no contents to pack.");
    if (S_ISSOCK(mode))
        return tr("It is a socket, which has no contents to pack.");
    return tr("It is a device, which has no contents to pack.");
}

bool isAboutWriting(int failure)
{
    return failure == ENOSPC || failure == EDQUOT || failure == EROFS || failure == EFBIG;
}

} // namespace

/// What stands against packing.
struct CVPackingTree::Problems
{
    QStringList first;
    qint64 count = 0;

    void add(const QByteArray &source, const QString &why)
    {
        ++count;
        if (first.size() < problemsNamed)
            first.append(u"“%1”: %2"_s.arg(shown(source), why));
    }

    LXError error() const
    {
        QString reason = first.join("; "_L1);
        if (count > first.size())
            reason += u' ' + tr("… and %1 more").arg(count - first.size());
        LXError error =
            CVOperationHelper::errorWithMessage(count == 1 ? tr("One of the files can't be read.")
                                                           : tr("%1 of the files can't be read.").arg(count),
                                                reason);
        error.suggestion = tr("Leave them out or change their permissions, and try again.");
        return error;
    }
};

QByteArray CVPackingTree::sourceOf(const CVFileNode &node)
{
    QByteArray source = bytesOfFileName(node.filename());
    // A slash at the end would follow a link.
    while (source.size() > 1 && source.endsWith('/'))
        source.chop(1);
    return source;
}

CVPackingTree::State CVPackingTree::stateOf(const struct stat &facts)
{
    return {.size = facts.st_size,
            .changedNs = facts.st_mtim.tv_sec * std::int64_t(1'000'000'000) + facts.st_mtim.tv_nsec};
}

QByteArray CVPackingTree::uniqueTopName(const QByteArray &source)
{
    QByteArray name = lastComponent(source);
    if (name.isEmpty() || name == "." || name == "..")
        name = lastComponent(resolved(source));
    if (name.isEmpty())
        name = "root";
    int &counter = m_topCounters[name];
    QByteArray candidate;
    do {
        candidate = bytesOfFileName(nameWithCounter(fileNameFromBytes(name), ++counter));
    } while (!m_topNames.insert(candidate).second);
    return candidate;
}

// True when what is below it is to be looked at.
bool CVPackingTree::add(const CVFileNode::Pointer &node, const QByteArray &path, bool given,
                        Problems &problems)
{
    const QByteArray source = sourceOf(*node);
    struct stat facts;
    if (::lstat(source.constData(), &facts) != 0) {
        problems.add(source, errno == ENOENT ? tr("It does not exist any more.") : systemText(errno));
        return false;
    }
    Item item{.node = node,
              .path = path,
              .identity = {facts.st_dev, facts.st_ino},
              .state = stateOf(facts),
              .given = given};
    int needed = R_OK;
    if (S_ISDIR(facts.st_mode)) {
        // Of another window or program that is at work in the same folder.
        if (lastComponent(source).startsWith(CVWorkDirectoryManager::namePrefix().data()) &&
            CVWorkDirectoryManager::isInUse(fileNameFromBytes(source))) {
            m_skipped.push_back(
                {fileNameFromBytes(path), tr("It is the working folder of another job."), {}});
            return false;
        }
        item.kind = Kind::Folder;
        item.facts = m_folderFacts.size();
        needed = R_OK | X_OK;
    } else if (S_ISLNK(facts.st_mode)) {
        item.kind = Kind::Link;
        needed = F_OK;
    } else if (S_ISREG(facts.st_mode)) {
        item.hasSeveralNames = facts.st_nlink > 1;
    } else {
        m_skipped.push_back(
            {fileNameFromBytes(path), kindThatCannotBePacked(facts.st_mode), XADErrorCode::Refused});
        return false;
    }
    const bool readable =
        needed == F_OK || ::faccessat(AT_FDCWD, source.constData(), needed, AT_EACCESS) == 0;
    if (!readable || node->isIncomplete()) {
        problems.add(source, readable ? tr("Its contents could not be listed.") : systemText(errno));
        return false;
    }
    if (item.kind == Kind::Folder)
        m_folderFacts.push_back(facts);
    m_items.push_back(std::move(item));
    return true;
}

LXResult<void> CVPackingTree::read(const CVFileNode &root)
{
    struct Pending
    {
        CVFileNode::Pointer node;
        QByteArray path;
        bool given;
    };
    std::vector<Pending> pending;
    for (const auto &child : root.children())
        pending.push_back({child, uniqueTopName(sourceOf(*child)), true});
    std::ranges::reverse(pending);
    Problems problems;
    while (!pending.empty() && !m_stop.stop_requested()) {
        const Pending next = std::move(pending.back());
        pending.pop_back();
        if (!add(next.node, next.path, next.given, problems))
            continue;
        const CVFileNode::List children = next.node->children();
        for (auto child = children.rbegin(); child != children.rend(); ++child) {
            const QByteArray name = lastComponent(sourceOf(**child));
            pending.push_back({*child, QByteArray(next.path + '/' + name), false});
        }
    }
    if (problems.count > 0)
        return problems.error();
    return {};
}

void CVPackingTree::leaveOut(const QString &path)
{
    const QByteArray wanted = bytesOfFileName(path);
    struct stat facts;
    if (::lstat(wanted.constData(), &facts) != 0)
        return;
    const Identity identity{facts.st_dev, facts.st_ino};
    const QByteArray folder = resolved(folderOf(wanted));
    QByteArray out;
    std::erase_if(m_items, [&](const Item &item) {
        // In pre-order everything below comes right behind.
        if (!out.isEmpty() && item.path.startsWith(out))
            return true;
        if (item.given || item.identity != identity)
            return false;
        const QByteArray source = sourceOf(*item.node);
        // Its other hard links are other items.
        if (lastComponent(source) != lastComponent(wanted) || resolved(folderOf(source)) != folder)
            return false;
        out = item.path + '/';
        m_skipped.push_back(
            {fileNameFromBytes(item.path), tr("It is the archive that the new one replaces."), {}});
        return true;
    });
}

bool CVPackingTree::isInputOrAbove(const QString &path) const
{
    const QByteArray place = placeOf(bytesOfFileName(path));
    return std::ranges::any_of(m_items, [&](const Item &item) {
        return item.given && placeOf(sourceOf(*item.node)).startsWith(place);
    });
}

// 0, an errno, or ECANCELED.
int CVPackingTree::put(Item &item)
{
    const QByteArray source = sourceOf(*item.node);
    if (item.kind == Kind::Folder)
        return ::mkdirat(m_folder.get(), item.path.constData(), 0700) == 0 ? 0 : errno;

    struct stat facts;
    if (::linkat(AT_FDCWD, source.constData(), m_folder.get(), item.path.constData(), 0) == 0) {
        if (::fstatat(m_folder.get(), item.path.constData(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
            return errno;
        const bool isStillTheSame = item.kind == Kind::Link ? S_ISLNK(facts.st_mode) : S_ISREG(facts.st_mode);
        if (!isStillTheSame)
            return ESTALE;
        item.identity = {facts.st_dev, facts.st_ino};
        item.state = stateOf(facts);
        item.isLinked = true;
        return 0;
    }
    const int refused = errno;
    if (refused == ENOENT || isAboutWriting(refused))
        return refused;
    if (item.kind == Kind::Link)
        return copySymlink(source, m_folder.get(), item.path);
    if (item.hasSeveralNames) {
        const auto first = m_copies.find(item.identity);
        if (first != m_copies.end() && ::linkat(m_folder.get(), first->second.constData(), m_folder.get(),
                                                item.path.constData(), 0) == 0)
            return 0;
    }
    const LXCopyOutcome copied = copyFile(source, m_folder.get(), item.path, m_stop);
    item.isChanged = copied.changed;
    if (copied.failure == 0 && item.hasSeveralNames)
        m_copies.emplace(item.identity, item.path);
    return copied.failure;
}

LXError CVPackingTree::linkError(const Item &item, int failure)
{
    const QByteArray source = sourceOf(*item.node);
    if (isAboutWriting(failure))
        m_systemError = failure;
    LXError error = CVOperationHelper::errorWithMessage(
        tr("“%1” could not be packed.").arg(shown(source)),
        failure == ENOENT   ? tr("It does not exist any more.")
        : failure == ESTALE ? tr("It was replaced by something else meanwhile.")
                            : systemText(failure));
    error.suggestion = tr("Please try again.");
    return error;
}

LXResult<void> CVPackingTree::linkInto(const QString &folder, const std::function<void()> &itemDone)
{
    m_folder =
        LXFileDescriptor(::open(bytesOfFileName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_folder.isOpen()) {
        const int failure = errno;
        return CVOperationHelper::errorWithMessage(
            tr("“%1” could not be opened.").arg(LXDisplay::displayName(folder)), systemText(failure));
    }
    for (Item &item : m_items) {
        if (m_stop.stop_requested())
            return {};
        const int failure = put(item);
        if (failure == ECANCELED)
            return {};
        if (failure != 0)
            return linkError(item, failure);
        itemDone();
    }
    m_copies.clear();
    return {};
}

LXResult<void> CVPackingTree::applyFolderAttributes()
{
    // From the deepest up: a folder may close itself even to us.
    for (auto item = m_items.rbegin(); item != m_items.rend(); ++item) {
        if (item->kind != Kind::Folder)
            continue;
        const int failure = copyAttributes(m_folderFacts[item->facts], m_folder.get(), item->path);
        if (failure != 0)
            return linkError(*item, failure);
    }
    return {};
}

bool CVPackingTree::hasChanged(const Item &item) const
{
    if (item.isChanged)
        return true;
    if (!item.isLinked || item.kind != Kind::File)
        return false;
    struct stat now;
    // Where a smaller file has taken its place here, its own one still tells.
    if (::fstatat(m_folder.get(), item.path.constData(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
        Identity{now.st_dev, now.st_ino} != item.identity) {
        if (::lstat(sourceOf(*item.node).constData(), &now) != 0 ||
            Identity{now.st_dev, now.st_ino} != item.identity)
            return false; // another file under the same name; what we packed was the old one, whole
    }
    return stateOf(now) != item.state;
}

QStringList CVPackingTree::changedFiles() const
{
    QStringList changed;
    for (const Item &item : m_items) {
        if (hasChanged(item))
            changed.append(fileNameFromBytes(item.path));
    }
    return changed;
}

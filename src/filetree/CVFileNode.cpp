#include "filetree/CVFileNode.h"

#include "util/LXBytesValueTransformer.h"
#include "util/LXCopyFile.h"
#include "util/LXFileName.h"
#include "util/LXFileWrapper.h"
#include "util/LXLog.h"
#include "util/LXRename.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcFileTree, "corvane.filetree", QtInfoMsg)

QStringView lastComponent(const QString &path)
{
    QStringView view(path);
    while (view.size() > 1 && view.endsWith(u'/'))
        view.chop(1);
    return view.size() > 1 ? view.mid(view.lastIndexOf(u'/') + 1) : view;
}

QByteArray bytesOfItem(const QString &path)
{
    QByteArray bytes = bytesOfFileName(path);
    while (bytes.size() > 1 && bytes.endsWith('/'))
        bytes.chop(1);
    return bytes;
}

struct DirClose
{
    void operator()(DIR *dir) const noexcept { ::closedir(dir); }
};

// Nothing where it cannot be told, and errno says why.
std::optional<bool> isFolderEntry(DIR *dir, const dirent &entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat facts;
    if (::fstatat(::dirfd(dir), entry.d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return S_ISDIR(facts.st_mode);
}

// With those above it that are missing.
void makeFolders(const QByteArray &path)
{
    for (qsizetype slash = 0; slash >= 0;) {
        slash = path.indexOf('/', slash + 1);
        ::mkdir((slash < 0 ? path : path.first(slash)).constData(), 0777);
    }
}

// Hard link or copy; 0 or an errno. A link is never followed: what it points to may be far larger, or gone.
int linkOrCopy(const QByteArray &from, const QByteArray &to)
{
    if (::link(from.constData(), to.constData()) == 0)
        return 0;
    struct stat facts;
    if (::lstat(from.constData(), &facts) != 0)
        return errno;
    return S_ISLNK(facts.st_mode) ? copySymlink(from, AT_FDCWD, to) : copyFile(from, AT_FDCWD, to).failure;
}

} // namespace

bool isMacHiddenFile(const QString &name)
{
    const QStringView last = lastComponent(name);
    return last.startsWith("._"_L1) || last == ".DS_Store"_L1 || last == ".localized"_L1 ||
           last == ".hidden"_L1 || last == ".Spotlight-V100"_L1;
}

CVFileNode::Pointer CVFileNode::create()
{
    return std::make_shared<CVFileNode>(Key());
}

CVFileNode::Pointer CVFileNode::create(const QString &filename)
{
    auto node = create();
    node->m_filename = filename;
    return node;
}

CVFileNode::Pointer CVFileNode::create(const QString &previewName, bool isFolder, std::optional<qint64> size)
{
    auto node = create(previewName);
    node->m_isPreview = true;
    node->m_isPreviewableFolder = isFolder;
    node->m_previewedFileSize = size.value_or(-1);
    return node;
}

CVFileNode::Pointer CVFileNode::previewRegularFileNodeWithFilename(const QString &name,
                                                                   std::optional<qint64> size)
{
    return create(name, false, size);
}

CVFileNode::Pointer CVFileNode::previewDirectoryNodeWithFilename(const QString &name)
{
    return create(name, true, 0);
}

CVFileNode::Pointer CVFileNode::buildFromFile(const QString &name, const std::stop_token &stop)
{
    auto top = create(name);
    List folders;
    struct stat facts;
    if (::lstat(bytesOfItem(name).constData(), &facts) != 0)
        top->m_isIncomplete = errno != ENOENT && errno != ENOTDIR;
    else if (S_ISDIR(facts.st_mode))
        folders.push_back(top);
    while (!folders.empty() && !stop.stop_requested()) {
        const auto folder = std::move(folders.back());
        folders.pop_back();
        const QByteArray path = bytesOfItem(folder->m_filename);
        const std::unique_ptr<DIR, DirClose> dir(::opendir(path.constData()));
        const QByteArray prefix = path.endsWith('/') ? path : path + '/';
        errno = 0;
        while (const dirent *entry = dir ? ::readdir(dir.get()) : nullptr) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            auto child = create(fileNameFromBytes(QByteArray(prefix + entry->d_name)));
            const std::optional<bool> isFolder = isFolderEntry(dir.get(), *entry);
            child->m_isIncomplete = !isFolder && errno != ENOENT; // else a folder would be packed empty
            if (isFolder.value_or(false))
                folders.push_back(child);
            folder->appendChild(std::move(child));
            errno = 0;
        }
        folder->m_isIncomplete = !dir || errno != 0;
    }
    return top;
}

CVFileNode::~CVFileNode()
{
    // A chain of thousands of folders would overflow the stack if every level destroyed the next.
    List pending = std::move(m_children);
    while (!pending.empty()) {
        const auto node = std::move(pending.back());
        pending.pop_back();
        if (node.use_count() == 1) {
            std::ranges::move(node->m_children, std::back_inserter(pending));
            node->m_children.clear();
        }
    }
}

std::optional<qint64> CVFileNode::previewedFileSize() const
{
    return m_previewedFileSize < 0 ? std::nullopt : std::optional(m_previewedFileSize);
}

bool CVFileNode::isDirectory() const
{
    return m_isPreview ? m_isPreviewableFolder : LXFileWrapper(m_filename).isDirectory();
}

bool CVFileNode::isSymbolicLink() const
{
    return !m_isPreview && LXFileWrapper(m_filename).isSymbolicLink();
}

bool CVFileNode::isPackage() const
{
    return !m_isPreview && LXFileWrapper(m_filename).isPackage();
}

void CVFileNode::setTreatAppBundlesAsFiles(bool asFiles)
{
    std::vector<CVFileNode *> pending{this};
    while (!pending.empty()) {
        CVFileNode *node = pending.back();
        pending.pop_back();
        node->m_treatAppBundlesAsFiles = asFiles;
        for (const auto &child : node->m_children)
            pending.push_back(child.get());
    }
}

void CVFileNode::setIgnoreMacHiddenFiles(bool ignore)
{
    std::vector<CVFileNode *> pending{this};
    while (!pending.empty()) {
        CVFileNode *node = pending.back();
        pending.pop_back();
        node->m_ignoreMacHiddenFiles = ignore;
        for (const auto &child : node->m_children)
            pending.push_back(child.get());
    }
}

bool CVFileNode::hidesChildren() const
{
    return m_treatAppBundlesAsFiles && !m_filename.isNull() && isPackage();
}

bool CVFileNode::isVisible(const CVFileNode &child) const
{
    return m_isPreview || !m_ignoreMacHiddenFiles || !isMacHiddenFile(child.m_filename);
}

CVFileNode::List CVFileNode::children() const
{
    List visible;
    if (hidesChildren())
        return visible;
    visible.reserve(m_children.size());
    std::ranges::copy_if(m_children, std::back_inserter(visible),
                         [this](const Pointer &child) { return isVisible(*child); });
    return visible;
}

std::size_t CVFileNode::numberOfChildren() const
{
    if (hidesChildren())
        return 0;
    return static_cast<std::size_t>(
        std::ranges::count_if(m_children, [this](const Pointer &child) { return isVisible(*child); }));
}

bool CVFileNode::isLeaf() const
{
    // Asked for every row on the screen, so it must not look at all the children.
    return isRoot() || hidesChildren() ||
           std::ranges::none_of(m_children, [this](const Pointer &child) { return isVisible(*child); });
}

std::size_t CVFileNode::count() const
{
    std::size_t total = 0;
    std::vector<const CVFileNode *> pending{this};
    while (!pending.empty()) {
        const CVFileNode *node = pending.back();
        pending.pop_back();
        ++total;
        if (node->hidesChildren())
            continue;
        for (const auto &child : node->m_children) {
            if (node->isVisible(*child))
                pending.push_back(child.get());
        }
    }
    return total;
}

CVFileNode::List CVFileNode::preorder() const
{
    List order;
    // The tree is only read; shared ownership of this node needs the cast.
    List pending{std::const_pointer_cast<CVFileNode>(shared_from_this())};
    while (!pending.empty()) {
        const Pointer node = std::move(pending.back());
        pending.pop_back();
        const CVFileNode &current = *node;
        order.push_back(node);
        if (current.hidesChildren())
            continue;
        for (auto child = current.m_children.rbegin(); child != current.m_children.rend(); ++child) {
            if (current.isVisible(**child))
                pending.push_back(*child);
        }
    }
    return order;
}

void CVFileNode::appendChild(Pointer child)
{
    child->m_parent = weak_from_this();
    m_children.push_back(std::move(child));
}

void CVFileNode::removeChild(const Pointer &child)
{
    const auto found = std::ranges::find(m_children, child);
    if (found == m_children.end())
        return;
    const Pointer removed = *found;
    m_children.erase(found);
    removed->m_parent.reset();
}

void CVFileNode::removeNode(const Pointer &node)
{
    // A node has one parent, so the way up answers whether it is below this one without a search.
    const Pointer holder = node ? node->parent() : nullptr;
    Pointer above = holder;
    while (above && above.get() != this)
        above = above->parent();
    if (above)
        holder->removeChild(node);
}

void CVFileNode::removeAllChildren()
{
    const List removed = std::exchange(m_children, {});
    for (const auto &child : removed)
        child->m_parent.reset();
}

QString CVFileNode::target() const
{
    return lastComponent(m_filename).toString();
}

QString CVFileNode::path() const
{
    std::vector<QString> targets;
    Pointer above = parent();
    for (const CVFileNode *node = this; above; node = above.get(), above = node->parent())
        targets.push_back(node->target());
    QString joined;
    for (auto target = targets.rbegin(); target != targets.rend(); ++target) {
        if (!joined.isEmpty())
            joined += u'/';
        joined += *target;
    }
    return joined;
}

QString CVFileNode::formattedTarget() const
{
    QString name = target();
    if (name.endsWith(".app"_L1, Qt::CaseInsensitive) && (m_isPreview ? m_isPreviewableFolder : isPackage()))
        name.chop(4);
    return name;
}

QString CVFileNode::formattedFileSize() const
{
    if (!m_isPreview)
        return LXFileWrapper(m_filename).fileSize();
    return m_isPreviewableFolder
               ? u"--"_s
               : LXBytesValueTransformer::formatBytes(std::max<qint64>(m_previewedFileSize, 0));
}

void CVFileNode::copyToPath(const QString &folder) const
{
    const QString destination = folder + u'/' + path();
    if (isDirectory()) {
        makeFolders(bytesOfFileName(destination));
        return;
    }
    if (const int failure = linkOrCopy(bytesOfItem(m_filename), bytesOfFileName(destination))) {
        LX_WARNING(lcFileTree, "ERROR copying %s to %s: %s", qUtf8Printable(m_filename),
                   qUtf8Printable(destination), std::strerror(failure));
    }
}

void CVFileNode::moveToPath(const QString &folder) const
{
    const QString destination = folder + u'/' + path();
    (void)renameWithoutReplacing(bytesOfItem(m_filename), bytesOfFileName(destination));
}

QString CVFileNode::description() const
{
    const auto text = isRoot() ? "[root node %1]"_L1 : isLeaf() ? "[leaf node %1]"_L1 : "[node %1]"_L1;
    return QString(text).arg(m_filename);
}

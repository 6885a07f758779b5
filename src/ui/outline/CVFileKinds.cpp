#include "ui/outline/CVFileKinds.h"

#include "filetree/CVFileNode.h"
#include "util/LXBackground.h"
#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QHash>
#include <QMimeDatabase>

#include <algorithm>
#include <mutex>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// More suffixes than that in one archive are not suffixes.
constexpr qsizetype mostRemembered = 4096;

std::mutex mutex;
QHash<QString, QMimeType> &typesBySuffix()
{
    static QHash<QString, QMimeType> types;
    return types;
}

// What of the name decides: the suffix with a "tar" before it, else the whole name ("Makefile").
QString decidingPart(QStringView name)
{
    qsizetype dot = name.lastIndexOf(u'.');
    if (dot <= 0)
        return name.toString();
    constexpr QStringView tar(u".tar");
    if (dot > tar.size() && name.mid(dot - tar.size(), tar.size()).compare(tar, Qt::CaseInsensitive) == 0)
        dot -= tar.size();
    return u'x' + name.mid(dot).toString();
}

QMimeType typeOf(QStringView name)
{
    const QString key = decidingPart(name);
    {
        const std::lock_guard lock(mutex);
        if (const auto known = typesBySuffix().constFind(key); known != typesBySuffix().cend())
            return *known;
    }
    const QMimeType type = QMimeDatabase().mimeTypeForFile(key, QMimeDatabase::MatchExtension);
    const std::lock_guard lock(mutex);
    if (typesBySuffix().size() >= mostRemembered)
        typesBySuffix().clear();
    typesBySuffix().insert(key, type);
    return type;
}

} // namespace

void CVFileKinds::prepare()
{
    static std::once_flag once;
    std::call_once(once, [] { runInBackground([] { typeOf(u"a.txt"); }); });
}

QString CVFileKinds::kind(QStringView name, bool isFolder)
{
    if (isFolder)
        return QCoreApplication::translate("CVFileKinds", "Folder");
    const QMimeType type = typeOf(name);
    if (type.isDefault() || !type.isValid())
        return QCoreApplication::translate("CVFileKinds", "File");
    QString comment = type.comment();
    if (!comment.isEmpty())
        comment[0] = comment.at(0).toUpper();
    return comment;
}

QStringView fileNodeName(const CVFileNode &node)
{
    QStringView name(node.filename());
    while (name.size() > 1 && name.endsWith(u'/'))
        name.chop(1);
    return name.size() > 1 ? name.mid(name.lastIndexOf(u'/') + 1) : name;
}

bool isFolderNode(const CVFileNode &node)
{
    if (node.isPreview())
        return node.isPreviewableFolder();
    // An archive has entries below it and is a file all the same.
    if (const CVFileNode::List &below = node.mutableChildrenArray(); !below.empty())
        return !below.front()->isPreview();
    return node.isIncomplete() || node.isDirectory();
}

bool isExpandableNode(const CVFileNode &node)
{
    if (node.isPreview() || node.mutableChildrenArray().empty())
        return !node.mutableChildrenArray().empty();
    return !node.isLeaf();
}

std::optional<qint64> fileNodeSize(const CVFileNode &node)
{
    if (node.isPreview())
        return node.isPreviewableFolder() ? std::nullopt : node.previewedFileSize();
    struct stat facts;
    if (::lstat(bytesOfFileName(node.filename()).constData(), &facts) != 0 || S_ISDIR(facts.st_mode))
        return std::nullopt;
    return facts.st_size;
}

#include "CorpusTree.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonObject>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray cleanPath(const QByteArray &path)
{
    QByteArray result;
    for (const QByteArray &component : path.split('/')) {
        if (component.isEmpty() || component == ".")
            continue;
        if (!result.isEmpty())
            result += '/';
        result += component;
    }
    return result;
}

QByteArray sha256OfFile(const QByteArray &path)
{
    QFile file(QFile::decodeName(path));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return "unreadable";
    return hash.result().toHex();
}

void readFolder(const QByteArray &root, const QByteArray &relative, const QStringList &leaveOut,
                CorpusTree &tree)
{
    const QByteArray here = relative.isEmpty() ? root : root + '/' + relative;
    DIR *folder = opendir(here.constData());
    if (!folder)
        return;
    while (const dirent *item = readdir(folder)) {
        const QByteArray name = item->d_name;
        if (name == "." || name == ".." || (relative.isEmpty() && leaveOut.contains(QFile::decodeName(name))))
            continue;
        const QByteArray path = relative.isEmpty() ? name : relative + '/' + name;
        const QByteArray full = root + '/' + path;
        struct stat info = {};
        if (lstat(full.constData(), &info) != 0)
            continue;
        CorpusNode node;
        node.mode = info.st_mode;
        node.inode = info.st_ino;
        node.changedNs = info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec;
        if (S_ISREG(info.st_mode)) {
            node.size = info.st_size;
            node.sha256 = sha256OfFile(full);
        } else if (S_ISDIR(info.st_mode)) {
            node.type = CorpusNode::Type::Directory;
        } else if (S_ISLNK(info.st_mode)) {
            node.type = CorpusNode::Type::Symlink;
            node.target.resize(info.st_size + 1);
            node.target.resize(
                std::max<ssize_t>(0, readlink(full.constData(), node.target.data(), node.target.size())));
        } else {
            node.type = CorpusNode::Type::Other;
        }
        tree[path] = node;
        if (node.type == CorpusNode::Type::Directory)
            readFolder(root, path, leaveOut, tree);
    }
    closedir(folder);
}

const char *typeName(CorpusNode::Type type)
{
    switch (type) {
    case CorpusNode::Type::File:
        return "file";
    case CorpusNode::Type::Directory:
        return "folder";
    case CorpusNode::Type::Symlink:
        return "link";
    case CorpusNode::Type::Other:
        break;
    }
    return "special";
}

} // namespace

CorpusTree corpusTreeFromEntries(const QJsonArray &entries)
{
    CorpusTree tree;
    for (const auto &value : entries) {
        const QJsonObject entry = value.toObject();
        const QByteArray path = cleanPath(entry.contains("path_hex")
                                              ? QByteArray::fromHex(entry["path_hex"].toString().toLatin1())
                                              : entry["path"].toString().toUtf8());
        if (path.isEmpty())
            continue;
        for (qsizetype slash = path.indexOf('/'); slash > 0; slash = path.indexOf('/', slash + 1)) {
            CorpusNode folder;
            folder.type = CorpusNode::Type::Directory;
            folder.implied = true;
            tree.try_emplace(path.left(slash), folder);
        }
        CorpusNode node;
        const QString type = entry["type"].toString();
        node.type = type == "dir"       ? CorpusNode::Type::Directory
                    : type == "symlink" ? CorpusNode::Type::Symlink
                    : type == "file"    ? CorpusNode::Type::File
                                        : CorpusNode::Type::Other;
        node.implied = entry["implicit"].toBool();
        if (node.type == CorpusNode::Type::File) {
            if (entry["size"].isDouble())
                node.size = entry["size"].toInteger();
            node.sha256 = entry["sha256"].toString().toLatin1();
        }
        node.target = entry["target"].toString().toUtf8();
        tree[path] = node;
    }
    return tree;
}

CorpusTree corpusTreeFromDisk(const QString &folder, const QStringList &leaveOut)
{
    CorpusTree tree;
    readFolder(QFile::encodeName(folder), {}, leaveOut, tree);
    return tree;
}

CorpusTree corpusTreeBelow(const CorpusTree &tree, const QByteArray &folder)
{
    CorpusTree result;
    CorpusNode top;
    top.type = CorpusNode::Type::Directory;
    result[folder] = top;
    for (const auto &[path, node] : tree)
        result[folder + '/' + path] = node;
    return result;
}

QList<QByteArray> corpusTopLevel(const CorpusTree &tree)
{
    QList<QByteArray> names;
    for (const auto &[path, node] : tree)
        if (!path.contains('/'))
            names.append(path);
    return names;
}

QStringList corpusDifferences(const CorpusTree &expected, const CorpusTree &actual)
{
    QStringList found;
    const auto say = [&found](const QByteArray &path, const QString &what) {
        found.append(QString::fromUtf8(path) + ": " + what);
    };
    for (const auto &[path, want] : expected) {
        const auto it = actual.find(path);
        if (it == actual.end()) {
            if (!want.implied)
                say(path, "missing");
            continue;
        }
        const CorpusNode &have = it->second;
        if (have.type != want.type)
            say(path, QString("is a %1, not a %2").arg(typeName(have.type), typeName(want.type)));
        else if (want.type == CorpusNode::Type::Symlink && !want.target.isEmpty() &&
                 have.target != want.target)
            say(path, QString("leads to %1, not to %2")
                          .arg(QString::fromUtf8(have.target), QString::fromUtf8(want.target)));
        else if (want.size && have.size && *want.size != *have.size)
            say(path, QString("has %1 bytes, not %2").arg(*have.size).arg(*want.size));
        else if (!want.sha256.isEmpty() && !have.sha256.isEmpty() && have.sha256 != want.sha256)
            say(path, "has other contents");
    }
    for (const auto &[path, have] : actual)
        if (!have.implied && !expected.contains(path))
            say(path, "is not in the archive");
    return found;
}

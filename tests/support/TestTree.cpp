#include "support/TestTree.h"

#include "util/LXFileName.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonObject>

#include <dirent.h>
#include <fcntl.h>
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
    QFile file;
    QCryptographicHash hash(QCryptographicHash::Sha256);
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || !file.open(fd, QIODevice::ReadOnly, QFile::AutoCloseHandle) || !hash.addData(&file))
        return "unreadable";
    return hash.result().toHex();
}

void readFolder(const QByteArray &root, const QByteArray &relative, const QStringList &leaveOut,
                TestTree &tree)
{
    const QByteArray here = relative.isEmpty() ? root : root + '/' + relative;
    DIR *folder = opendir(here.constData());
    if (!folder)
        return;
    while (const dirent *item = readdir(folder)) {
        const QByteArray name = item->d_name;
        if (name == "." || name == ".." || (relative.isEmpty() && leaveOut.contains(fileNameFromBytes(name))))
            continue;
        const QByteArray path = relative.isEmpty() ? name : relative + '/' + name;
        const QByteArray full = root + '/' + path;
        struct stat info = {};
        if (lstat(full.constData(), &info) != 0)
            continue;
        TestNode node;
        node.mode = info.st_mode;
        node.inode = info.st_ino;
        node.changedNs = info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec;
        if (S_ISREG(info.st_mode)) {
            node.size = info.st_size;
            node.sha256 = sha256OfFile(full);
        } else if (S_ISDIR(info.st_mode)) {
            node.type = TestNode::Type::Directory;
        } else if (S_ISLNK(info.st_mode)) {
            node.type = TestNode::Type::Symlink;
            node.target.resize(info.st_size + 1);
            node.target.resize(
                std::max<ssize_t>(0, readlink(full.constData(), node.target.data(), node.target.size())));
        } else {
            node.type = TestNode::Type::Other;
        }
        tree[path] = node;
        if (node.type == TestNode::Type::Directory)
            readFolder(root, path, leaveOut, tree);
    }
    closedir(folder);
}

const char *typeName(TestNode::Type type)
{
    switch (type) {
    case TestNode::Type::File:
        return "file";
    case TestNode::Type::Directory:
        return "folder";
    case TestNode::Type::Symlink:
        return "link";
    case TestNode::Type::Other:
        break;
    }
    return "special";
}

} // namespace

TestTree treeFromEntries(const QJsonArray &entries)
{
    TestTree tree;
    for (const auto &value : entries) {
        const QJsonObject entry = value.toObject();
        const QByteArray path = cleanPath(entry.contains("path_hex")
                                              ? QByteArray::fromHex(entry["path_hex"].toString().toLatin1())
                                              : entry["path"].toString().toUtf8());
        if (path.isEmpty())
            continue;
        for (qsizetype slash = path.indexOf('/'); slash > 0; slash = path.indexOf('/', slash + 1)) {
            TestNode folder;
            folder.type = TestNode::Type::Directory;
            folder.implied = true;
            tree.try_emplace(path.left(slash), folder);
        }
        TestNode node;
        const QString type = entry["type"].toString();
        node.type = type == "dir"       ? TestNode::Type::Directory
                    : type == "symlink" ? TestNode::Type::Symlink
                    : type == "file"    ? TestNode::Type::File
                                        : TestNode::Type::Other;
        node.implied = entry["implicit"].toBool();
        if (node.type == TestNode::Type::File) {
            if (entry["size"].isDouble())
                node.size = entry["size"].toInteger();
            node.sha256 = entry["sha256"].toString().toLatin1();
        }
        node.target = entry["target"].toString().toUtf8();
        tree[path] = node;
    }
    return tree;
}

TestTree treeFromDisk(const QString &folder, const QStringList &leaveOut)
{
    TestTree tree;
    readFolder(bytesOfFileName(folder), {}, leaveOut, tree);
    return tree;
}

TestTree treeBelow(const TestTree &tree, const QByteArray &folder)
{
    TestTree result;
    TestNode top;
    top.type = TestNode::Type::Directory;
    result[folder] = top;
    for (const auto &[path, node] : tree)
        result[folder + '/' + path] = node;
    return result;
}

QList<QByteArray> treeTopLevel(const TestTree &tree)
{
    QList<QByteArray> names;
    for (const auto &[path, node] : tree)
        if (!path.contains('/'))
            names.append(path);
    return names;
}

QStringList treeDifferences(const TestTree &expected, const TestTree &actual)
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
        const TestNode &have = it->second;
        if (have.type != want.type)
            say(path, QString("is a %1, not a %2").arg(typeName(have.type), typeName(want.type)));
        else if (want.type == TestNode::Type::Symlink && !want.target.isEmpty() && !have.target.isEmpty() &&
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

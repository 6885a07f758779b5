#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>

/// What lies at one path.
struct TestNode
{
    enum class Type { File, Directory, Symlink, Other };
    Type type = Type::File;
    std::optional<qint64> size = {};
    QByteArray sha256 = {}; ///< hexadecimal; empty when not known
    QByteArray target = {}; ///< of a symbolic link
    bool implied = false;   ///< a folder that only follows from the paths below it
    unsigned mode = 0;      ///< as in stat, of what is on the disk
    quint64 inode = 0;
    qint64 changedNs = 0; ///< modification time
};

/// Files, folders and links by their path, components joined by "/", as bytes.
using TestTree = std::map<QByteArray, TestNode>;

/// The tree that the "entries" of a manifest or of a listing describe. Leading "/" and "./" are taken
/// off, folders above an entry are added as implied ones, later entries of one name win.
TestTree treeFromEntries(const QJsonArray &entries);

/// What is below `folder`, links not followed. `leaveOut`: names directly below it that are not looked at.
TestTree treeFromDisk(const QString &folder, const QStringList &leaveOut = {});

/// Puts everything under one folder.
TestTree treeBelow(const TestTree &tree, const QByteArray &folder);

/// The names directly at the top.
QList<QByteArray> treeTopLevel(const TestTree &tree);

/// Every difference of `actual` from `expected` in words; none when they agree. Contents, sizes and
/// link targets count where both are known, implied folders may be there or not.
QStringList treeDifferences(const TestTree &expected, const TestTree &actual);

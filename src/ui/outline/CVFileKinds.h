#pragma once

#include <QString>
#include <QStringView>

#include <optional>

class CVFileNode;

/// Words for kinds of files, judged by the name alone and remembered by suffix, so that a
/// million names cost as many look-ups as there are suffixes.
namespace CVFileKinds {

/// Starts to load the desktop's list of kinds, which takes a while the first time. Any thread, returns at
/// once.
void prepare();
/// "PNG image", "Folder", … for people. Any thread.
QString kind(QStringView name, bool isFolder);

} // namespace CVFileKinds

/// Last component of the node's name, without a copy; lives as long as the node's name.
QStringView fileNodeName(const CVFileNode &node);
/// Of an archive: as it says; on disk: has something in it, or is a folder when looked at.
bool isFolderNode(const CVFileNode &node);
/// Has something below that is shown. Constant time for entries of archives.
bool isExpandableNode(const CVFileNode &node);
/// Bytes; nothing for folders and where not known. Looks at the disk for files on disk.
std::optional<qint64> fileNodeSize(const CVFileNode &node);

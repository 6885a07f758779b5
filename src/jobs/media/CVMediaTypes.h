#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>

/// What the numbers mean by which a person chooses how media are made smaller, and which files they
/// are about. Without any codec, so that the program itself can ask. Pure; any thread.
namespace CVMediaTypes {

/// What sound is written as where the number means nothing: all bits set.
constexpr std::uint32_t noFormat = 0xffffffff;

/// The codec, as four characters: "aac ".
std::uint32_t audioCodec(int type);
/// The kind of file, as four characters: "m4af".
std::uint32_t audioContainer(int type);
QString audioExtension(int type);
/// Bits a second; 0 where the number means nothing.
int audioBitRate(int type);

/// Null where the number means nothing.
QString imageExtension(int type);
/// From 0 to 1; -1 where none is set.
double imageQuality(int type);

/// Extensions of the images that we read, in lower case and in upper case.
const QStringList &imageFileTypes();

enum class Kind { None, Audio, Image };

/// Whether and as what a file is converted. `path`: relative to the folder that is walked; all of it
/// counts for sound, so that a file in "My.audiobooks" counts too.
Kind kindOfFile(const QByteArray &path, int imageType, int audioType);

/// The extension without its dot; empty for ".hidden".
QByteArray extensionOfName(const QByteArray &name);

/// The name with another extension, for counters from 2 on as "a 2.m4a"; cut to what a file system takes.
QByteArray nameWithExtension(const QByteArray &name, const QByteArray &extension, qint64 counter = 1);

} // namespace CVMediaTypes

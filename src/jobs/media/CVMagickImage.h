#pragma once

#include "jobs/media/CVPicture.h"

/// The part of CVPicture that goes through ImageMagick. Formats are always named, never guessed by it,
/// so that none of its formats that start programs or read other files can be reached.
namespace CVMagickImage {

/// Its name of the format that the file begins like; null where it is none that is read this way.
const char *formatOf(int descriptor, const QByteArray &extension);

LXResult<CVPicture> read(const QByteArray &path, const char *format);

/// "tga", "sgi", "psd", "gif", "jp2" or "exr". `profile`: of the pixels, may be empty.
LXResult<void> write(const QImage &pixels, const QByteArray &path, const QByteArray &extension,
                     const QByteArray &profile);

} // namespace CVMagickImage

#pragma once

#include "jobs/media/CVImageTags.h"
#include "util/LXResult.h"

#include <QByteArray>
#include <QImage>

/// The first image of a file, with what belongs to it.
struct CVPicture
{
    QImage pixels;
    CVImageTags tags;
    bool isUpright = false; ///< the reader turned the pixels already
};

/// More pixels than this are taken for an attempt on our memory: twice what the largest cameras make.
constexpr qint64 pictureMaximumPixels = 260'000'000;

/// An error with the given reason.
LXError pictureError(const QString &reason);

/// Reads with Qt what Qt reads, and the rest with ImageMagick.
/// `path`: one without surprises in its name; `extension`: lower-case, a hint for formats without a mark.
LXResult<CVPicture> readPicture(int descriptor, const QByteArray &path, const QByteArray &extension);

/// Writes the image of the given type ("jpg", …) into the empty file. `quality` from 0 to 1, or -1.
/// The descriptor stays open.
LXResult<void> writePicture(CVPicture picture, int descriptor, const QByteArray &path,
                            const QByteArray &extension, double quality);

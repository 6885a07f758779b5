#pragma once

#include "jobs/media/CVMediaReplacement.h"

#include <QString>
#include <QStringList>

/// Writes one image in another format, in place of the file that it came from.
///
/// The first image of the file is taken. Its pixels are turned upright; the colour profile, Exif, IPTC
/// and XMP go along where the new format holds them, and where it holds no profile the colours are
/// converted to sRGB. Transparent images are put on white where the new format knows no transparency.
/// Thread: one at a time, in a process with a QGuiApplication, any platform plugin (it needs no display).
class CVImageFileConverter final
{
public:
    static QString imageFormatExtensionForType(int type);
    static double qualityForType(int type);
    static QStringList imageFileTypes();

    /// The file at the path gives way to one of the same name with the new extension; where that is
    /// taken by another file, "a 2.jpg" and so on. False leaves everything as it was; failureReason()
    /// says why.
    bool manipulateImageFile(const QString &path, int newFormat);

    /// The same for a file that is not open yet.
    bool manipulateImageFile(CVMediaReplacement &file, int newFormat);

    QString failureReason() const { return m_reason; }

    /// Without effect: one image takes no time worth stopping.
    void cancel() {}

private:
    bool fail(const QString &reason);

    QString m_reason;
};

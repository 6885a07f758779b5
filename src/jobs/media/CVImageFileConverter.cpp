#include "jobs/media/CVImageFileConverter.h"

#include "jobs/media/CVMediaTypes.h"
#include "jobs/media/CVPicture.h"

#include <exception>

QString CVImageFileConverter::imageFormatExtensionForType(int type)
{
    return CVMediaTypes::imageExtension(type);
}

double CVImageFileConverter::qualityForType(int type)
{
    return CVMediaTypes::imageQuality(type);
}

QStringList CVImageFileConverter::imageFileTypes()
{
    return CVMediaTypes::imageFileTypes();
}

bool CVImageFileConverter::fail(const QString &reason)
{
    m_reason = reason;
    return false;
}

bool CVImageFileConverter::manipulateImageFile(const QString &path, int newFormat)
{
    CVMediaReplacement file(path, imageFormatExtensionForType(newFormat));
    return manipulateImageFile(file, newFormat);
}

bool CVImageFileConverter::manipulateImageFile(CVMediaReplacement &file, int newFormat)
{
    m_reason.clear();
    const QByteArray extension = imageFormatExtensionForType(newFormat).toLatin1();
    if (extension.isEmpty())
        return fail(QStringLiteral("There is no image format %1.").arg(newFormat));
    if (const auto opened = file.open(); !opened)
        return fail(opened.error().reason);
    try {
        auto picture = readPicture(file.source(), file.sourcePath(), file.sourceExtension());
        if (!picture)
            return fail(picture.error().reason);
        if (const auto written = writePicture(std::move(picture).value(), file.output(), file.outputPath(),
                                              extension, qualityForType(newFormat));
            !written)
            return fail(written.error().reason);
    } catch (const std::exception &error) { // memory, for the most part
        return fail(QString::fromLocal8Bit(error.what()));
    }
    if (const auto done = file.commit(); !done)
        return fail(done.error().reason);
    return true;
}

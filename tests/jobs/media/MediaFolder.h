#pragma once

#include "jobs/media/CVMediaWalk.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// A folder with media in it. Names are bytes.
class MediaFolder
{
public:
    MediaFolder();
    ~MediaFolder();
    MediaFolder(const MediaFolder &) = delete;
    MediaFolder &operator=(const MediaFolder &) = delete;

    QString path() const { return m_folder.path(); }
    QString path(const char *name) const { return m_folder.filePath(QString::fromLatin1(name)); }

    void write(const QByteArray &name, const QByteArray &contents) const;
    QByteArray read(const QByteArray &name) const;
    void makeFolder(const QByteArray &name) const;
    bool has(const QByteArray &name) const;

    /// With ImageMagick: `convert <arguments> <name>`; false when it failed.
    bool image(const QString &arguments, const char *name) const;
    /// With FFmpeg: `ffmpeg <arguments> <name>`.
    bool sound(const QString &arguments, const char *name) const;
    /// `seconds` of two different tones.
    bool tone(int seconds, const char *name, const QString &more = {}) const;

    /// Everything beneath, files and folders, sorted.
    QList<QByteArray> names() const;

    CVMediaWalk::Result convert(int imageType, int audioType) const;

private:
    QTemporaryDir m_folder;
};

/// What the program prints, trimmed; null when it fails.
QByteArray outputOf(const QString &program, const QStringList &arguments);

/// `identify -format <format>` of the first image.
QByteArray identify(const QString &path, const QString &format);

/// Red, green, blue and opacity from 0 to 255, as seen in sRGB.
QList<int> colourAt(const QString &path, int x, int y);

/// One entry of a file, as ffprobe names it ("format=duration").
QByteArray probe(const QString &path, const QString &entry);

#include "jobs/media/MediaFolder.h"

#include "util/LXFileDescriptor.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <algorithm>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray at(const QTemporaryDir &folder, const QByteArray &name)
{
    return folder.path().toUtf8() + '/' + name;
}

void collect(const QByteArray &folder, const QByteArray &prefix, QList<QByteArray> &names)
{
    DIR *directory = ::opendir(folder.constData());
    if (!directory)
        return;
    while (const dirent *entry = ::readdir(directory)) {
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        names << prefix + name;
        if (entry->d_type == DT_DIR)
            collect(folder + '/' + name, prefix + name + '/', names);
    }
    ::closedir(directory);
}

} // namespace

MediaFolder::MediaFolder() = default;

MediaFolder::~MediaFolder()
{
    // QTemporaryDir cannot remove names that are no UTF-8.
    const LXFileDescriptor folder(::open(path().toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const QByteArray &name : names())
        if (!name.contains('/'))
            static_cast<void>(removeTreeAt(folder.get(), name));
}

void MediaFolder::write(const QByteArray &name, const QByteArray &contents) const
{
    const int descriptor = ::open(at(m_folder, name).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    QFile file;
    if (descriptor < 0 || !file.open(descriptor, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle) ||
        file.write(contents) != contents.size())
        qFatal("the test could not write %s", name.constData());
}

QByteArray MediaFolder::read(const QByteArray &name) const
{
    const int descriptor = ::open(at(m_folder, name).constData(), O_RDONLY);
    QFile file;
    if (descriptor < 0 || !file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        return {};
    return file.readAll();
}

void MediaFolder::makeFolder(const QByteArray &name) const
{
    ::mkdir(at(m_folder, name).constData(), 0755);
}

bool MediaFolder::has(const QByteArray &name) const
{
    return ::access(at(m_folder, name).constData(), F_OK) == 0;
}

bool MediaFolder::image(const QString &arguments, const char *name) const
{
    return !outputOf(QStringLiteral("convert"), QProcess::splitCommand(arguments) << path(name)).isNull();
}

bool MediaFolder::sound(const QString &arguments, const char *name) const
{
    const QStringList quiet{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")};
    return !outputOf(QStringLiteral("ffmpeg"), quiet + QProcess::splitCommand(arguments) << path(name))
                .isNull();
}

bool MediaFolder::tone(int seconds, const char *name, const QString &more) const
{
    const QString tones = QStringLiteral(
        "-f lavfi -i \"aevalsrc=0.4*sin(2764*t)+0.2*random(0)|0.4*sin(4100*t):s=44100:d=%1\" %2");
    return sound(tones.arg(seconds).arg(more), name);
}

QList<QByteArray> MediaFolder::names() const
{
    QList<QByteArray> names;
    collect(m_folder.path().toUtf8(), {}, names);
    std::sort(names.begin(), names.end());
    return names;
}

CVMediaWalk::Result MediaFolder::convert(int imageType, int audioType) const
{
    CVMediaWalk walk;
    walk.folder = m_folder.path();
    walk.imageFileFormat = imageType;
    walk.audioFileFormat = audioType;
    return walk.run();
}

QByteArray outputOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments, QIODevice::ReadOnly);
    if (!process.waitForFinished(60000) || process.exitCode() != 0) {
        qWarning() << program << arguments << process.readAllStandardError();
        return {};
    }
    const QByteArray output = process.readAllStandardOutput().trimmed();
    return output.isNull() ? QByteArray("") : output;
}

QByteArray identify(const QString &path, const QString &format)
{
    return outputOf(QStringLiteral("identify"),
                    {QStringLiteral("-format"), format, path + QStringLiteral("[0]")});
}

QList<int> colourAt(const QString &path, int x, int y)
{
    const auto part = QStringLiteral("%[fx:round(255*p{%1,%2}.%3)] ");
    QString format;
    for (const char *channel : {"r", "g", "b", "a"})
        format += part.arg(x).arg(y).arg(QLatin1String(channel));
    const QByteArray text =
        outputOf(QStringLiteral("convert"),
                 {path + QStringLiteral("[0]"), QStringLiteral("-colorspace"), QStringLiteral("sRGB"),
                  QStringLiteral("-format"), format, QStringLiteral("info:")});
    QList<int> colour;
    for (const QByteArray &number : text.split(' '))
        colour << number.toInt();
    return colour;
}

QByteArray probe(const QString &path, const QString &entry)
{
    return outputOf(QStringLiteral("ffprobe"),
                    {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"), entry,
                     QStringLiteral("-of"), QStringLiteral("default=nokey=1:noprint_wrappers=1"), path});
}

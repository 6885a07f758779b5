#pragma once

#include "util/LXFileName.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <QTemporaryDir>

/// A desktop of a test's own: folders for configuration and data in which one application is installed that
/// writes down what it is given, as the default one for folders and plain texts. To be made before anything
/// asks for those folders.
class ScratchDesktop
{
public:
    ScratchDesktop()
    {
        QDir(m_dir.path()).mkpath(QStringLiteral("data/applications"));
        QDir(m_dir.path()).mkpath(QStringLiteral("system"));
        QDir(m_dir.path()).mkpath(QStringLiteral("config"));
        // Types of files are those of the system, applications are not.
        QFile::link(QStringLiteral("/usr/share/mime"), m_dir.filePath(QStringLiteral("system/mime")));
        qputenv("HOME", m_dir.path().toUtf8());
        qputenv("XDG_DATA_HOME", m_dir.filePath(QStringLiteral("data")).toUtf8());
        qputenv("XDG_DATA_DIRS", m_dir.filePath(QStringLiteral("system")).toUtf8());
        qputenv("XDG_CONFIG_HOME", m_dir.filePath(QStringLiteral("config")).toUtf8());
        qputenv("XDG_CONFIG_DIRS", m_dir.filePath(QStringLiteral("config")).toUtf8());
        qputenv("XDG_RUNTIME_DIR", m_dir.path().toUtf8());
        qunsetenv("XDG_CURRENT_DESKTOP");

        write("recorder", "#!/bin/sh\nprintf '%s\\0' \"$@\" >>'" + log().toUtf8() + "'\n");
        QFile::setPermissions(m_dir.filePath(QStringLiteral("recorder")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        install("recorder", {"inode/directory", "text/plain"});
        install("other", {"application/zip", "application/vnd.rar"});
        write("config/mimeapps.list",
              "[Default Applications]\ninode/directory=recorder.desktop\ntext/plain=recorder.desktop\n");
    }

    /// Paths that the application was started with, in order.
    QStringList opened() const
    {
        QFile file(log());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        QStringList paths;
        for (const QByteArray &path : file.readAll().split('\0')) {
            if (!path.isEmpty())
                paths.append(fileNameFromBytes(path));
        }
        return paths;
    }
    void forget() { QFile::remove(log()); }

    /// Types are MIME types; without a command, the application writes down its files. Before the first
    /// question about applications.
    void install(const QByteArray &name, const QByteArrayList &types, QByteArray command = {})
    {
        if (command.isEmpty())
            command = m_dir.path().toUtf8() + "/recorder %F";
        write("data/applications/" + name + ".desktop", "[Desktop Entry]\nType=Application\nName=" + name +
                                                            "\nExec=" + command +
                                                            "\nMimeType=" + types.join(';') + ";\n");
        // What update-desktop-database would make of the entries.
        for (const QByteArray &type : types)
            m_cache += type + '=' + name + ".desktop;\n";
        write("data/applications/mimeinfo.cache", "[MIME Cache]\n" + m_cache);
    }
    void write(const QByteArray &name, const QByteArray &contents)
    {
        QFile file(m_dir.filePath(QString::fromUtf8(name)));
        if (file.open(QIODevice::WriteOnly))
            file.write(contents);
    }
    QString path() const { return m_dir.path(); }

private:
    QString log() const { return m_dir.filePath(QStringLiteral("opened")); }

    const QTemporaryDir m_dir;
    QByteArray m_cache;
};

#pragma once

#include <QString>

#include <stop_token>

#include <sys/stat.h>

/// Facts about one path on disk, looked up once, when it is made. Links are not followed.
/// Any thread; copies are independent.
class LXFileWrapper
{
public:
    static LXFileWrapper fileWrapperWithPath(const QString &path) { return LXFileWrapper(path); }
    explicit LXFileWrapper(const QString &path);

    const QString &path() const { return m_path; }
    bool exists() const { return m_exists; }
    /// Bytes. For a folder the sum over the regular files and links beneath it, found now by walking
    /// it (links are not followed): not for the main thread. 0 for what does not exist. A stop
    /// ends the walk with what it has found.
    qint64 fileSizeBytes(std::stop_token stop = {}) const;
    /// The same for display.
    QString fileSize() const;
    bool isDirectory() const { return m_exists && S_ISDIR(m_mode); }
    bool isSymbolicLink() const { return m_exists && S_ISLNK(m_mode); }
    /// A folder shown as one file: an application bundle, which is a folder named "….app".
    bool isPackage() const;

private:
    QString m_path;
    qint64 m_size = 0;
    mode_t m_mode = 0;
    bool m_exists = false;
};

#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QByteArray>
#include <QString>

#include <sys/stat.h>

/// One file that is to give way to its converted self.
///
/// The source is only ever read: it may be a hard link to a person's original. What is new is written
/// under a hidden name beside it and takes its place in one step, when it is whole; until then, and when
/// anything fails, the source stands and nothing else. Nothing that has the new name already is replaced,
/// but the source itself.
class CVMediaReplacement final
{
public:
    struct Names
    {
        QByteArray source;
        QByteArray target;    ///< where it is taken, the next free one is used
        QByteArray temporary; ///< in the same folder
    };

    /// Folder and names for a path and a new extension.
    CVMediaReplacement(const QString &path, const QString &newExtension);
    CVMediaReplacement(LXFileDescriptor folder, Names names);
    ~CVMediaReplacement();
    CVMediaReplacement(const CVMediaReplacement &) = delete;
    CVMediaReplacement &operator=(const CVMediaReplacement &) = delete;

    /// Opens both. Fails for what is no regular file or has no contents.
    LXResult<void> open();

    int source() const { return m_source.get(); }
    /// Lower-case, ASCII letters and digits only.
    QByteArray sourceExtension() const;
    /// For reading and writing.
    int output() const { return m_output.get(); }
    /// Paths for libraries that want one, free of whatever the names hold.
    QByteArray sourcePath() const;
    QByteArray outputPath() const;

    /// Gives the new file the source's permissions and time, its name, and removes the source.
    LXResult<void> commit();

    /// A folder below `root`, reached without following links; `path` may be empty or of any length.
    static LXFileDescriptor openFolder(int root, const QByteArray &path);

    static constexpr const char *errorDomain = "CVMediaReplacement";

private:
    LXResult<void> takeName();

    LXFileDescriptor m_folder;
    Names m_names;
    LXFileDescriptor m_source;
    LXFileDescriptor m_output;
    struct stat m_facts
    {};
    bool m_written = false; ///< the temporary name is ours
};

#pragma once

#include <QString>

#include <memory>

/// Opening files with the programs that the person has for them. Any thread.
class LXWorkspace
{
public:
    virtual ~LXWorkspace() = default;

    /// Opens the file or folder with its default application. What would run instead of being shown (see
    /// mayOpen()) and what no application opens is shown in the file viewer. The path is absolute, the name
    /// as of LXFileName. False, with nothing done, when nothing is there; whatever comes after that happens
    /// by itself: nothing of the file is read and no program is started on the calling thread.
    virtual bool openFile(const QString &path) = 0;

    /// True when opening this file with its default application shows it and does not start what it holds:
    /// no programs, scripts that may be executed, desktop entries, images of applications and the like. Names
    /// and contents are both asked, of links also those of their targets. Reads the beginning of the file,
    /// so it is not for the main thread.
    static bool mayOpen(const QString &path);

    /// What LXDesktopServices::install() or setShared() put here; before, one that opens nothing and
    /// answers false.
    static std::shared_ptr<LXWorkspace> shared();
    /// Null brings that one back.
    static void setShared(std::shared_ptr<LXWorkspace> workspace);
};

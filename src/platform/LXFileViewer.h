#pragma once

#include <QStringList>

#include <memory>

/// The desktop's file manager. Any thread.
class LXFileViewer
{
public:
    virtual ~LXFileViewer() = default;

    /// Shows the files or folders selected in the folders they are in. Paths are absolute, names as of
    /// LXFileName. Never blocks and never fails: with no file manager to ask, the folder of the first path
    /// is opened, and with nothing to open folders nothing happens.
    virtual void reveal(const QStringList &paths) = 0;

    /// What LXDesktopServices::install() or setShared() put here; a silent one before.
    static std::shared_ptr<LXFileViewer> shared();
    /// Null brings the silent one back.
    static void setShared(std::shared_ptr<LXFileViewer> viewer);
};

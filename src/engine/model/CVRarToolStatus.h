#pragma once

#include <memory>

/// Whether the optional tool that writes RAR archives is there. Until somebody who knows is set, the
/// answer is that it is not, so that nobody starts a job that cannot work.
class CVRarToolStatus
{
public:
    virtual ~CVRarToolStatus() = default;
    virtual bool isRarInstalled() const { return false; }
    virtual bool isOldVersionInstalled() const { return false; }

    /// Never null. Main thread.
    static std::shared_ptr<CVRarToolStatus> shared();
    static void setShared(std::shared_ptr<CVRarToolStatus> status);
};

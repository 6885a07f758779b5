#pragma once

#include "util/LXResult.h"

#include <QString>

#include <memory>

/// Moves files to the person's trash. The base is what callers see, so that a test can stand in.
/// Any thread.
class LXTrash
{
public:
    virtual ~LXTrash() = default;

    /// Gives the path in the trash. After an error the file is where it was; nothing is ever deleted
    /// instead.
    virtual LXResult<QString> moveToTrash(const QString &path) = 0;

    /// The desktop's trash, or what setShared() put in its place.
    static std::shared_ptr<LXTrash> shared();
    /// Null brings the desktop's trash back.
    static void setShared(std::shared_ptr<LXTrash> trash);
};

/// The desktop's trash.
class LXDesktopTrash final : public LXTrash
{
public:
    LXResult<QString> moveToTrash(const QString &path) override;
};

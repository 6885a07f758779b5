#pragma once

#include <QString>

#include <memory>

/// Notifications of the desktop. Any thread.
class LXUserNotifications
{
public:
    virtual ~LXUserNotifications() = default;

    /// Both texts are plain: what they contain is shown as it stands, markup and control characters as
    /// well. Never blocks and never fails; where no desktop listens, nothing happens.
    virtual void post(const QString &title, const QString &text) = 0;

    /// What LXDesktopServices::install() or setShared() put here; a silent one before.
    static std::shared_ptr<LXUserNotifications> shared();
    /// Null brings the silent one back.
    static void setShared(std::shared_ptr<LXUserNotifications> notifications);
};

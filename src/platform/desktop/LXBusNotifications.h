#pragma once

#include "platform/LXUserNotifications.h"

/// org.freedesktop.Notifications on the session bus.
class LXBusNotifications final : public LXUserNotifications
{
public:
    void post(const QString &title, const QString &text) override;
};

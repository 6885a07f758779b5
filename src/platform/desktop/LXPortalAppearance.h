#pragma once

#include "platform/LXDesktopAppearance.h"

#include <QDBusVariant>
#include <QObject>

/// The settings portal of the desktop, which is asked as soon as the event loop runs.
class LXPortalAppearance final : public QObject, public LXDesktopAppearance
{
    Q_OBJECT

public:
    LXPortalAppearance();

    bool reducedMotion() const override;
    Scheme scheme() const override;
    void observe(std::function<void()> changed) override;

private Q_SLOTS:
    void settingChanged(const QString &group, const QString &key, const QDBusVariant &value);

private:
    void ask();
    /// Whether that changed anything.
    bool take(const QString &group, const QString &key, const QVariant &value);

    std::function<void()> m_changed;
    Scheme m_scheme = Scheme::NoPreference;
    // Three desktops have three ways to say it; one of them is enough.
    bool m_wantsLessMotion = false;
    bool m_hasNoAnimations = false;
    bool m_hasNoDuration = false;
};

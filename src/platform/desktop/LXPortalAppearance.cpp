#include "platform/desktop/LXPortalAppearance.h"

#include "platform/desktop/LXSessionBus.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QMap>
#include <QVariantMap>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1StringView service("org.freedesktop.portal.Desktop");
constexpr QLatin1StringView object("/org/freedesktop/portal/desktop");
constexpr QLatin1StringView interface("org.freedesktop.portal.Settings");

constexpr QLatin1StringView common("org.freedesktop.appearance");
constexpr QLatin1StringView gnome("org.gnome.desktop.interface");
constexpr QLatin1StringView kde("org.kde.kdeglobals.KDE");

using Groups = QMap<QString, QVariantMap>;

} // namespace

LXPortalAppearance::LXPortalAppearance()
{
    // Later, so that the first window does not wait for the bus.
    QMetaObject::invokeMethod(this, &LXPortalAppearance::ask, Qt::QueuedConnection);
}

void LXPortalAppearance::ask()
{
    std::optional<QDBusConnection> bus = LXSessionBus::connection();
    if (!bus)
        return;
    bus->connect(service, object, interface, u"SettingChanged"_s, this,
                 SLOT(settingChanged(QString, QString, QDBusVariant)));
    QDBusMessage call = QDBusMessage::createMethodCall(service, object, interface, u"ReadAll"_s);
    call << QStringList{common, gnome, kde};
    auto *watcher = new QDBusPendingCallWatcher(bus->asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        const QDBusMessage answer = done->reply();
        if (answer.type() != QDBusMessage::ReplyMessage || answer.signature() != "a{sa{sv}}"_L1)
            return;
        const Groups groups = qdbus_cast<Groups>(answer.arguments().constFirst());
        bool changed = false;
        for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
            for (auto entry = group->cbegin(); entry != group->cend(); ++entry)
                changed |= take(group.key(), entry.key(), entry.value());
        }
        if (changed && m_changed)
            m_changed();
    });
}

bool LXPortalAppearance::take(const QString &group, const QString &key, const QVariant &value)
{
    const auto change = [](auto &stored, auto now) { return std::exchange(stored, now) != now; };
    if (group == common && key == "color-scheme"_L1) {
        const uint scheme = value.toUInt();
        return change(m_scheme, scheme == 1   ? Scheme::Dark
                                : scheme == 2 ? Scheme::Light
                                              : Scheme::NoPreference);
    }
    if (group == common && key == "reduced-motion"_L1)
        return change(m_wantsLessMotion, value.toUInt() == 1);
    if (group == gnome && key == "enable-animations"_L1)
        return change(m_hasNoAnimations, !value.toBool());
    if (group == kde && key == "AnimationDurationFactor"_L1) {
        bool isNumber = false;
        const double factor = value.toDouble(&isNumber);
        return change(m_hasNoDuration, isNumber && factor <= 0);
    }
    return false;
}

void LXPortalAppearance::settingChanged(const QString &group, const QString &key, const QDBusVariant &value)
{
    if (take(group, key, value.variant()) && m_changed)
        m_changed();
}

bool LXPortalAppearance::reducedMotion() const
{
    bool isSet = false;
    const int decided = qEnvironmentVariableIntValue("CORVANE_REDUCED_MOTION", &isSet);
    if (isSet)
        return decided != 0;
    return m_wantsLessMotion || m_hasNoAnimations || m_hasNoDuration;
}

LXDesktopAppearance::Scheme LXPortalAppearance::scheme() const
{
    return m_scheme;
}

void LXPortalAppearance::observe(std::function<void()> changed)
{
    m_changed = std::move(changed);
}

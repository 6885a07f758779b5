#pragma once

#include <QDBusAbstractAdaptor>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

class LXApplicationBus;

/// What others on the bus may call. Everybody in the session can, so what comes is checked and only ever asks
/// for what a start with the same files would do.
class LXApplicationAdaptor final : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit LXApplicationAdaptor(LXApplicationBus *bus);

public Q_SLOTS:
    void Activate(const QVariantMap &platformData);
    void Open(const QStringList &uris, const QVariantMap &platformData);
    /// There are no actions beyond showing the window.
    void ActivateAction(const QString &name, const QVariantList &parameter, const QVariantMap &platformData);

private:
    LXApplicationBus *const m_bus;
};

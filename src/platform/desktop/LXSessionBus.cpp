#include "platform/desktop/LXSessionBus.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

std::optional<QDBusConnection> LXSessionBus::connection()
{
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") &&
        !QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + "/bus"_L1))
        return std::nullopt;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return std::nullopt;
    return bus;
}

bool LXSessionBus::reachedNobody(const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
    case QDBusError::Disconnected:
    case QDBusError::NoServer:
    case QDBusError::BadAddress:
    case QDBusError::UnknownMethod:
    case QDBusError::UnknownInterface:
    case QDBusError::UnknownObject:
    case QDBusError::NotSupported:
    case QDBusError::AccessDenied:
    case QDBusError::InvalidSignature:
        return true;
    default:
        return error.name().startsWith("org.freedesktop.DBus.Error.Spawn."_L1) ||
               error.name() == "org.freedesktop.DBus.Error.NameHasNoOwner"_L1;
    }
}

#include "platform/desktop/LXApplicationAdaptor.h"

#include "platform/LXFileUri.h"
#include "platform/desktop/LXApplicationBus.h"

using namespace Qt::StringLiterals;

namespace {

QString tokenOf(const QVariantMap &platformData)
{
    const QString token = platformData.value(u"activation-token"_s).toString();
    return token.isEmpty() ? platformData.value(u"desktop-startup-id"_s).toString() : token;
}

} // namespace

LXApplicationAdaptor::LXApplicationAdaptor(LXApplicationBus *bus)
    : QDBusAbstractAdaptor(bus)
    , m_bus(bus)
{}

void LXApplicationAdaptor::Activate(const QVariantMap &platformData)
{
    Q_EMIT m_bus->activated(tokenOf(platformData));
}

void LXApplicationAdaptor::Open(const QStringList &uris, const QVariantMap &platformData)
{
    QStringList paths;
    for (const QString &uri : uris) {
        if (const std::optional<QString> path = LXFileUri::pathOfUri(uri))
            paths.append(*path);
    }
    if (paths.isEmpty())
        Activate(platformData);
    else
        Q_EMIT m_bus->opened(paths, tokenOf(platformData));
}

void LXApplicationAdaptor::ActivateAction(const QString &, const QVariantList &,
                                          const QVariantMap &platformData)
{
    Activate(platformData);
}

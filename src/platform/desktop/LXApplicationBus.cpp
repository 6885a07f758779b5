#include "platform/desktop/LXApplicationBus.h"

#include "platform/LXFileUri.h"
#include "platform/desktop/LXApplicationAdaptor.h"
#include "platform/desktop/LXSessionBus.h"
#include "util/LXFileName.h"

#include <QDBusMessage>

#include <cstdlib>
#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1StringView interface("org.freedesktop.Application");
constexpr uint doNotQueue = 4;
constexpr uint becameOwner = 1;
constexpr uint wasOwner = 4;

/// By bytes: Qt's current folder is not the same where its name is no text. "." and ".." stay, because what
/// they mean depends on links.
QString absolutePath(const QString &path)
{
    if (path.startsWith(u'/'))
        return path;
    const std::unique_ptr<char, decltype(&std::free)> folder(::getcwd(nullptr, 0), &std::free);
    return folder ? fileNameFromBytes(folder.get()) + u'/' + path : QString();
}

QVariantMap platformData()
{
    const QString token = LXApplicationBus::activationToken();
    if (token.isEmpty())
        return {};
    return {{u"desktop-startup-id"_s, token}, {u"activation-token"_s, token}};
}

} // namespace

LXApplicationBus::LXApplicationBus(QString applicationId, std::chrono::milliseconds answerLimit,
                                   QObject *parent)
    : QObject(parent)
    , m_id(std::move(applicationId))
    , m_object(u'/' + QString(m_id).replace(u'.', u'/').replace(u'-', u'_'))
    , m_answerLimit(answerLimit)
{
    new LXApplicationAdaptor(this);
}

LXApplicationBus::~LXApplicationBus()
{
    std::optional<QDBusConnection> bus = LXSessionBus::connection();
    if (!bus)
        return;
    bus->unregisterObject(m_object);
    if (m_role == First) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                           u"org.freedesktop.DBus"_s, u"ReleaseName"_s);
        call << m_id;
        bus->send(call);
    }
}

LXApplicationBus::Role LXApplicationBus::claim()
{
    m_role = NoBus;
    std::optional<QDBusConnection> bus = LXSessionBus::connection();
    // The object is there before the name, so that nobody finds the name without it.
    if (!bus)
        return m_role;
    m_isExported = m_isExported || bus->registerObject(m_object, this, QDBusConnection::ExportAdaptors);
    if (!m_isExported)
        return m_role;
    QDBusMessage call = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                                       u"org.freedesktop.DBus"_s, u"RequestName"_s);
    call << m_id << doNotQueue;
    const QDBusMessage answer = bus->call(call, QDBus::Block, static_cast<int>(m_answerLimit.count()));
    if (answer.type() != QDBusMessage::ReplyMessage)
        return m_role;
    const uint result = answer.arguments().value(0).toUInt();
    m_role = result == becameOwner || result == wasOwner ? First : Second;
    return m_role;
}

bool LXApplicationBus::send(const QString &method, const QVariantList &arguments)
{
    std::optional<QDBusConnection> bus = LXSessionBus::connection();
    if (!bus || m_role == First)
        return false;
    QDBusMessage call = QDBusMessage::createMethodCall(m_id, m_object, interface, method);
    call.setArguments(arguments);
    // The bus must not start a third instance in place of one that has just ended.
    call.setAutoStartService(false);
    const QDBusMessage answer = bus->call(call, QDBus::Block, static_cast<int>(m_answerLimit.count()));
    if (answer.type() == QDBusMessage::ReplyMessage)
        return true;
    claim();
    return false;
}

bool LXApplicationBus::sendOpen(const QStringList &paths)
{
    QStringList uris;
    for (const QString &path : paths) {
        const QString absolute = absolutePath(path);
        if (absolute.isEmpty())
            return false;
        uris.append(QString::fromLatin1(LXFileUri::uriOfPath(absolute)));
    }
    return send(u"Open"_s, {uris, platformData()});
}

bool LXApplicationBus::sendActivate()
{
    return send(u"Activate"_s, {platformData()});
}

QString LXApplicationBus::activationToken()
{
    const QString token = qEnvironmentVariable("XDG_ACTIVATION_TOKEN");
    return token.isEmpty() ? qEnvironmentVariable("DESKTOP_STARTUP_ID") : token;
}

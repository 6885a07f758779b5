#pragma once

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QList>

#include <functional>

/// A service on the session bus, on a connection of its own, that keeps every call it receives and answers
/// with `answer`, or never if there is none.
class BusMock final : public QDBusVirtualObject
{
public:
    using Answer = std::function<QDBusMessage(const QDBusMessage &call)>;

    BusMock(const QString &service, const QString &object, Answer answer)
        : m_answer(std::move(answer))
        , m_connection(QDBusConnection::connectToBus(QDBusConnection::SessionBus, service))
        , m_service(service)
    {
        m_connection.registerVirtualObject(object, this, QDBusConnection::SubPath);
        isThere = m_connection.interface()
                      ->registerService(service, QDBusConnectionInterface::DontQueueService)
                      .isValid();
    }
    ~BusMock() override
    {
        m_connection.interface()->unregisterService(m_service);
        QDBusConnection::disconnectFromBus(m_service);
    }

    static Answer reply(const QVariantList &values)
    {
        return [values](const QDBusMessage &call) { return call.createReply(values); };
    }

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        calls.append(message);
        message.setDelayedReply(true);
        if (m_answer)
            connection.send(m_answer(message));
        return true;
    }

    QDBusConnection &connection() { return m_connection; }

    bool isThere = false;
    QList<QDBusMessage> calls;

private:
    const Answer m_answer;
    QDBusConnection m_connection;
    const QString m_service;
};

#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <chrono>

/// One instance of the application on the session bus (org.freedesktop.Application). The first one owns
/// the name and gets what later ones are started with:
///
///     LXApplicationBus bus(u"org.corvane.Corvane"_s);
///     if (bus.claim() == LXApplicationBus::Second &&
///         (paths.isEmpty() ? bus.sendActivate() : bus.sendOpen(paths)))
///         return 0;
///
/// Everything else goes on as an instance of its own. Main thread. What others send arrives through the event
/// loop, so signals connected before it runs miss nothing.
class LXApplicationBus : public QObject
{
    Q_OBJECT

public:
    enum Role {
        First,  ///< owns the name; the signals tell of others
        Second, ///< another process owns it
        NoBus,  ///< no session bus, or one that does not answer
    };

    /// `answerLimit` is the longest that each of the calls below takes.
    explicit LXApplicationBus(QString applicationId,
                              std::chrono::milliseconds answerLimit = std::chrono::seconds(2),
                              QObject *parent = nullptr);
    ~LXApplicationBus() override;

    /// Of several processes that call it at once, one is first. May be called again.
    Role claim();

    /// To the first instance, with the activation token of this start from the environment. Paths are made
    /// absolute here; names as of LXFileName. False when it does not answer or has gone: this process then
    /// works by itself, and as the first one if that was possible. An instance that was only slow may handle
    /// the paths as well.
    bool sendOpen(const QStringList &paths);
    bool sendActivate();

    /// XDG_ACTIVATION_TOKEN, else DESKTOP_STARTUP_ID; empty where the start had none.
    static QString activationToken();

Q_SIGNALS:
    /// Show yourself. The token, if there is one, entitles a window to come to the front: put it into
    /// XDG_ACTIVATION_TOKEN before QWindow::requestActivate().
    void activated(const QString &token);
    /// Open these, absolute paths of this machine, at least one, and show yourself.
    void opened(const QStringList &paths, const QString &token);

private:
    friend class LXApplicationAdaptor;

    bool send(const QString &method, const QVariantList &arguments);

    const QString m_id;
    const QString m_object;
    const std::chrono::milliseconds m_answerLimit;
    Role m_role = NoBus;
    bool m_isExported = false;
};

#pragma once

#include "sandbox/LXSandboxServices.h"

#include <QByteArrayList>
#include <QString>
#include <QStringList>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class LXSandboxFileAuthenticator;
class LXSettingsStore;

/// Lets the application restyle dialogs before they are shown. Main thread.
class LXSandboxFileAuthenticatorDelegate
{
public:
    virtual ~LXSandboxFileAuthenticatorDelegate() = default;
    virtual void fileAuthenticatorWillPromptWhetherToAuthorizeAllWithAlert(LXSandboxFileAuthenticator &,
                                                                           LXAlertRequest &)
    {}
    virtual void fileAuthenticatorWillRequestAuthorizationOfURL(LXSandboxFileAuthenticator &,
                                                                const QString & /*path*/,
                                                                LXFolderChooserRequest &)
    {}
    virtual void fileAuthenticatorWillPromptWhetherToAuthorizeAllOrURL(LXSandboxFileAuthenticator &,
                                                                       const QString & /*path*/,
                                                                       LXAlertRequest &)
    {}
};

/// Keeps the folders that the person granted, decides what they cover, and asks for what is missing.
///
/// Files are absolute paths. Outside a sandbox (this build) every request is granted at once, on the
/// caller's thread, with "/". Inside one, dialogs come one at a time on the main thread, and the handler
/// is called on a background thread.
/// Thread: any, but the dialogs' functions. Never request while holding a lock that a dialog needs.
class LXSandboxFileAuthenticator : public std::enable_shared_from_this<LXSandboxFileAuthenticator>
{
public:
    /// granted, and the grants that cover what was asked for.
    using Handler = std::function<void(bool granted, const QStringList &grants)>;
    /// granted, and the last of the grants; empty when refused.
    using SingleHandler = std::function<void(bool granted, const QString &grant)>;

    static const QString authorizedURLsKey; ///< "RNAuthorizedURLsKey"
    static const QString suppressAlertKey;  ///< "RNAuthorizeAllAlertSuppressKey"

    struct Services
    {
        std::shared_ptr<LXSettingsStore> store = {};
        std::shared_ptr<LXFolderBookmarks> bookmarks = {};
        std::shared_ptr<LXFolderChooser> folderChooser = {}; ///< null: every question is answered with no
        std::shared_ptr<LXAlertPresenter> alerts = {};       ///< null: as above
        QString applicationName = {};
        bool inSandbox = false;
    };

    /// Loads the stored grants and stores them again, which drops those that are stale.
    explicit LXSandboxFileAuthenticator(Services services);
    LXSandboxFileAuthenticator(const LXSandboxFileAuthenticator &) = delete;
    LXSandboxFileAuthenticator &operator=(const LXSandboxFileAuthenticator &) = delete;

    bool inSandbox() const { return m_services.inSandbox; }
    /// Borrowed; main thread.
    void setDelegate(LXSandboxFileAuthenticatorDelegate *delegate) { m_delegate = delegate; }

    /// The message is not shown by this way of asking.
    void authorizeItemsAtURLs(const QStringList &paths, const QString &message, QObject *window,
                              Handler handler);
    void authorizeItemsAtURLsWithSingleURL(const QStringList &paths, const QString &message, QObject *window,
                                           SingleHandler handler);
    /// skipPrompt is accepted for requests that a prompt of their own came before; the chooser always shows.
    void authorizeItemsAtURLs(const QStringList &paths, QObject *window, bool skipPrompt, Handler handler);

    /// The one-time offer to grant the whole disk. Main thread.
    void authorizeAll(QObject *window);
    /// Main thread; done gets the path when the person wants to authorise it.
    void promptUserWhetherToAuthorizeAllOrURL(const QString &path, QObject *window,
                                              std::function<void(std::optional<QString>)> done);

    /// On the grant that covers the path; nothing when none does.
    void startAccessing(const QString &path);
    void stopAccessing(const QString &path);

    bool isAuthorized(const QString &path) const;
    bool hasAuthorizedURLs() const;
    void addAuthorizedURL(const QString &path);
    void permanentlyAuthorizeUserSelectedURL(const QString &path) { addAuthorizedURL(path); }
    std::optional<QString> authorizedBookmarkURLForURL(const QString &path) const;
    /// The deepest path that is a prefix of all. The list must not be empty.
    static QString commonParentURLForURLs(const QStringList &paths);

private:
    struct Request
    {
        QStringList remaining;
        QStringList granted;
        QObject *window = nullptr;
        Handler handler;
    };

    void begin(std::shared_ptr<Request> request);
    void authorizeNext();
    void askFor(const QString &path);
    void answered(const QString &path, const std::optional<QString> &chosen);
    void end(bool granted);
    void load();
    void save();

    const Services m_services;
    LXSandboxFileAuthenticatorDelegate *m_delegate = nullptr;

    mutable std::mutex m_mutex; ///< guards m_authorizedURLs
    QStringList m_authorizedURLs;

    std::deque<std::shared_ptr<Request>> m_requests; ///< main thread; the first one is being asked
};

/// Plain prefix of characters, so "/a/bc" counts as inside "/a/b". A path is not inside itself.
bool isFileURLAndSubpathOfFileURL(const QString &path, const QString &parent);
/// By whole components; a path is parent of itself here, and an empty one of everything.
bool pathIsParentOrIsPathOfTarget(const QString &parent, const QString &target);

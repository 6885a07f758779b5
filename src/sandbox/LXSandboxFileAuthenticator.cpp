#include "sandbox/LXSandboxFileAuthenticator.h"

#include "platform/LXSettingsStore.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <thread>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcSandbox, "corvane.sandbox")

QString text(const char *key)
{
    return QCoreApplication::translate("LXSandboxFileAuthenticator", key);
}

bool covers(const QString &grant, const QString &path)
{
    return path == grant || isFileURLAndSubpathOfFileURL(path, grant);
}

// Handlers wait for work of the job that asked, so none may hold up the main thread.
void callInBackground(LXSandboxFileAuthenticator::Handler handler, bool granted, QStringList grants)
{
    std::thread([handler = std::move(handler), granted, grants = std::move(grants)] {
        handler(granted, grants);
    }).detach();
}

} // namespace

bool isFileURLAndSubpathOfFileURL(const QString &path, const QString &parent)
{
    return path != parent && path.startsWith(parent);
}

bool pathIsParentOrIsPathOfTarget(const QString &parent, const QString &target)
{
    const QStringList above = parent.split(u'/', Qt::SkipEmptyParts);
    const QStringList below = target.split(u'/', Qt::SkipEmptyParts);
    return above.size() <= below.size() && std::equal(above.begin(), above.end(), below.begin());
}

const QString LXSandboxFileAuthenticator::authorizedURLsKey = u"RNAuthorizedURLsKey"_s;
const QString LXSandboxFileAuthenticator::suppressAlertKey = u"RNAuthorizeAllAlertSuppressKey"_s;

LXSandboxFileAuthenticator::LXSandboxFileAuthenticator(Services services)
    : m_services(std::move(services))
{
    m_services.store->registerDefaults({{suppressAlertKey, false}});
    load();
    save();
}

void LXSandboxFileAuthenticator::load()
{
    QStringList loaded;
    for (const QByteArray &token : m_services.store->bytesList(authorizedURLsKey)) {
        const auto resolved = m_services.bookmarks->resolve(token);
        if (resolved && !resolved.value().stale) {
            loaded.append(resolved.value().path);
            continue;
        }
        const QString why = resolved ? resolved.value().path : resolved.error().reason;
        LX_WARNING(lcSandbox, "ERROR: restoring authorized URL: %s", qUtf8Printable(why));
    }
    const std::lock_guard lock(m_mutex);
    m_authorizedURLs = std::move(loaded);
}

void LXSandboxFileAuthenticator::save()
{
    QStringList grants;
    {
        const std::lock_guard lock(m_mutex);
        grants = m_authorizedURLs;
    }
    QByteArrayList tokens;
    for (const QString &grant : grants) {
        m_services.bookmarks->startAccessing(grant);
        const auto token = m_services.bookmarks->create(grant);
        m_services.bookmarks->stopAccessing(grant);
        if (token) {
            tokens.append(token.value());
        } else {
            LX_WARNING(lcSandbox, "ERROR saving security-scoped bookmark for %s: %s", qUtf8Printable(grant),
                       qUtf8Printable(token.error().reason));
        }
    }
    // Every start of the program comes here; a file that would not change is not touched.
    if (tokens != m_services.store->bytesList(authorizedURLsKey))
        m_services.store->setValue(authorizedURLsKey, QVariant::fromValue(tokens));
}

void LXSandboxFileAuthenticator::authorizeItemsAtURLsWithSingleURL(const QStringList &paths,
                                                                   const QString &message, QObject *window,
                                                                   SingleHandler handler)
{
    authorizeItemsAtURLs(paths, message, window,
                         [handler = std::move(handler)](bool granted, const QStringList &grants) {
                             handler(granted, granted && !grants.isEmpty() ? grants.last() : QString());
                         });
}

void LXSandboxFileAuthenticator::authorizeItemsAtURLs(const QStringList &paths, const QString & /*message*/,
                                                      QObject *window, Handler handler)
{
    authorizeItemsAtURLs(paths, window, false, std::move(handler));
}

void LXSandboxFileAuthenticator::authorizeItemsAtURLs(const QStringList &paths, QObject *window,
                                                      bool /*skipPrompt*/, Handler handler)
{
    if (!inSandbox()) {
        handler(true, {u"/"_s});
        return;
    }
    auto request = std::make_shared<Request>();
    for (const QString &path : paths)
        request->remaining.append(commonParentURLForURLs({path}));
    request->remaining.removeDuplicates();
    request->window = window;
    request->handler = std::move(handler);
    LXMainThread::wait([self = shared_from_this(), request] { self->begin(request); });
}

void LXSandboxFileAuthenticator::begin(std::shared_ptr<Request> request)
{
    m_requests.push_back(std::move(request));
    // Two jobs may ask together; the second chooser waits until the first is done with.
    if (m_requests.size() == 1)
        authorizeNext();
}

void LXSandboxFileAuthenticator::authorizeNext()
{
    Request &request = *m_requests.front();
    while (!request.remaining.isEmpty()) {
        const QString path = request.remaining.last();
        if (!isAuthorized(path)) {
            askFor(path);
            return;
        }
        if (const auto grant = authorizedBookmarkURLForURL(path); grant && !request.granted.contains(*grant))
            request.granted.append(*grant);
        request.remaining.removeLast();
    }
    end(true);
}

void LXSandboxFileAuthenticator::askFor(const QString &path)
{
    LXFolderChooserRequest chooser{.directory = path,
                                   .title = text("Authorize"),
                                   .button = text("Authorize"),
                                   .accepts = [path](const QString &folder) { return covers(folder, path); },
                                   .window = m_requests.front()->window};
    if (m_delegate)
        m_delegate->fileAuthenticatorWillRequestAuthorizationOfURL(*this, path, chooser);
    if (!m_services.folderChooser) {
        answered(path, std::nullopt);
        return;
    }
    m_services.folderChooser->choose(chooser,
                                     [self = shared_from_this(), path](const std::optional<QString> &folder) {
                                         self->answered(path, folder);
                                     });
}

void LXSandboxFileAuthenticator::answered(const QString &path, const std::optional<QString> &chosen)
{
    if (!chosen || !covers(*chosen, path)) {
        end(false);
        return;
    }
    addAuthorizedURL(*chosen);
    Request &request = *m_requests.front();
    if (!request.granted.contains(*chosen))
        request.granted.append(*chosen);
    request.remaining.removeAll(path);
    LXMainThread::post([self = shared_from_this()] { self->authorizeNext(); });
}

void LXSandboxFileAuthenticator::end(bool granted)
{
    const auto request = std::move(m_requests.front());
    m_requests.pop_front();
    callInBackground(std::move(request->handler), granted, granted ? request->granted : QStringList());
    if (!m_requests.empty())
        LXMainThread::post([self = shared_from_this()] { self->authorizeNext(); });
}

void LXSandboxFileAuthenticator::authorizeAll(QObject *window)
{
    if (m_services.store->boolean(suppressAlertKey) || !inSandbox() || hasAuthorizedURLs() ||
        !m_services.alerts)
        return;
    LXAlertRequest alert{
        .message = {},
        .informativeText = text("If you choose to authorize later you will be asked for permission on an as "
                                "needed basis when you work with specific files."),
        .buttons = {text("Authorize Now…"), text("Authorize Later")},
        .showsSuppressionButton = true,
        .window = window};
    if (m_delegate)
        m_delegate->fileAuthenticatorWillPromptWhetherToAuthorizeAllWithAlert(*this, alert);
    m_services.alerts->show(alert, [self = shared_from_this(), window](LXAlertPresenter::Answer answer) {
        if (answer.button == 0)
            self->authorizeItemsAtURLs({u"/"_s}, window, true, [](bool, const QStringList &) {});
        if (answer.suppress)
            self->m_services.store->setValue(suppressAlertKey, true);
    });
}

void LXSandboxFileAuthenticator::promptUserWhetherToAuthorizeAllOrURL(
    const QString &path, QObject *window, std::function<void(std::optional<QString>)> done)
{
    LXAlertRequest alert{
        .message = text("%1 cannot access your files at the moment due to it not being authorized by you for "
                        "the OS X Sandbox.")
                       .arg(m_services.applicationName),
        .informativeText = text("Please authorize %1 to be able to access \"%2\".")
                               .arg(m_services.applicationName, lastComponent(path)),
        .buttons = {text("Authorize…"), text("Cancel")},
        .window = window};
    if (m_delegate)
        m_delegate->fileAuthenticatorWillPromptWhetherToAuthorizeAllOrURL(*this, path, alert);
    if (!m_services.alerts) {
        done(std::nullopt);
        return;
    }
    m_services.alerts->show(alert, [path, done = std::move(done)](LXAlertPresenter::Answer answer) {
        done(answer.button == 0 ? std::optional(path) : std::nullopt);
    });
}

void LXSandboxFileAuthenticator::startAccessing(const QString &path)
{
    if (const auto grant = authorizedBookmarkURLForURL(path))
        m_services.bookmarks->startAccessing(*grant);
}

void LXSandboxFileAuthenticator::stopAccessing(const QString &path)
{
    if (const auto grant = authorizedBookmarkURLForURL(path))
        m_services.bookmarks->stopAccessing(*grant);
}

bool LXSandboxFileAuthenticator::isAuthorized(const QString &path) const
{
    const std::lock_guard lock(m_mutex);
    return std::ranges::any_of(m_authorizedURLs, [&](const QString &grant) { return covers(grant, path); });
}

bool LXSandboxFileAuthenticator::hasAuthorizedURLs() const
{
    const std::lock_guard lock(m_mutex);
    return !m_authorizedURLs.isEmpty();
}

void LXSandboxFileAuthenticator::addAuthorizedURL(const QString &path)
{
    {
        const std::lock_guard lock(m_mutex);
        m_authorizedURLs.append(path);
    }
    save();
    load();
}

std::optional<QString> LXSandboxFileAuthenticator::authorizedBookmarkURLForURL(const QString &path) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = std::ranges::find_if(m_authorizedURLs, [&](const QString &grant) {
        return covers(grant, path) || pathIsParentOrIsPathOfTarget(grant, path);
    });
    return found == m_authorizedURLs.end() ? std::nullopt : std::optional(*found);
}

QString LXSandboxFileAuthenticator::commonParentURLForURLs(const QStringList &paths)
{
    Q_ASSERT_X(!paths.isEmpty(), Q_FUNC_INFO, "Can't find parent of empty URLs list");
    QString parent = paths.first();
    for (const QString &path : paths) {
        while (path != parent && !isFileURLAndSubpathOfFileURL(path, parent) && parent != "/"_L1)
            parent = parent.left(std::max<qsizetype>(parent.lastIndexOf(u'/'), 1));
    }
    return parent;
}

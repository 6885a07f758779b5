#include "sandbox/CVFileAuthenticator.h"

#include "platform/LXSettingsStore.h"

#include <QCoreApplication>

#include <mutex>
#include <utility>

namespace {

struct Shared
{
    std::mutex mutex;
    LXSandboxFileAuthenticator::Services services;
    std::shared_ptr<LXSandboxFileAuthenticator> authenticator;
};

Shared &shared()
{
    static Shared instance;
    return instance;
}

} // namespace

void CVFileAuthenticator::setServices(LXSandboxFileAuthenticator::Services services)
{
    const std::lock_guard lock(shared().mutex);
    shared().services = std::move(services);
    shared().authenticator.reset();
}

std::shared_ptr<LXSandboxFileAuthenticator> CVFileAuthenticator::fileAuthenticator()
{
    const std::lock_guard lock(shared().mutex);
    if (!shared().authenticator) {
        auto services = shared().services;
        if (!services.store)
            services.store = std::make_shared<LXSettingsStore>(LXSettingsStore::defaultFilePath());
        if (!services.bookmarks)
            services.bookmarks = std::make_shared<LXPathBookmarks>();
        if (services.applicationName.isEmpty())
            services.applicationName = QStringLiteral("Corvane");
        shared().authenticator = std::make_shared<LXSandboxFileAuthenticator>(std::move(services));
    }
    return shared().authenticator;
}

void CVFileAuthenticator::runAuthorizedHandler(LXSandboxFileAuthenticator::SingleHandler handler,
                                               const QStringList &paths, QObject *window)
{
    fileAuthenticator()->authorizeItemsAtURLsWithSingleURL(paths, message(), window, std::move(handler));
}

QString CVFileAuthenticator::message()
{
    return QCoreApplication::translate("Corvane",
                                       "The OS X Sandbox needs you to authorize Corvane to access files.");
}

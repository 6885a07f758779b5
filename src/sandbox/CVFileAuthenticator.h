#pragma once

#include "sandbox/LXSandboxFileAuthenticator.h"

#include <QString>
#include <QStringList>

#include <memory>

/// The application's thin entry to the one authoriser. Any thread.
class CVFileAuthenticator
{
public:
    /// What the first call of fileAuthenticator() makes it with; before that call, so at start-up.
    static void setServices(LXSandboxFileAuthenticator::Services services);

    /// The one of the process, made on the first call.
    static std::shared_ptr<LXSandboxFileAuthenticator> fileAuthenticator();

    /// Asks the shared authoriser, which must have been made before. The handler gets the last grant.
    static void runAuthorizedHandler(LXSandboxFileAuthenticator::SingleHandler handler,
                                     const QStringList &paths, QObject *window);

    /// "The OS X Sandbox needs you to authorize Corvane to access files.", in the person's language.
    static QString message();
};

#pragma once

#include "platform/LXDefaultApplications.h"

/// The person's mimeapps.list and the desktop entries, through GIO.
class LXGioApplications final : public LXDefaultApplications
{
public:
    QString defaultApplication(const QString &mimeType) override;
    QStringList applications(const QString &mimeType) override;
    LXResult<void> setDefaultApplication(const QString &application, const QString &mimeType) override;
    LXResult<void> withdraw(const QString &application, const QString &mimeType) override;

    /// Opens the file or folder with the default application of the type, whatever its own type is. False
    /// when there is none or it does not start. May wait for a start over the bus: not for the main thread.
    static bool launch(const QString &mimeType, const QString &path);
};

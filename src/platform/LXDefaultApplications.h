#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <memory>

/// Which application opens files of which type. Applications are named by their desktop entries
/// ("org.corvane.Corvane.desktop"), types by MIME type ("application/zip"). Any thread; reads and writes
/// small files.
class LXDefaultApplications
{
public:
    virtual ~LXDefaultApplications() = default;

    /// Empty when no application opens the type.
    virtual QString defaultApplication(const QString &mimeType) = 0;
    /// All that can open exactly this type, the default one first.
    virtual QStringList applications(const QString &mimeType) = 0;
    /// Fails when there is no such desktop entry, or when the list cannot be written.
    virtual LXResult<void> setDefaultApplication(const QString &application, const QString &mimeType) = 0;
    /// This application is not to be the default one any more: the first of the others is. Where there is no
    /// other, nothing opens the type.
    virtual LXResult<void> withdraw(const QString &application, const QString &mimeType) = 0;

    /// What LXDesktopServices::install() or setShared() put here; before, one that knows no applications.
    static std::shared_ptr<LXDefaultApplications> shared();
    /// Null brings that one back.
    static void setShared(std::shared_ptr<LXDefaultApplications> applications);
};

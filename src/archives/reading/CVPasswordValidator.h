#pragma once

#include "archives/reading/XADArchive.h"

#include <memory>

/// Tells whether a password opens an encrypted archive before the real extraction starts, by a trial
/// extraction into a private temporary folder that is removed again.
///
/// The trial costs as little as the format allows: it extracts the smallest encrypted file that has
/// data, in formats where entries stand alone, and stops as soon as data has flowed; a trial that ends
/// without a failure is a yes. So is one that fails for another reason than the password (damage, no program
/// that decrypts it): the extraction proper tells that as what it is.
/// Thread: the caller's. Throws CVArchiveException ("DCArchiveInvalidFileException") when the archive
/// cannot be opened for a reason other than its password.
class CVPasswordValidator final : public XADArchiveDelegate
{
public:
    bool isPasswordValidForArchive(const QString &password, const QString &path);

    QString password() const { return m_password; }
    XADArchive *xadarchive() const { return m_xadarchive.get(); }
    bool isValid() const { return m_isValid; }
    bool finishedTryingPassword() const { return m_finishedTryingPassword; }
    int progressCounter() const { return m_progressCounter; }
    /// Why the answer was no, where an engine said so.
    QString failureText() const { return m_failureText; }

    /// Asked between blocks of the trial; a stop makes the answer no.
    std::function<bool()> cancelled;

    // XADArchiveDelegate
    void archiveNeedsPassword(XADArchive &archive) override;
    void archiveExtractionProgressBytes(XADArchive &archive, qint64 done, qint64 total) override;
    XADAction archiveExtractionOfEntryDidFail(XADArchive &archive, int entry, XADErrorCode error) override;
    bool archiveExtractionShouldStop(XADArchive &archive) override;

private:
    QString m_password;
    QString m_failureText;
    std::unique_ptr<XADArchive> m_xadarchive;
    bool m_isValid = false;
    bool m_finishedTryingPassword = false;
    int m_progressCounter = 0;
};

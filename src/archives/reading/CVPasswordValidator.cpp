#include "archives/reading/CVPasswordValidator.h"

#include "archives/CVArchiveException.h"

#include <QLoggingCategory>
#include <QTemporaryDir>

Q_LOGGING_CATEGORY(lcPassword, "corvane.archives.password", QtWarningMsg)

namespace {

// With this many reports of data behind it a password is taken for right: earlier ones may come from
// entries that are not encrypted or from a decoder that has not met its first checksum.
constexpr int reportsBeforeYes = 3;

bool isAboutPassword(XADErrorCode code)
{
    return code == XADErrorCode::PasswordMissing || code == XADErrorCode::PasswordWrongOpening ||
           code == XADErrorCode::Password || code == XADErrorCode::PasswordOrDamage;
}

// The entry whose extraction proves the password at the least cost: the smallest encrypted one with
// data. -1 when nothing is known about single entries.
int cheapestProof(const XADArchive &archive)
{
    int best = -1;
    qint64 bestSize = 0;
    for (int index = 0; index < archive.numberOfEntries(); ++index) {
        const XADEntry &entry = archive.entry(index);
        if (!entry.encrypted || entry.type != XADEntry::Type::File || entry.size <= 0)
            continue;
        if (best < 0 || entry.size < bestSize) {
            best = index;
            bestSize = entry.size;
        }
    }
    return best;
}

} // namespace

bool CVPasswordValidator::isPasswordValidForArchive(const QString &password, const QString &path)
{
    m_progressCounter = 0;
    m_isValid = false;
    m_finishedTryingPassword = false;
    m_password = password;

    XADErrorCode error = XADErrorCode::None;
    m_xadarchive = XADArchive::openFile(path, this, &error, &m_failureText);
    if (m_xadarchive) {
        m_xadarchive->setPassword(password);
        const QTemporaryDir trial; // 0700 and removed with its contents, whatever the verdict
        if (trial.isValid()) {
            const int proof = cheapestProof(*m_xadarchive);
            const XADErrorCode code = proof >= 0 ? m_xadarchive->extractEntry(proof, trial.path())
                                                 : m_xadarchive->extractTo(trial.path(), true);
            // Done without a failure and without a verdict: too little data for one, which is a yes.
            if (!m_finishedTryingPassword)
                m_isValid = code != XADErrorCode::Stopped && !isAboutPassword(code);
            m_finishedTryingPassword = true;
            m_failureText = m_xadarchive->lastErrorText();
        }
    } else if (!isAboutPassword(error) && error != XADErrorCode::Stopped) {
        qCInfo(lcPassword) << "the archive cannot be opened for a trial" << int(error);
        m_password.clear();
        throw CVArchiveException("DCArchiveInvalidFileException", "File couldn't be opened");
    }
    m_password.clear();
    m_xadarchive.reset();
    return m_isValid;
}

void CVPasswordValidator::archiveNeedsPassword(XADArchive &archive)
{
    archive.setPassword(m_password);
}

void CVPasswordValidator::archiveExtractionProgressBytes(XADArchive &, qint64 done, qint64)
{
    if (done > 0 && m_progressCounter > reportsBeforeYes) {
        m_isValid = true;
        m_finishedTryingPassword = true;
    } else {
        ++m_progressCounter;
    }
}

XADAction CVPasswordValidator::archiveExtractionOfEntryDidFail(XADArchive &, int, XADErrorCode code)
{
    m_isValid = !isAboutPassword(code);
    m_finishedTryingPassword = true;
    return XADAction::Abort;
}

bool CVPasswordValidator::archiveExtractionShouldStop(XADArchive &)
{
    return m_finishedTryingPassword || (cancelled && cancelled());
}

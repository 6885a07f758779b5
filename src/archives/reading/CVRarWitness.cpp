#include "archives/reading/CVRarWitness.h"

#include "archives/reading/CVReadingText.h"

CVRarWitness::CVRarWitness(QString path, const std::optional<QString> &password)
{
    if (password)
        m_keys.emplace(*password);
    m_set = CVRarSet::open(path, m_keys ? &*m_keys : nullptr);
    m_isGood = m_set.source && m_set.headers.state == CVRarHeaders::State::Good;
}

CVRarWitness::Verdict CVRarWitness::verdict() const
{
    if (!m_set.source)
        return {XADErrorCode::Damaged, m_set.error};
    switch (m_set.headers.state) {
    case CVRarHeaders::State::Damaged:
        return {XADErrorCode::Damaged, readingText("The header is damaged.")};
    case CVRarHeaders::State::PasswordWrong:
        return {XADErrorCode::PasswordWrongOpening, readingText("The password does not fit.")};
    case CVRarHeaders::State::PasswordWrongOrDamaged:
        return {XADErrorCode::PasswordOrDamage,
                readingText("The password does not fit, or the archive is damaged.")};
    case CVRarHeaders::State::NotRar:
    case CVRarHeaders::State::HeadersEncrypted:
    case CVRarHeaders::State::Unsupported:
        return {};
    case CVRarHeaders::State::Good:
        break;
    }
    if (m_set.isIncomplete())
        return {XADErrorCode::Damaged, readingText("A volume of the set is missing.")};
    return {};
}

bool CVRarWitness::needsOtherProgram(const CVRarFile &file)
{
    return file.isEncrypted && !file.isStored && file.unpackVersion >= 29 && file.unpackVersion < 50 &&
           file.size != 0;
}

QString CVRarWitness::otherProgramText()
{
    return readingText("No program that is installed can decrypt this kind of RAR. The package 7zip-rar, on "
                       "older systems p7zip-rar, can.");
}

CVRarWitness::Password CVRarWitness::password(const CVRarFile &file)
{
    if (!m_keys || !file.encryption || file.encryption->check.isEmpty())
        return Password::Unknown;
    const CVRarKeys::Five *const keys = m_keys->five(file.encryption->roundsLog2, file.encryption->salt);
    if (!keys)
        return Password::Unknown;
    return keys->check == file.encryption->check ? Password::Right : Password::Wrong;
}

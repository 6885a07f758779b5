#include "engine/model/CVEditArchiveOperationDataBinding.h"

#include "archives/CVArchive.h"
#include "archives/CVArchiveNameGenerator.h"
#include "archives/archive_string.h"
#include "engine/model/CVRarToolStatus.h"
#include "engine/model/CVSettings.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QMimeDatabase>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace {

QString text(const char *key)
{
    return QCoreApplication::translate("CVEditArchiveOperationDataBinding", key);
}

QString withoutExtension(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot > 0 ? name.left(dot) : name;
}

bool isAscii(const QString &string)
{
    return std::ranges::all_of(string, [](QChar c) { return c.unicode() < 128; });
}

} // namespace

CVEditArchiveOperationDataBinding::CVEditArchiveOperationDataBinding(const QString &formatSetting)
    : m_formatSetting(formatSetting)
    , m_archiveType(CVSettings::string(formatSetting))
    , m_archiveName(CVArchiveNameGenerator::fallbackName())
    , m_compressionLevel(static_cast<int>(CVSettings::integer(CVSettingsKey::compressionLevelSetting)))
    , m_imageFileFormat(static_cast<int>(CVSettings::integer(CVSettingsKey::imagePreCompressionFormat)))
    , m_audioFileFormat(static_cast<int>(CVSettings::integer(CVSettingsKey::audioPreCompressionFormat)))
{
    using namespace CVSettingsKey;
    for (const QString &setting : {formatSetting, compressionLevelSetting, imagePreCompressionFormat,
                                   audioPreCompressionFormat, CVSettingsKey::shouldEncrypt}) {
        m_settingObservers.push_back(
            CVSettings::observe(setting, [this, alive = std::weak_ptr<int>(m_alive)](const QString &changed) {
                if (LXMainThread::isCurrent()) {
                    if (!alive.expired())
                        settingChanged(changed);
                    return;
                }
                LXMainThread::post([this, alive, changed] {
                    if (!alive.expired())
                        settingChanged(changed);
                });
            }));
    }
}

CVConvertOperationDataBinding::CVConvertOperationDataBinding()
    : CVEditArchiveOperationDataBinding(CVSettingsKey::convertArchiveFormat)
{}

CVEditArchiveOperationDataBinding::~CVEditArchiveOperationDataBinding()
{
    stopFollowingSettings();
}

void CVEditArchiveOperationDataBinding::stopFollowingSettings()
{
    for (const int id : m_settingObservers)
        CVSettings::removeObserver(id);
    m_settingObservers.clear();
    m_alive.reset(); // for changes that are on their way
}

void CVEditArchiveOperationDataBinding::detachFromSettings()
{
    stopFollowingSettings();
    m_shouldEncrypt = shouldEncrypt();
}

void CVEditArchiveOperationDataBinding::forgoEncryption()
{
    stopFollowingSettings();
    m_shouldEncrypt = false;
}

std::span<const CVOperationDataBinding::Dependency> CVEditArchiveOperationDataBinding::dependencies() const
{
    static constexpr std::array table = {
        Dependency{"outputArchiveName"_L1, "archiveName"_L1},
        Dependency{"outputArchiveName"_L1, "archiveType"_L1},
        Dependency{"fileName"_L1, "outputArchiveName"_L1},
        Dependency{"smartArchiveName"_L1, "sourcePath"_L1},
        Dependency{"sourcePathExtension"_L1, "sourcePath"_L1},
        Dependency{"archiveTypeDescription"_L1, "archiveType"_L1},
        Dependency{"canEncrypt"_L1, "archiveType"_L1},
        Dependency{"archiveIcon"_L1, "archiveType"_L1},
        Dependency{"canSetCompressionLevel"_L1, "archiveType"_L1},
        Dependency{"canManipulateMultimedia"_L1, "archiveType"_L1},
        Dependency{"shouldInstallRAR"_L1, "archiveType"_L1},
        Dependency{"shouldUseZipCompressionForCorvaneFormat"_L1, "archiveType"_L1},
        Dependency{"shouldUseZipCompressionForCorvaneFormat"_L1, "shouldUseZipCompression"_L1},
        Dependency{"isValidPassword"_L1, "password"_L1},
        Dependency{"isNonZipArchiveOrZipWithValidPassword"_L1, "archiveType"_L1},
        Dependency{"isNonZipArchiveOrZipWithValidPassword"_L1, "password"_L1},
        Dependency{"passwordIsInvalid"_L1, "archiveType"_L1},
        Dependency{"passwordIsInvalid"_L1, "canEncrypt"_L1},
        Dependency{"passwordIsInvalid"_L1, "shouldEncrypt"_L1},
        Dependency{"passwordIsInvalid"_L1, "password"_L1},
        Dependency{"passwordIsInvalid"_L1, "passwordConfirmation"_L1},
        Dependency{"passwordMessage"_L1, "passwordIsInvalid"_L1},
        Dependency{"passwordsMatchOrShouldInstallRAR"_L1, "passwordIsInvalid"_L1},
    };
    return table;
}

void CVEditArchiveOperationDataBinding::store(const QString &setting, const QVariant &value)
{
    m_storing = true;
    CVSettings::setValue(setting, value);
    m_storing = false;
}

void CVEditArchiveOperationDataBinding::settingChanged(const QString &setting)
{
    if (m_storing)
        return;
    const auto number = [&] { return static_cast<int>(CVSettings::integer(setting)); };
    if (setting == m_formatSetting) {
        if (change(m_archiveType, CVSettings::string(setting), u"archiveType"_s))
            archiveTypeDidChange();
    } else if (setting == CVSettingsKey::compressionLevelSetting) {
        change(m_compressionLevel, number(), u"compressionLevel"_s);
    } else if (setting == CVSettingsKey::imagePreCompressionFormat) {
        change(m_imageFileFormat, number(), u"imageFileFormat"_s);
    } else if (setting == CVSettingsKey::audioPreCompressionFormat) {
        change(m_audioFileFormat, number(), u"audioFileFormat"_s);
    } else {
        didChange(u"shouldEncrypt"_s);
    }
}

void CVEditArchiveOperationDataBinding::setArchiveType(const QString &type)
{
    store(CVSettingsKey::createArchiveFormat, type);
    if (change(m_archiveType, type, u"archiveType"_s))
        archiveTypeDidChange();
}

void CVEditArchiveOperationDataBinding::setArchiveTypeValue(const QString &type)
{
    setArchiveType(type);
    CVSettings::setValue(CVSettingsKey::convertArchiveFormat, type);
}

void CVEditArchiveOperationDataBinding::archiveTypeDidChange()
{
    if (const auto receiver = delegate())
        receiver->operationDataDidChangeArchiveType(*this, m_archiveType);
    if (m_compressionLevel != compressionLevel())
        setCompressionLevel(compressionLevel());
}

int CVEditArchiveOperationDataBinding::compressionLevel() const
{
    const bool alwaysCompresses = m_archiveType == "tar.gz"_L1 || m_archiveType == "tar.bz2"_L1;
    return alwaysCompresses ? std::max(m_compressionLevel, 1) : m_compressionLevel;
}

void CVEditArchiveOperationDataBinding::setCompressionLevel(int level)
{
    store(CVSettingsKey::compressionLevelSetting, level);
    change(m_compressionLevel, level, u"compressionLevel"_s);
}

void CVEditArchiveOperationDataBinding::setImageFileFormat(int format)
{
    store(CVSettingsKey::imagePreCompressionFormat, format);
    change(m_imageFileFormat, format, u"imageFileFormat"_s);
}

void CVEditArchiveOperationDataBinding::setAudioFileFormat(int format)
{
    store(CVSettingsKey::audioPreCompressionFormat, format);
    change(m_audioFileFormat, format, u"audioFileFormat"_s);
}

QString CVEditArchiveOperationDataBinding::outputArchiveName() const
{
    if (m_archiveType.isEmpty() || archivePathExtension(m_archiveName).toLower() == m_archiveType.toLower())
        return m_archiveName;
    return m_archiveName + u'.' + m_archiveType;
}

QString CVEditArchiveOperationDataBinding::smartArchiveName() const
{
    if (m_sourcePath.isEmpty())
        return CVArchiveNameGenerator::fallbackName();
    QString path = m_sourcePath;
    while (path.size() > 1 && path.endsWith(u'/'))
        path.chop(1);
    const QString name = withoutExtension(lastComponent(path));
    return name.endsWith(".tar"_L1, Qt::CaseInsensitive) ? withoutExtension(name) : name;
}

QString CVEditArchiveOperationDataBinding::sourcePathExtension() const
{
    return archivePathExtension(m_sourcePath);
}

bool CVEditArchiveOperationDataBinding::canSetCompressionLevel() const
{
    return CVArchive::archiveForCreating(fileName())->canSetCompressionLevel();
}

bool CVEditArchiveOperationDataBinding::canEncrypt() const
{
    return CVArchive::archiveForCreating(fileName())->canEncrypt();
}

bool CVEditArchiveOperationDataBinding::canManipulateMultimedia() const
{
    return CVArchive::archiveForCreating(fileName())->canManipulateMultimedia();
}

QString CVEditArchiveOperationDataBinding::archiveTypeDescription() const
{
    return CVArchive::archiveForCreating(outputArchiveName())->archiveDescription();
}

QString CVEditArchiveOperationDataBinding::archiveIcon() const
{
    return QMimeDatabase().mimeTypeForFile("x."_L1 + m_archiveType, QMimeDatabase::MatchExtension).iconName();
}

bool CVEditArchiveOperationDataBinding::shouldEncrypt() const
{
    return m_shouldEncrypt.value_or(CVSettings::boolean(CVSettingsKey::shouldEncrypt));
}

bool CVEditArchiveOperationDataBinding::shouldUseZipCompressionForCorvaneFormat() const
{
    return m_shouldUseZipCompression && m_archiveType == "corvane"_L1;
}

bool CVEditArchiveOperationDataBinding::shouldInstallRAR() const
{
    const auto rar = CVRarToolStatus::shared();
    return m_archiveType == "rar"_L1 && (!rar->isRarInstalled() || rar->isOldVersionInstalled());
}

bool CVEditArchiveOperationDataBinding::isValidPassword() const
{
    return !m_password.startsWith(u'=');
}

bool CVEditArchiveOperationDataBinding::isNonZipArchiveOrZipWithValidPassword() const
{
    return m_archiveType != "zip"_L1 || isAscii(m_password);
}

bool CVEditArchiveOperationDataBinding::passwordIsInvalid() const
{
    if (!canEncrypt() || !shouldEncrypt())
        return false;
    const bool fits = isValidPassword() && isNonZipArchiveOrZipWithValidPassword();
    const bool same = m_password == m_passwordConfirmation;
    return !same || (!m_password.isEmpty() && !fits);
}

bool CVEditArchiveOperationDataBinding::passwordsMatchOrShouldInstallRAR() const
{
    const bool given = !m_password.isEmpty();
    if ((!given && (!canEncrypt() || !shouldEncrypt())) || (given && !passwordIsInvalid()))
        return true;
    return shouldInstallRAR();
}

QString CVEditArchiveOperationDataBinding::passwordMessage() const
{
    const bool given = !m_password.isEmpty();
    const bool confirmed = !m_passwordConfirmation.isEmpty();
    if (!given && !confirmed)
        return text("Please enter a password");
    if (given && !confirmed)
        return text("Please confirm password");
    if (!isValidPassword()) {
        return given ? text("Invalid starting character \"=\"")
                     : text("Please enter a valid password (\"=\" is an invalid first character)");
    }
    if (!isNonZipArchiveOrZipWithValidPassword()) {
        return given ? text("Invalid Unicode characters")
                     : text("Please enter a valid password (Unicode characters are not valid ZIP passwords)");
    }
    return text("Passwords do not match");
}

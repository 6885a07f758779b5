#pragma once

#include "engine/model/CVOperationDataBinding.h"
#include "engine/model/CVSettings.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

/// The settings of an archive to be written.
///
/// archiveType, imageFileFormat, audioFileFormat and compressionLevel are bound to the settings both
/// ways: they start with what was chosen last, every change is stored at once, and a change of the
/// setting elsewhere arrives here.
class CVEditArchiveOperationDataBinding : public CVOperationDataBinding
{
public:
    /// The setting holds the format to begin with.
    explicit CVEditArchiveOperationDataBinding(
        const QString &formatSetting = CVSettingsKey::createArchiveFormat);
    ~CVEditArchiveOperationDataBinding() override;

    /// What the job starts from; for a conversion the archive.
    const QString &sourcePath() const { return m_sourcePath; }
    void setSourcePath(const QString &path) { change(m_sourcePath, path, QStringLiteral("sourcePath")); }

    /// The format as a lower-case file extension.
    const QString &archiveType() const { return m_archiveType; }
    void setArchiveType(const QString &type);
    /// Stores it as the last choice for conversions as well.
    void setArchiveTypeValue(const QString &type);
    /// Tells nobody and stores nothing: for when a format has to be forced on one job.
    void setToZip() { m_archiveType = QStringLiteral("zip"); }

    /// 0 none to 9 best.
    /// At least 1 for formats whose tools cannot write without compressing, whatever another screen has
    /// stored.
    int compressionLevel() const;
    void setCompressionLevel(int level);

    /// Without an extension, as typed.
    const QString &archiveName() const { return m_archiveName; }
    void setArchiveName(const QString &name) { change(m_archiveName, name, QStringLiteral("archiveName")); }

    /// Empty counts as none.
    const QString &password() const { return m_password; }
    void setPassword(const QString &password) { change(m_password, password, QStringLiteral("password")); }
    const QString &passwordConfirmation() const { return m_passwordConfirmation; }
    void setPasswordConfirmation(const QString &password)
    {
        change(m_passwordConfirmation, password, QStringLiteral("passwordConfirmation"));
    }

    /// Codes of the formats that images and sound are converted into; 0 leaves them as they are.
    int imageFileFormat() const { return m_imageFileFormat; }
    void setImageFileFormat(int format);
    int audioFileFormat() const { return m_audioFileFormat; }
    void setAudioFileFormat(int format);

    /// Bytes of each part; 0 for one file.
    double chunkSize() const { return m_chunkSize; }
    void setChunkSize(double bytes) { change(m_chunkSize, bytes, QStringLiteral("chunkSize")); }

    bool shouldUseZipCompression() const { return m_shouldUseZipCompression; }
    void setShouldUseZipCompression(bool use)
    {
        change(m_shouldUseZipCompression, use, QStringLiteral("shouldUseZipCompression"));
    }

    /// For a job that is about to start: nothing of it follows the settings any more, not even
    /// shouldEncrypt(), so that a choice made for another archive cannot change this one, or take its
    /// encryption away.
    void detachFromSettings();
    /// The same, and never encrypted: for who cannot be asked for a password.
    void forgoEncryption();

    // Derived values.
    /// archiveName() with the extension of the format, unless it has it already.
    QString outputArchiveName() const;
    QString fileName() const { return outputArchiveName(); }
    /// A name made from sourcePath().
    QString smartArchiveName() const;
    QString sourcePathExtension() const;
    bool canSetCompressionLevel() const;
    bool canEncrypt() const;
    bool canManipulateMultimedia() const;
    QString archiveTypeDescription() const;
    /// Name of an icon for the file type.
    QString archiveIcon() const;
    bool shouldEncrypt() const;
    bool shouldUseZipCompressionForCorvaneFormat() const;
    bool shouldInstallRAR() const;
    bool isValidPassword() const;
    bool isNonZipArchiveOrZipWithValidPassword() const;
    bool passwordIsInvalid() const;
    bool passwordsMatchOrShouldInstallRAR() const;
    /// The hint under the password fields; meant for while passwordIsInvalid().
    QString passwordMessage() const;

protected:
    std::span<const Dependency> dependencies() const override;

private:
    void settingChanged(const QString &setting);
    void stopFollowingSettings();
    void archiveTypeDidChange();
    void store(const QString &setting, const QVariant &value);

    QString m_sourcePath;
    const QString m_formatSetting;
    QString m_archiveType;
    QString m_archiveName;
    QString m_password;
    QString m_passwordConfirmation;
    int m_compressionLevel = 0;
    int m_imageFileFormat = 0;
    int m_audioFileFormat = 0;
    double m_chunkSize = 0;
    bool m_shouldUseZipCompression = false;
    std::optional<bool> m_shouldEncrypt; ///< instead of the setting
    bool m_storing = false;              ///< the change of the setting under way is our own

    std::shared_ptr<int> m_alive = std::make_shared<int>(); ///< for calls posted from other threads
    std::vector<int> m_settingObservers;
};

/// A new archive.
class CVCreateOperationDataBinding : public CVEditArchiveOperationDataBinding
{
public:
    std::shared_ptr<class CVArchive> archive() const { return m_archive; }
    void setArchive(std::shared_ptr<class CVArchive> archive) { m_archive = std::move(archive); }

private:
    std::shared_ptr<class CVArchive> m_archive;
};

/// An archive made from another one. A type of its own, so that the two are never taken for each other.
class CVConvertOperationDataBinding : public CVEditArchiveOperationDataBinding
{
public:
    /// Begins with the format that was chosen for converting the last time.
    CVConvertOperationDataBinding();
};

#pragma once

#include "platform/LXSettingsStore.h"

#include <QByteArrayList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

/// Keys of the settings. Each is written here once; the names are those in the file.
namespace CVSettingsKey {
inline const QString createArchiveFormat = QStringLiteral("CreateArchiveFormat");
inline const QString convertArchiveFormat = QStringLiteral("ConvertArchiveFormat");
inline const QString audioPreCompressionFormat = QStringLiteral("AudioPreCompressionFormat");
inline const QString imagePreCompressionFormat = QStringLiteral("ImagePreCompressionFormat");
inline const QString compressionLevelSetting = QStringLiteral("CompressionLevelSetting");
inline const QString extractDestination = QStringLiteral("ExtractDestination");
inline const QString extractDefaultDestination = QStringLiteral("ExtractDefaultDestination");
inline const QString inspectApplicationBundle = QStringLiteral("InspectApplicationBundle");
inline const QString openInPlace = QStringLiteral("OpenInPlace");
inline const QString archiveFateAfterExtract = QStringLiteral("ArchiveFateAfterExtract");
inline const QString showInFinderAfterExtract = QStringLiteral("ShowInFinderAfterExtract");
inline const QString ignoreMacSpecificFiles = QStringLiteral("IgnoreMacSpecificFiles");
inline const QString sound = QStringLiteral("Sound");
inline const QString shouldOfferRAR = QStringLiteral("ShouldOfferRAR");
inline const QString lastLaunchedVersion = QStringLiteral("DCLastLaunchedVersion");
inline const QString multipleViewWidth = QStringLiteral("RSMultupleViewWidth");
inline const QString multipleViewHeight = QStringLiteral("RSMultupleViewHeight");
inline const QString multipleDoneViewWidth = QStringLiteral("RSMultupleDoneViewWidth");
inline const QString multipleDoneViewHeight = QStringLiteral("RSMultupleDoneViewHeight");
inline const QString numberOfSimultaneousOperations = QStringLiteral("NumberOfSimultaneousOperations");
inline const QString skipArchivePreview = QStringLiteral("SkipArchivePreview");
inline const QString skipOptionsView = QStringLiteral("SkipOptionsView");
inline const QString skipDoneView = QStringLiteral("SkipDoneView");
inline const QString tempDirs = QStringLiteral("TempDirs");
inline const QString shouldShowPassword = QStringLiteral("ShouldShowPassword");
inline const QString shouldEncrypt = QStringLiteral("ShouldEncrypt");
} // namespace CVSettingsKey

/// Where extracted files go.
enum class CVExtractDestination : int {
    ArchiveFolder = 0, ///< the folder that holds the archive
    AskMe = 1,
    DefaultFolder = 2, ///< the one in "ExtractDefaultDestination"
};

/// What happens to an archive, with all parts of its set, after a successful extraction.
enum class CVArchiveFate : int { Keep = 0, Trash = 1, Delete = 2 };

/// The one settings store of the application with its defaults. Settings are read where they are used
/// and never cached. Any thread.
class CVSettings
{
public:
    /// The store in use, with the defaults registered.
    static std::shared_ptr<LXSettingsStore> store();
    /// For tests, and before anything has read a setting. Null brings the person's own store back.
    static void setStore(std::shared_ptr<LXSettingsStore> store);
    static QVariantHash defaults();
    static QHash<QString, LXSettingsStore::Check> checks();
    /// For people, to be said once at the start: what of the stored settings is not in force. Reads the disk.
    static std::optional<LXError> problem();

    static QVariant value(const QString &key) { return store()->value(key); }
    static bool boolean(const QString &key) { return store()->boolean(key); }
    static qint64 integer(const QString &key) { return store()->integer(key); }
    static QString string(const QString &key) { return store()->string(key); }
    static QStringList stringList(const QString &key) { return store()->stringList(key); }
    static QByteArrayList bytesList(const QString &key) { return store()->bytesList(key); }
    static void setValue(const QString &key, const QVariant &value) { store()->setValue(key, value); }
    static LXResult<void> flush() { return store()->flush(); }
    static int observe(const QString &key, LXSettingsStore::Observer observer)
    {
        return store()->observe(key, std::move(observer));
    }
    static void removeObserver(int id) { store()->removeObserver(id); }

    /// An option of the command line: wins over the stored value and is never written.
    static void overrideForThisRun(const QString &key, const QVariant &value)
    {
        store()->setOverride(key, value);
    }
};

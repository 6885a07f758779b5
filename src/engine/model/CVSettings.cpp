#include "engine/model/CVSettings.h"

#include "platform/LXDesktopFolders.h"

#include <QCoreApplication>

#include <mutex>
#include <utility>

namespace {

struct Shared
{
    std::mutex mutex;
    std::shared_ptr<LXSettingsStore> store;
};

Shared &shared()
{
    static Shared instance;
    return instance;
}

} // namespace

QVariantHash CVSettings::defaults()
{
    using namespace CVSettingsKey;
    return {
        {createArchiveFormat, QStringLiteral("zip")},
        {convertArchiveFormat, QStringLiteral("zip")},
        {audioPreCompressionFormat, 3},
        {imagePreCompressionFormat, 2},
        {compressionLevelSetting, 5},
        {extractDestination, 0},
        {extractDefaultDestination, LXDesktopFolders::desktopFolder()},
        {inspectApplicationBundle, false},
        {openInPlace, true},
        {archiveFateAfterExtract, 0},
        {showInFinderAfterExtract, false},
        {ignoreMacSpecificFiles, true},
        {sound, true},
        {shouldOfferRAR, true},
        {lastLaunchedVersion, 0},
        {multipleViewWidth, 460},
        {multipleViewHeight, 295},
        {multipleDoneViewWidth, 460},
        {multipleDoneViewHeight, 295},
        {numberOfSimultaneousOperations, 5},
        {skipArchivePreview, false},
        {skipOptionsView, false},
        {skipDoneView, false},
        {tempDirs, QStringList()},
        {shouldShowPassword, false},
        {shouldEncrypt, false},
    };
}

QHash<QString, LXSettingsStore::Check> CVSettings::checks()
{
    using namespace CVSettingsKey;
    QHash<QString, LXSettingsStore::Check> checks;
    const auto number = [&checks](const QString &key, qint64 least, qint64 most) {
        checks.insert(key, [least, most](const QVariant &stored) {
            bool isNumber = false;
            const qint64 value = stored.toLongLong(&isNumber);
            return isNumber && value >= least && value <= most;
        });
    };
    number(compressionLevelSetting, 0, 9);
    number(extractDestination, 0, static_cast<int>(CVExtractDestination::DefaultFolder));
    number(archiveFateAfterExtract, 0, static_cast<int>(CVArchiveFate::Delete));
    number(numberOfSimultaneousOperations, 1, 1000);
    for (const QString &key :
         {multipleViewWidth, multipleViewHeight, multipleDoneViewWidth, multipleDoneViewHeight})
        number(key, 1, 100000);
    for (const QString &key : {createArchiveFormat, convertArchiveFormat}) {
        checks.insert(key, [](const QVariant &stored) {
            static const QStringList known = {
                QStringLiteral("zip"),    QStringLiteral("7z"),      QStringLiteral("tar"),
                QStringLiteral("tar.gz"), QStringLiteral("tar.bz2"), QStringLiteral("tgz"),
                QStringLiteral("tar.xz"), QStringLiteral("tar.Z"),   QStringLiteral("rar"),
                QStringLiteral("xar"),    QStringLiteral("corvane")};
            return known.contains(stored.toString());
        });
    }
    checks.insert(extractDefaultDestination, [](const QVariant &stored) {
        return stored.toString().startsWith(u'/') || stored.toString().startsWith(u'~');
    });
    return checks;
}

std::optional<LXError> CVSettings::problem()
{
    if (auto unreadable = store()->readProblem())
        return unreadable;
    const QStringList wrong = store()->wrongValues();
    if (wrong.isEmpty())
        return std::nullopt;
    return LXError{.domain = QStringLiteral("CorvaneErrorDomain"),
                   .code = 1,
                   .description =
                       QCoreApplication::translate("CVSettings", "Some settings are not followed: %1.")
                           .arg(wrong.join(QStringLiteral(", "))),
                   .reason = QCoreApplication::translate("CVSettings", "Their values mean nothing."),
                   .suggestion = QCoreApplication::translate(
                       "CVSettings", "What the program starts with is used instead. Set them anew.")};
}

std::shared_ptr<LXSettingsStore> CVSettings::store()
{
    const std::lock_guard lock(shared().mutex);
    if (!shared().store) {
        shared().store = std::make_shared<LXSettingsStore>(LXSettingsStore::defaultFilePath());
        shared().store->registerDefaults(defaults());
        shared().store->registerChecks(checks());
    }
    return shared().store;
}

void CVSettings::setStore(std::shared_ptr<LXSettingsStore> store)
{
    if (store) {
        store->registerDefaults(defaults());
        store->registerChecks(checks());
    }
    const std::lock_guard lock(shared().mutex);
    shared().store = std::move(store);
}

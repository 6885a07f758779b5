#include "engine/model/CVSettings.h"

#include "platform/LXDesktopFolders.h"

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

std::shared_ptr<LXSettingsStore> CVSettings::store()
{
    const std::lock_guard lock(shared().mutex);
    if (!shared().store) {
        shared().store = std::make_shared<LXSettingsStore>(LXSettingsStore::defaultFilePath());
        shared().store->registerDefaults(defaults());
    }
    return shared().store;
}

void CVSettings::setStore(std::shared_ptr<LXSettingsStore> store)
{
    if (store)
        store->registerDefaults(defaults());
    const std::lock_guard lock(shared().mutex);
    shared().store = std::move(store);
}

#include "engine/control/CVForcedDestination.h"

#include "engine/model/CVSettings.h"

namespace {

struct Forcing
{
    int holders = 0;
    bool overridden = false;
};

Forcing &forcing()
{
    static Forcing instance;
    return instance;
}

} // namespace

CVForcedDestination::CVForcedDestination()
{
    Forcing &now = forcing();
    if (now.holders++ > 0 || CVSettings::integer(CVSettingsKey::extractDestination) == 0)
        return;
    now.overridden = true;
    CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                   static_cast<int>(CVExtractDestination::ArchiveFolder));
}

CVForcedDestination::~CVForcedDestination()
{
    Forcing &now = forcing();
    if (--now.holders > 0 || !now.overridden)
        return;
    now.overridden = false;
    // What the person chose meanwhile only reached the override.
    const QVariant chosen = CVSettings::value(CVSettingsKey::extractDestination);
    CVSettings::overrideForThisRun(CVSettingsKey::extractDestination, {});
    if (chosen.toInt() != static_cast<int>(CVExtractDestination::ArchiveFolder))
        CVSettings::setValue(CVSettingsKey::extractDestination, chosen);
}

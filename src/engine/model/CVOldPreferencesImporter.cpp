#include "engine/model/CVOldPreferencesImporter.h"

#include "engine/model/CVSettings.h"

#include <QFileInfo>

void CVOldPreferencesImporter::importSettingsFromOldVersion() const
{
    using namespace CVSettingsKey;
    if (CVSettings::integer(lastLaunchedVersion) > 0 || !QFileInfo(m_oldStorePath).isFile())
        return;
    // Settings that cannot be read now are not settings that were never made.
    if (CVSettings::store()->readProblem())
        return;
    const LXSettingsStore old(m_oldStorePath);
    for (const QString &key : {openInPlace, inspectApplicationBundle, ignoreMacSpecificFiles,
                               extractDestination, extractDefaultDestination, sound, createArchiveFormat,
                               convertArchiveFormat, archiveFateAfterExtract, showInFinderAfterExtract}) {
        if (old.isStored(key))
            CVSettings::setValue(key, old.value(key));
    }
    // A value that cannot be written stays in force for this run, which is all an import can do.
    (void)CVSettings::flush();
}

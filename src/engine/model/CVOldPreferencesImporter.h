#pragma once

#include <QString>

/// Takes over the choices of a person who used the earlier version.
class CVOldPreferencesImporter
{
public:
    /// The settings file of the earlier version; it need not exist.
    explicit CVOldPreferencesImporter(const QString &oldStorePath)
        : m_oldStorePath(oldStorePath)
    {}

    /// Once, at start. Nothing happens when this version has been launched before ("DCLastLaunchedVersion"
    /// above 0) or when there was no earlier one; otherwise ten of its settings are stored as our own.
    void importSettingsFromOldVersion() const;

private:
    QString m_oldStorePath;
};

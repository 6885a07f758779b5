#pragma once

#include <QString>

/// What a file is, as far as opening it goes. Any thread, but for the main one: reads the beginning of the
/// file.
namespace LXOpening {

struct Look
{
    /// See LXWorkspace::mayOpen().
    bool mayOpen = false;
    /// The type whose default application opens it; empty when the file cannot be looked at. A plain text
    /// for every kind of script, because the application for the script's own type may be its interpreter.
    QString mimeType;
};

Look look(const QString &path);

} // namespace LXOpening

#pragma once

#include <QString>

/// What a file is, as far as opening it goes. Any thread, but for the main one: reads the beginning of the
/// file.
namespace LXOpening {

struct Look
{
    /// See LXWorkspace::mayOpen().
    bool mayOpen = false;
    /// The type that decides about the application; empty when the file cannot be looked at.
    QString mimeType;
};

Look look(const QString &path);

} // namespace LXOpening

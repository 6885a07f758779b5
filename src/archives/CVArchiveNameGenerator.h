#pragma once

#include <QString>

class CVFileNode;

/// The name that a new archive gets before the person types one.
class CVArchiveNameGenerator
{
public:
    /// Without an extension of an archive. `files` is the root of what is to be packed: the name of
    /// its only child, or "Archive".
    static QString defaultArchiveNameForFiles(const CVFileNode &files);
    /// "Archive" in the person's language.
    static QString fallbackName();
};

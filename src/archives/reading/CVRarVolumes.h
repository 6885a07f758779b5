#pragma once

#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVRarHeaders.h"

#include <QStringList>

#include <memory>

/// A RAR archive with all its volumes, whichever of them was opened.
struct CVRarSet
{
    std::shared_ptr<const CVArchiveSource> source; ///< null: `error` says why it cannot be read
    qint64 offset = 0;                             ///< of the signature in the first volume
    CVRarHeaders headers;
    QString error;

    /// A part of a file or a volume is not there.
    bool isIncomplete() const;

    static CVRarSet open(const QString &path, CVRarKeys *keys = nullptr);
};

/// Where a RAR starts in the file: behind the program of one that unpacks itself. Below zero: nowhere.
qint64 cvRarOffset(const CVArchiveSource &source);

/// The first volume of the set that the file belongs to, going by its name.
QString cvFirstRarVolume(const QString &path, bool usesPartNumbers);

/// The volumes that exist, from the first on, up to the first one missing.
QStringList cvRarVolumes(const QString &firstVolume, bool usesPartNumbers);

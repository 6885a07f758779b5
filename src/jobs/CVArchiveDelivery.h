#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <variant>

/// Brings a finished archive from the hidden folder in which it was written to its final place, in one
/// step, so that nothing incomplete is ever seen there, whatever ends the program.
///
/// The staging folder is on the destination's file system (it lies in the destination's folder) and is
/// removed by its owner afterwards, with what was replaced if it is still there. The archive lies in it
/// under the destination's last component; volumes with ".001", ".002", … behind that.
/// An error or Exists leaves the new archive in the staging folder and the old one where it was.
/// Thread: a worker.
class CVArchiveDelivery
{
public:
    /// There is something at the destination that the person has not agreed to replace.
    struct Exists
    {
        QString path; ///< the first, by name
    };
    /// The final path, or what stood against it.
    using Result = std::variant<QString, Exists, LXError>;

    CVArchiveDelivery(QString stagingFolder, QString destination)
        : m_staging(std::move(stagingFolder))
        , m_destination(std::move(destination))
    {}

    /// Where the back end has to write.
    QString stagedPath() const;

    /// One file. With mayReplace whatever is at the destination goes once the archive is there.
    Result deliverFile(bool mayReplace) const;

    /// A set of volumes, as a new folder beside the destination, named after it (see folderName()) and
    /// made unique. With mayReplace an older set at the destination, and a file there, go as well.
    Result deliverVolumes(bool mayReplace) const;

    /// Whether volumes were written.
    bool hasStagedVolumes() const;

    /// What replacing means: the destination itself, and the volumes of an older set when volumes are to
    /// be written. Sorted by name, a file without number first.
    static QStringList itemsInTheWay(const QString &destination, bool volumes);

    /// Of the folder for volumes: the last component without the extension of the archive, and without
    /// one more: "x.7z" gives "x", "my.x.7z" gives "my".
    static QString folderName(const QString &destination);

private:
    LXResult<void> replaceWith(const QByteArray &staged, const QByteArray &target) const;

    QString m_staging;
    QString m_destination;
};

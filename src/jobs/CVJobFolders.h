#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <memory>

class CVOperation;

/// Where a job delivers and where it works: the output folder, a hidden work directory in it that is on the
/// list of directories to be cleaned, and the access to both. All of it is given up with the object, and what
/// is left in the work directory removed.
/// Thread: the job's worker. The operation is borrowed and outlives the object.
class CVJobFolders
{
public:
    struct Choice
    {
        std::shared_ptr<CVJobFolders> folders; ///< null: the person wants none, or access was refused
        bool wasRefused = false;
    };
    /// Chooses the folders by the settings, for a job on `inputFile`, and asks for access to the work
    /// directory and to `alsoRead`. An error when the directory could not be made.
    static LXResult<Choice> choose(CVOperation &operation, const QString &kindOfJob, const QString &inputFile,
                                   const QStringList &alsoRead = {});
    ~CVJobFolders();
    CVJobFolders(const CVJobFolders &) = delete;
    CVJobFolders &operator=(const CVJobFolders &) = delete;

    const QString &outputDirectory() const { return m_outputDirectory; }
    const QString &workDirectory() const { return m_workDirectory; }

    /// Moves the item (the work directory itself, or something in it) to the output folder, under that
    /// name or the next free one. Its path, or the error for people.
    LXResult<QString> deliver(const QString &item, const QString &name) const;

private:
    explicit CVJobFolders(CVOperation &operation)
        : m_operation(operation)
    {}

    CVOperation &m_operation;
    QString m_outputDirectory;
    QString m_workDirectory;
    QString m_authorized;
};

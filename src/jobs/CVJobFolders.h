#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

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
    enum class Access {
        UnlessChosen, ///< a folder that was chosen in a panel is accessible already
        Always,
    };
    /// Chooses the folders by the settings, for a job on `inputFile`, and asks for access to the work
    /// directory and to `alsoRead`. An error when the directory could not be made.
    static LXResult<Choice> choose(CVOperation &operation, const QString &kindOfJob, const QString &inputFile,
                                   const QStringList &alsoRead = {}, Access access = Access::UnlessChosen);
    /// The same with a work directory that was made in a folder known before; empty: nobody allowed it.
    static LXResult<Choice> take(CVOperation &operation, const LXResult<QString> &workDirectory,
                                 const QString &outputDirectory, const QStringList &alsoRead = {},
                                 Access access = Access::UnlessChosen);
    ~CVJobFolders();
    CVJobFolders(const CVJobFolders &) = delete;
    CVJobFolders &operator=(const CVJobFolders &) = delete;

    const QString &outputDirectory() const { return m_outputDirectory; }
    const QString &workDirectory() const { return m_workDirectory; }

    /// Leaves the work directory, and its entry on the list, to whoever uses what is in it.
    void keepWorkDirectory() { m_keepsWorkDirectory = true; }

    /// Moves the item (the work directory itself, or something in it) to the output folder, under that
    /// name or the next free one. Its path, or the error for people.
    LXResult<QString> deliver(const QString &item, const QString &name) const;
    /// The error for people when something could not be moved, or was not there.
    static LXError deliveryError(const QString &detail);

    /// Asks for access to the paths, for work in `destination`, and waits. The path to be handed to
    /// CVOperation::startSecurelyAccessing(), and whether an answer came at all: none after a cancel.
    struct Grant
    {
        bool granted = false;
        QString path;
    };
    static std::optional<Grant> askForAccess(CVOperation &operation, const QString &destination,
                                             const QStringList &paths, Access access);

private:
    explicit CVJobFolders(CVOperation &operation)
        : m_operation(operation)
    {}

    CVOperation &m_operation;
    QString m_outputDirectory;
    QString m_workDirectory;
    QString m_authorized;
    bool m_keepsWorkDirectory = false;
};

#include "ui/outline/CVPrivateExtraction.h"

#include "engine/model/CVOpenedEntries.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "platform/LXDesktopFolders.h"
#include "platform/LXUserNotifications.h"
#include "util/LXBackground.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"
#include "util/unique_string.h"

#include <QPointer>

#include <cerrno>

namespace {

QString problemOf(int systemError)
{
    const QString folder = LXDisplay::displayEscaped(LXDesktopFolders::temporaryFolder());
    switch (CVFileError::codeForErrno(systemError)) {
    case CVFileError::outOfSpace:
        return CVPrivateExtraction::tr(
                   "Nothing could be extracted because the disk of “%1” is full. Delete files "
                   "from it and try again.")
            .arg(folder);
    case CVFileError::noPermission:
    case CVFileError::volumeReadOnly:
        return CVPrivateExtraction::tr(
                   "Nothing could be extracted because you may not write to “%1”. Extract to "
                   "another folder instead.")
            .arg(folder);
    default:
        return CVPrivateExtraction::tr("Nothing could be extracted because no folder could be made in “%1”. "
                                       "Extract to another folder instead.")
            .arg(folder);
    }
}

} // namespace

/// Made by a worker and removed by one when nobody has it any more, which may be after the object: a job that
/// was cancelled writes for a moment longer.
class CVPrivateExtraction::Folder
{
public:
    Folder() = default;
    ~Folder()
    {
        if (!m_isMade)
            return;
        // The end of the program waits for it.
        runInBackground([path = m_path] {
            if (!CVOpenedEntries::letGo(path))
                LXUserNotifications::shared()->post(CVOpenedEntries::titleAboutKept(),
                                                    CVOpenedEntries::textAboutKept({path}));
        });
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    /// 0 or an errno. Once, on a worker.
    int make()
    {
        const auto made = CVWorkDirectoryManager::makeWorkDir(m_path);
        m_isMade = made && CVOpenedEntries::willFill(m_path);
        if (made && !m_isMade) {
            CVWorkDirectoryManager::discardWorkDir(m_path);
            return EIO;
        }
        return made ? 0 : made.error().code;
    }
    const QString &path() const { return m_path; }

private:
    const QString m_path =
        LXDesktopFolders::temporaryFolder() + u'/' + CVWorkDirectoryManager::namePrefix() + uniqueString();
    bool m_isMade = false;
};

std::shared_ptr<CVPrivateExtraction> CVPrivateExtraction::start(const CVArchivePreviewServices &services,
                                                                const QStringList &entryPaths,
                                                                const QString &archivePath, QObject *owner)
{
    const std::shared_ptr<CVPrivateExtraction> extraction(new CVPrivateExtraction);
    extraction->m_folder = std::make_shared<Folder>();
    runInBackground([folder = extraction->m_folder, weak = std::weak_ptr(extraction),
                     extract = services.extractFiles, entryPaths, archivePath, guard = QPointer(owner)] {
        const int failure = folder->make();
        LXMainThread::post([=] {
            const auto self = weak.lock();
            if (!self || self->m_isFinished)
                return;
            if (failure != 0)
                self->m_problem = problemOf(failure);
            if (failure != 0 || !guard)
                return self->finish({});
            // The answer holds the folder for as long as there is something that may write to it.
            self->m_stop = extract(entryPaths, archivePath, folder->path(),
                                   [weak, folder](const QStringList &delivered) {
                                       if (const auto held = weak.lock())
                                           held->finish(delivered);
                                   });
        });
    });
    return extraction;
}

CVPrivateExtraction::~CVPrivateExtraction()
{
    cancel();
}

void CVPrivateExtraction::cancel()
{
    if (m_isFinished)
        return;
    if (m_stop)
        m_stop();
    finish({});
}

void CVPrivateExtraction::finish(const QStringList &delivered)
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    m_delivered = delivered;
    // Held by the task, so that it is not let go before.
    if (!delivered.isEmpty())
        runInBackground([folder = m_folder] { CVOpenedEntries::wereDelivered(folder->path()); });
    Q_EMIT finished();
}

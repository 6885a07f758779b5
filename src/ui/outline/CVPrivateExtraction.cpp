#include "ui/outline/CVPrivateExtraction.h"

#include "engine/model/CVWorkDirectoryManager.h"
#include "util/unique_string.h"

#include <QDir>
#include <QThreadPool>

std::shared_ptr<CVPrivateExtraction> CVPrivateExtraction::start(const CVArchivePreviewServices &services,
                                                                const QStringList &entryPaths,
                                                                const QString &archivePath)
{
    if (!services.extractFiles)
        return nullptr;
    const QString folder = QDir::tempPath() + u'/' + CVWorkDirectoryManager::namePrefix() + uniqueString();
    if (!CVWorkDirectoryManager::makeWorkDir(folder, 0700))
        return nullptr;
    const std::shared_ptr<CVPrivateExtraction> extraction(new CVPrivateExtraction);
    extraction->m_folder = folder;
    extraction->m_stop = services.extractFiles(
        entryPaths, archivePath, folder, [held = std::weak_ptr(extraction)](const QStringList &delivered) {
            const auto self = held.lock();
            if (!self || self->m_isFinished)
                return;
            self->m_isFinished = true;
            self->m_delivered = delivered;
            Q_EMIT self->finished();
        });
    return extraction;
}

CVPrivateExtraction::~CVPrivateExtraction()
{
    cancel();
    // The end of the program waits for it.
    QThreadPool::globalInstance()->start(
        [folder = m_folder] { CVWorkDirectoryManager::discardWorkDir(folder); });
}

void CVPrivateExtraction::cancel()
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    if (m_stop)
        m_stop();
    Q_EMIT finished();
}

#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

/// What the screen with the contents of archives asks of the engine.
struct CVArchivePreviewServices
{
    std::function<int()> numberOfInputFiles;
    std::function<void()> extractArchive;
    std::function<void()> showSplitFile;
    std::function<void(const QString &entryPath, const QString &archivePath)> extractThenOpenFile;
    /// `ended` is called once, with the paths delivered, and may be called at once. What comes back cancels
    /// the extraction.
    std::function<std::function<void()>(const QStringList &entryPaths, const QString &archivePath,
                                        const QString &destination,
                                        std::function<void(const QStringList &delivered)> ended)>
        extractFiles;
};

/// Some entries of an archive in a folder that only the person can read, below the temporary folder. The
/// folder is on the list of work directories, so that it is cleaned up even after a crash, and is removed
/// with the last holder of the object. Main thread.
class CVPrivateExtraction final : public QObject
{
    Q_OBJECT

public:
    /// Null when no folder could be made.
    static std::shared_ptr<CVPrivateExtraction> start(const CVArchivePreviewServices &services,
                                                      const QStringList &entryPaths,
                                                      const QString &archivePath);
    ~CVPrivateExtraction() override;

    bool isFinished() const { return m_isFinished; }
    /// None after a failure or a cancel.
    const QStringList &delivered() const { return m_delivered; }
    /// Ends it where it is still under way.
    void cancel();

Q_SIGNALS:
    void finished();

private:
    CVPrivateExtraction() = default;

    QString m_folder;
    QStringList m_delivered;
    std::function<void()> m_stop;
    bool m_isFinished = false;
};

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
    /// For the person, who is told of the end.
    std::function<void(const QStringList &entryPaths, const QString &archivePath, const QString &destination)>
        extractSelection;
    /// For the screen. `ended` is called once, with the paths delivered, and may be called at once. It is
    /// kept until nothing writes to the destination any more and let go on any thread. What comes back
    /// cancels the extraction.
    std::function<std::function<void()>(const QStringList &entryPaths, const QString &archivePath,
                                        const QString &destination,
                                        std::function<void(const QStringList &delivered)> ended)>
        extractFiles;
};

/// Some entries of an archive in a folder that only the person can read, below the temporary folder. The
/// folder is on the list of work directories, so that it is cleaned up even after a crash, and is removed
/// with the last holder of the object, once nothing is written to it any more. Main thread; the disk is a
/// worker's.
class CVPrivateExtraction final : public QObject
{
    Q_OBJECT

public:
    /// Never finished at once. The services are those of the owner and are asked only while there is one.
    static std::shared_ptr<CVPrivateExtraction> start(const CVArchivePreviewServices &services,
                                                      const QStringList &entryPaths,
                                                      const QString &archivePath, QObject *owner);
    ~CVPrivateExtraction() override;

    bool isFinished() const { return m_isFinished; }
    /// None after a failure or a cancel.
    const QStringList &delivered() const { return m_delivered; }
    /// For people: why there is no folder for them, and what to do. Empty when there is one.
    const QString &problem() const { return m_problem; }
    /// Ends it where it is still under way.
    void cancel();

Q_SIGNALS:
    void finished();

private:
    class Folder;

    CVPrivateExtraction() = default;
    void finish(const QStringList &delivered);

    std::shared_ptr<Folder> m_folder;
    QStringList m_delivered;
    QString m_problem;
    std::function<void()> m_stop;
    bool m_isFinished = false;
};

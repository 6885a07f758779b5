#pragma once

#include "filetree/CVFileNode.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <deque>
#include <functional>
#include <memory>
#include <stop_token>

class CVOperationController;

/// Decides what happens with each batch of paths that reaches a window: extracted at once, listed, packed,
/// or shown so that the person chooses.
///
/// Batches are taken one after another. Those that come while the application starts wait for
/// setLaunchComplete(); those that find a job under way when their turn comes open a window of their own,
/// as far as they are archives. The disk is looked at on a thread of its own.
/// Main thread. Owned by the window's controller.
class CVOpenFilesController
{
public:
    explicit CVOpenFilesController(CVOperationController &delegate);
    ~CVOpenFilesController();
    CVOpenFilesController(const CVOpenFilesController &) = delete;
    CVOpenFilesController &operator=(const CVOpenFilesController &) = delete;

    /// From the desktop.
    void openFiles(const QStringList &paths);
    /// Asks for them with a panel.
    void openFile();
    void addFiles();
    /// Dropped on the first screen.
    void hasNewFiles(const QStringList &paths);
    /// Added to what the window holds.
    void tryToAddFiles(const QStringList &paths);
    void addAndExtractArchives(const QStringList &paths);
    /// Dropped while a job runs, or opened while one does.
    void openWindowForArchives(const QStringList &paths);

    void setLaunchComplete();
    /// Goes on with what waits for the end of a job.
    void takeNextBatch();
    /// `f` runs when the tree holds everything that was added, at once if it does already.
    void whenTreeIsComplete(std::function<void()> f);
    bool isTreeComplete() const { return m_additions == 0; }
    void close();
    /// Leaves the batch that is being looked at, and goes back to the first screen; false when there is none.
    bool abandon();

    /// A batch that waits or is being looked at will be extracted in place.
    bool extractInPlace() const;

    /// About the top level of the window's tree, without a look at the disk.
    bool isArchiveSet() const;
    bool isSplitFileSet() const;

    static bool isExtractable(const QString &path);

private:
    struct Batch
    {
        QStringList paths;
        bool isInPlace = false;
        bool goesBackToMain = false; ///< it did not come from the first screen
        // By the settings and the Shift key when it arrived.
        bool skipOptions = false;
        bool skipPreview = false;
        bool forceChoice = false;
    };
    /// What a path is, as bits.
    enum Kind : unsigned { Folder = 1, Archive = 2, SplitFile = 4 };
    /// What was found on the disk.
    struct Found
    {
        CVFileNode::List nodes;
        QHash<QString, unsigned> kinds; ///< of the top level, by path
        bool isPreviewable = true;
    };

    void route(const QStringList &paths, bool inPlace);
    void add(Batch batch);
    /// The job on show was cancelled: the window is free in a moment, perhaps shows the first screen already.
    bool isJobEnding() const;
    void start(const Batch &batch);
    void decide(const Batch &batch, const Found &found);
    void stopProgressLater();
    /// Reads the disk elsewhere, then calls `then` on the main thread; not once it was stopped.
    void look(const QStringList &paths, std::stop_token stop, std::function<void(Found found)> then);
    void replaceTree(const Found &found);
    void addToTree(const Found &found);
    static unsigned kindByName(const QString &path);
    unsigned kindOf(const CVFileNode::Pointer &node) const;
    bool hasFolder() const;

    CVOperationController &m_delegate;
    std::deque<Batch> m_batches;
    std::deque<std::function<void()>> m_waiting; ///< for a complete tree
    QHash<QString, unsigned> m_kinds;            ///< of the top level of the tree, by path
    QTimer m_stopProgress;
    std::stop_source m_stop;
    std::stop_source m_stopLooking; ///< at a batch
    int m_additions = 0;            ///< being looked at
    bool m_isLaunchComplete = false;
    bool m_isDeciding = false;
    bool m_isLooking = false; ///< at a batch, with the analysing screen on show
    bool m_decidesInPlace = false;
    bool m_isClosed = false;
};

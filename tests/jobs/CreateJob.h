#pragma once

#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperationDelegate.h"
#include "filetree/CVFileNode.h"
#include "support/TestTree.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>
#include <mutex>

#include <sys/types.h>

/// Writes down what a create job says and answers its questions. Hooks run on the thread of the call.
class CreateRecorder final : public CVOperationDelegate
{
public:
    QStringList inputs;
    CVAlertResult answer = CVAlertResult::Cancel;
    std::function<void(double done, double total)> onProgress = [](double, double) {};
    std::function<void(const QString &path)> onQuestion = [](const QString &) {};

    /// "completed", "completed many", "failed", "mismatch", "cancelled": what was reported as an end.
    QStringList ends() const { return locked(m_ends); }
    QStringList results() const { return locked(m_results); }
    QStringList questions() const { return locked(m_questions); }
    QStringList skipped() const { return locked(m_skipped); }
    LXError error() const { return locked(m_error); }
    LXError shownError() const { return locked(m_shownError); }
    /// Of the phase that counts items: the last "done", and the total.
    std::pair<double, double> itemProgress() const { return locked(m_itemProgress); }

    std::shared_ptr<CVFileNode> operationInputFiles(CVOperation *) override;
    void operationHasMadeProgress(CVOperation *, double done, double total) override;
    CVAlertResult operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *, const QString &path) override;
    void operationSkippedEntries(CVOperation *, const QString &path,
                                 const std::vector<CVSkippedEntry> &entries) override;
    void operationNeedsToShowError(CVOperation *, const LXError &error) override;
    void operationCompletedWithFilesAtPaths(CVOperation *, const QStringList &paths, bool multiple) override;
    void operationFailedWithError(CVOperation *, const LXError &error) override;
    void operationFailedWithPasswordMismatchError(const LXError &error) override;
    void operationWasCancelled(CVOperation *) override;

private:
    template <typename T> T locked(const T &value) const
    {
        const std::lock_guard lock(m_mutex);
        return value;
    }

    mutable std::mutex m_mutex;
    QStringList m_ends;
    QStringList m_results;
    QStringList m_questions;
    QStringList m_skipped;
    LXError m_error;
    LXError m_shownError;
    std::pair<double, double> m_itemProgress;
};

/// A place in the life of a job at which something is to happen.
enum class CreatePhase {
    Copying,
    Media,        ///< needs packsMedia()
    Packing,      ///< once the back end reports progress: needs an input of many bytes
    Question,     ///< the destination exists from the start
    LateQuestion, ///< it appears while the job packs
};

/// One create job on a queue, with the main thread serving calls until it has ended.
struct CreateJob
{
    CreateJob();

    std::shared_ptr<CreateRecorder> recorder;
    std::shared_ptr<CVCreateOperationDataBinding> data;
    std::shared_ptr<CVOperation> operation;

    /// The hook runs once, when the phase is reached.
    void at(CreatePhase phase, const QString &destination, std::function<void()> hook);
    /// Has it write the own format as zip, with pictures as bitmaps.
    void packsMedia();
    void run();
};

/// A scratch folder with "in" and "out", the output folder of the settings, which are scratch as well.
class CreateFolders
{
public:
    CreateFolders();
    /// At the end of each test.
    bool remove();

    QString at(const QString &name) const { return name.isEmpty() ? m_root.path() : m_root.filePath(name); }
    /// What lies in the output folder, and what the register says was left behind.
    QStringList results() const;
    /// Without "long", which takes too long to read.
    TestTree inputs() const { return treeFromDisk(at(QStringLiteral("in")), {QStringLiteral("long")}); }

    static void useSettings(const QString &root);

private:
    QTemporaryDir m_root;
};

bool writeFile(const QString &path, const QByteArray &contents);
QByteArray readFile(const QString &path);
/// Holes cost no disk, but keep a compressor busy for a while.
bool makeLongWork(const QString &path);
/// A picture that is far smaller as PNG than as bitmap.
bool paint(const QString &path);
QStringList namesIn(const QString &folder);
int changeMode(const QString &path, mode_t mode);

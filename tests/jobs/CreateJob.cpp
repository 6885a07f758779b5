#include "jobs/CreateJob.h"

#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "filetree/CVFileTreeBuilder.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>

#include <atomic>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

std::shared_ptr<CVFileNode> CreateRecorder::operationInputFiles(CVOperation *)
{
    auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles(inputs, *root);
    return root;
}

void CreateRecorder::operationHasMadeProgress(CVOperation *, double done, double total)
{
    {
        const std::lock_guard lock(m_mutex);
        if (total < 100'000)
            m_itemProgress = {done, total};
    }
    onProgress(done, total);
}

CVAlertResult CreateRecorder::operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *,
                                                                            const QString &path)
{
    {
        const std::lock_guard lock(m_mutex);
        m_questions.append(path);
    }
    onQuestion(path);
    return answer;
}

void CreateRecorder::operationSkippedEntries(CVOperation *, const QString &,
                                             const std::vector<CVSkippedEntry> &entries)
{
    const std::lock_guard lock(m_mutex);
    for (const CVSkippedEntry &entry : entries)
        m_skipped.append(entry.name);
}

void CreateRecorder::operationNeedsToShowError(CVOperation *, const LXError &error)
{
    const std::lock_guard lock(m_mutex);
    m_shownError = error;
}

void CreateRecorder::operationCompletedWithFilesAtPaths(CVOperation *, const QStringList &paths,
                                                        bool multiple)
{
    const std::lock_guard lock(m_mutex);
    m_ends.append(multiple ? u"completed many"_s : u"completed"_s);
    m_results = paths;
}

void CreateRecorder::operationFailedWithError(CVOperation *, const LXError &error)
{
    const std::lock_guard lock(m_mutex);
    m_ends.append(u"failed"_s);
    m_error = error;
}

void CreateRecorder::operationFailedWithPasswordMismatchError(const LXError &error)
{
    const std::lock_guard lock(m_mutex);
    m_ends.append(u"mismatch"_s);
    m_error = error;
}

void CreateRecorder::operationWasCancelled(CVOperation *)
{
    const std::lock_guard lock(m_mutex);
    m_ends.append(u"cancelled"_s);
}

CreateJob::CreateJob()
    : recorder(std::make_shared<CreateRecorder>())
    , data(std::make_shared<CVCreateOperationDataBinding>())
    , operation(CVOperationFactory::createOperationWithDataBinding(data))
{
    operation->setDelegate(recorder);
}

void CreateJob::at(CreatePhase phase, const QString &destination, std::function<void()> hook)
{
    const auto once = std::make_shared<std::atomic<bool>>(false);
    const auto fire = [once, hook = std::move(hook)] {
        if (!once->exchange(true))
            hook();
    };
    switch (phase) {
    case CreatePhase::Copying:
        recorder->onProgress = [fire](double done, double) {
            if (done == 2)
                fire();
        };
        break;
    case CreatePhase::Media:
        recorder->onProgress = [fire](double done, double total) {
            if (total < 100'000 && done == total / 3 + 1)
                fire();
        };
        break;
    case CreatePhase::Packing:
        recorder->onProgress = [fire](double, double total) {
            if (total > 1'000'000)
                fire();
        };
        break;
    case CreatePhase::Question:
        recorder->onQuestion = [fire](const QString &) { fire(); };
        break;
    case CreatePhase::LateQuestion:
        recorder->onProgress = [destination](double done, double) {
            if (done == 1)
                writeFile(destination, "somebody else's");
        };
        recorder->onQuestion = [fire](const QString &) { fire(); };
        break;
    }
}

void CreateJob::packsMedia()
{
    constexpr int bitmap = 10;
    data->setArchiveType(u"corvane"_s);
    data->setShouldUseZipCompression(true);
    data->setImageFileFormat(bitmap);
    data->setAudioFileFormat(0);
}

void CreateJob::run()
{
    QEventLoop loop;
    operation->observeFinished([&loop](CVOperation &) { LXMainThread::post([&loop] { loop.quit(); }); });
    CVOperationQueue queue(1);
    queue.add(operation);
    loop.exec();
    queue.waitUntilEmpty();
    QCoreApplication::processEvents(); // what the job has left to the main thread
}

CreateFolders::CreateFolders()
{
    for (const auto &folder : {u"in"_s, u"out"_s, u"settings"_s})
        QDir(m_root.path()).mkdir(folder);
    useSettings(m_root.path());
}

void CreateFolders::useSettings(const QString &root)
{
    CVSettings::setStore(std::make_shared<LXSettingsStore>(root + u"/settings/corvane.conf"_s));
    CVSettings::setValue(CVSettingsKey::extractDestination,
                         static_cast<int>(CVExtractDestination::DefaultFolder));
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, QString(root + u"/out"_s));
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"tar"_s);
}

bool CreateFolders::remove()
{
    CVSettings::setStore(nullptr);
    // QTemporaryDir knows no names that are not UTF-8.
    m_root.setAutoRemove(false);
    return static_cast<bool>(removeTree(m_root.path()));
}

QStringList CreateFolders::results() const
{
    return namesIn(at(u"out"_s)) + CVWorkDirectoryManager::workDirs();
}

bool writeFile(const QString &path, const QByteArray &contents)
{
    const LXFileDescriptor fd(
        ::open(bytesOfFileName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    QFile file;
    return fd.isOpen() && file.open(fd.get(), QIODevice::WriteOnly) &&
           file.write(contents) == contents.size();
}

QByteArray readFile(const QString &path)
{
    const LXFileDescriptor fd(::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC));
    QFile file;
    return fd.isOpen() && file.open(fd.get(), QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool makeLongWork(const QString &path)
{
    return writeFile(path, {}) && ::truncate(bytesOfFileName(path).constData(), off_t(400) << 20) == 0;
}

bool paint(const QString &path)
{
    QProcess tool;
    tool.start(u"convert"_s, {u"-size"_s, u"512x512"_s, u"gradient:red-blue"_s, path});
    return tool.waitForFinished() && tool.exitCode() == 0;
}

QStringList namesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                  QDir::Name);
}

int changeMode(const QString &path, mode_t mode)
{
    return ::chmod(bytesOfFileName(path).constData(), mode);
}

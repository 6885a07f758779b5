#include "engine/ControllerRecorders.h"

#include "archives/CVArchive.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "util/LXMainThread.h"
#include "util/LXPendingAnswer.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>
#include <QTimer>

#include <stdexcept>

using namespace Qt::StringLiterals;

void WindowLog::note(const QString &event)
{
    const std::lock_guard lock(m_mutex);
    m_events.append(event);
}

QStringList WindowLog::all() const
{
    const std::lock_guard lock(m_mutex);
    return m_events;
}

QStringList WindowLog::screens() const
{
    QStringList found;
    for (const QString &event : all()) {
        if (event != u"sound" && !event.startsWith(u"told ") && !event.startsWith(u"revealed "))
            found.append(event);
    }
    return found;
}

void WindowLog::clear()
{
    const std::lock_guard lock(m_mutex);
    m_events.clear();
}

namespace {

class Named final : public CVScreen
{
public:
    explicit Named(QString givenName)
        : name(std::move(givenName))
    {}
    const QString name;
};

class ProgressRecorder final : public CVProgressScreen
{
public:
    explicit ProgressRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    void setProgress(double, double) override
    {
        ++m_window.progressCalls;
        m_window.onProgress();
    }
    void setIndeterminate() override {}
    void setJob(const QString &) override {}
    void setProgressImage(const QString &, bool) override {}
    void setCancelButton(std::function<void()> action) override
    {
        const std::lock_guard lock(m_mutex);
        m_cancel = std::move(action);
    }
    void reset() override {}
    void setAcceptsDrops(bool) override {}
    void pressCancel()
    {
        std::function<void()> action;
        {
            const std::lock_guard lock(m_mutex);
            action = m_cancel;
        }
        action();
    }

private:
    RecordedWindow &m_window;
    std::mutex m_mutex;
    std::function<void()> m_cancel;
};

class AnalysisRecorder final : public CVFileAnalysisScreen
{
public:
    void startAnimating() override { isAnimating = true; }
    void stopAnimating() override { isAnimating = false; }
    void setProgressMessage(const QString &) override {}
    bool isAnimating = false;
};

class AlertRecorder final : public CVAlertScreen
{
public:
    explicit AlertRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    CVScreen *screen() override { return &m_screen; }
    void prepareAlert(bool withCancelButton, const QString &message, const QString &informativeText,
                      const QString &defaultButtonLabel) override
    {
        m_message = message;
        m_window.informativeText = informativeText;
        m_window.log.note(
            u"alert %1 %2%3"_s.arg(message, defaultButtonLabel, withCancelButton ? u"/Cancel"_s : QString()));
    }
    void run(std::function<void(int)> ended) override
    {
        m_ended = std::move(ended);
        const auto answer = m_window.answerAlert ? m_window.answerAlert(m_message) : 1;
        if (answer)
            QTimer::singleShot(0, &m_context, [this, answer] { end(*answer); });
    }
    void stop() override { end(0); }
    bool isRunning() const { return m_ended != nullptr; }

private:
    void end(int result)
    {
        if (const auto ended = std::exchange(m_ended, {}))
            ended(result);
    }
    RecordedWindow &m_window;
    Named m_screen{u"alert"_s};
    QString m_message;
    std::function<void(int)> m_ended;
    QObject m_context;
};

class PasswordRecorder final : public CVPasswordScreen
{
public:
    explicit PasswordRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    CVScreen *screen() override { return &m_screen; }
    void setPasswordDelegate(CVPasswordDelegate *delegate) override { m_delegate = delegate; }
    void setInformativeText(const QString &text) override { m_window.log.note(u"password? "_s + text); }
    std::optional<QString> promptForPassword(std::stop_token stop) override
    {
        const auto pending = std::make_shared<LXPendingAnswer<std::optional<QString>>>();
        if (!m_window.letsPasswordStand) {
            LXMainThread::post([this, pending, stop] {
                if (stop.stop_requested())
                    return;
                const auto answer = m_window.answerPassword ? m_window.answerPassword() : std::nullopt;
                m_delegate->passwordPromptFinishedWasCancelled(!answer);
                pending->give(answer);
            });
        }
        return pending->wait(stop).value_or(std::nullopt);
    }

private:
    RecordedWindow &m_window;
    Named m_screen{u"password"_s};
    CVPasswordDelegate *m_delegate = nullptr;
};

template <typename Binding> class EditRecorder final : public CVEditArchiveScreen<Binding>
{
public:
    EditRecorder(RecordedWindow &window, std::shared_ptr<Binding> &data)
        : m_window(window)
        , m_data(data)
    {}
    std::shared_ptr<Binding> operationDataBinding() override { return m_data; }
    void setNoneHidden(bool hidden) override { m_window.noneHidden = hidden; }

private:
    RecordedWindow &m_window;
    std::shared_ptr<Binding> &m_data;
};

class SplitRecorder final : public CVSplitScreen
{
public:
    explicit SplitRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    std::shared_ptr<CVSplitOperationDataBinding> splitOperationData() override { return m_window.splitData; }

private:
    RecordedWindow &m_window;
};

class DropBoxRecorder final : public CVDropBoxScreen
{
public:
    void reset() override {}
};

class OptionsRecorder final : public CVFileOptionsScreen
{
public:
    explicit OptionsRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    void setupDisplay() override { m_window.log.note(u"options set up"_s); }
    void showOptions() override
    {
        m_window.optionsShown.clear();
        for (const auto &node : m_window.controller->inputFiles()->children())
            m_window.optionsShown.append(node->target());
        m_window.log.note(u"options"_s);
    }

private:
    RecordedWindow &m_window;
};

class NotificationRecorder final : public LXUserNotifications
{
public:
    explicit NotificationRecorder(WindowLog &log)
        : m_log(log)
    {}
    void post(const QString &title, const QString &text) override
    {
        m_log.note(u"told “%1”: %2"_s.arg(title, text));
    }

private:
    WindowLog &m_log;
};

class ViewerRecorder final : public LXFileViewer
{
public:
    explicit ViewerRecorder(WindowLog &log)
        : m_log(log)
    {}
    void reveal(const QStringList &paths) override
    {
        QStringList names;
        for (const QString &path : paths)
            names.append(QFileInfo(path).fileName());
        m_log.note(u"revealed "_s + names.join(u' '));
    }

private:
    WindowLog &m_log;
};

class WorkspaceRecorder final : public LXWorkspace
{
public:
    explicit WorkspaceRecorder(WindowLog &log)
        : m_log(log)
    {}
    bool openFile(const QString &path) override
    {
        QFile file(path);
        m_log.note(u"opened %1: %2"_s.arg(QFileInfo(path).fileName(), file.open(QIODevice::ReadOnly)
                                                                          ? QString::fromUtf8(file.readAll())
                                                                          : u"not there"_s));
        return true;
    }

private:
    WindowLog &m_log;
};

class SoundRecorder final : public LXSystemSound
{
public:
    explicit SoundRecorder(WindowLog &log)
        : m_log(log)
    {}
    void play(const QString &) override { m_log.note(u"sound"_s); }

private:
    WindowLog &m_log;
};

} // namespace

struct RecordedWindow::Parts
{
    explicit Parts(RecordedWindow &window)
        : progress(window)
        , alert(window)
        , password(window)
        , create(window, window.createData)
        , convert(window, window.convertData)
        , split(window)
        , options(window)
    {}
    ProgressRecorder progress;
    AlertRecorder alert;
    PasswordRecorder password;
    EditRecorder<CVCreateOperationDataBinding> create;
    EditRecorder<CVConvertOperationDataBinding> convert;
    SplitRecorder split;
    AnalysisRecorder analysis;
    DropBoxRecorder dropBox;
    OptionsRecorder options;
};

RecordedWindow::RecordedWindow()
{
    CVSettings::setStore(std::make_shared<LXSettingsStore>(at(u"settings/corvane.conf"_s)));
    QDir(m_root.path()).mkpath(u"out"_s);
    QDir(m_root.path()).mkpath(u"home/Desktop"_s);
    CVSettings::setValue(CVSettingsKey::extractDestination, 2);
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, at(u"out"_s));
    CVSettings::setValue(CVSettingsKey::showInFinderAfterExtract, false);
    LXUserNotifications::setShared(std::make_shared<NotificationRecorder>(log));
    LXFileViewer::setShared(std::make_shared<ViewerRecorder>(log));
    LXWorkspace::setShared(std::make_shared<WorkspaceRecorder>(log));
    LXSystemSound::setShared(std::make_shared<SoundRecorder>(log));

    createData = std::make_shared<CVCreateOperationDataBinding>();
    convertData = std::make_shared<CVConvertOperationDataBinding>();
    splitData = std::make_shared<CVSplitOperationDataBinding>();
    m_parts = std::make_unique<Parts>(*this);
    queue = std::make_shared<CVOperationQueue>(5);
    controller = CVOperationController::create(queue);
    controller->setDelegate(this);
    controller->setScreens({.progress = &m_parts->progress,
                            .alert = &m_parts->alert,
                            .password = &m_parts->password,
                            .create = &m_parts->create,
                            .convert = &m_parts->convert,
                            .split = &m_parts->split,
                            .fileAnalysis = &m_parts->analysis,
                            .dropBox = &m_parts->dropBox,
                            .options = &m_parts->options});
}

RecordedWindow::~RecordedWindow()
{
    close();
    // What workers still say must find nobody.
    queue->shutdown();
    QCoreApplication::processEvents();
    controller.reset();
    LXUserNotifications::setShared(nullptr);
    LXFileViewer::setShared(nullptr);
    LXWorkspace::setShared(nullptr);
    LXSystemSound::setShared(nullptr);
    CVSettings::setStore(nullptr);
    // Some names in it are no text, which Qt leaves behind.
    (void)removeTree(m_root.path());
}

void RecordedWindow::close()
{
    controller->windowWillClose();
    m_parts.reset();
}

bool RecordedWindow::idle()
{
    return QTest::qWaitFor(
        [this] {
            return queue->operations().empty() && !controller->currentOperation() &&
                   !(m_parts && m_parts->alert.isRunning());
        },
        30000);
}

bool RecordedWindow::reaches(const QString &event)
{
    return QTest::qWaitFor([&] { return log.all().contains(event); }, 30000);
}

void RecordedWindow::pack(const QString &archive, const QStringList &files) const
{
    QProcess packer;
    packer.setWorkingDirectory(m_root.path());
    packer.start(u"7za"_s, QStringList{u"a"_s, u"-bd"_s, archive} + files);
    if (!packer.waitForFinished() || packer.exitCode() != 0)
        throw std::runtime_error("7za failed");
}

void RecordedWindow::write(const QString &name, const QByteArray &contents) const
{
    QDir(m_root.path()).mkpath(QFileInfo(name).path());
    QFile file(at(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
        throw std::runtime_error("cannot write");
}

QStringList RecordedWindow::names(const QString &folder) const
{
    return QDir(at(folder))
        .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

QString RecordedWindow::shortened(const QString &path) const
{
    return path.startsWith(m_root.path()) ? path.mid(m_root.path().size() + 1) : path;
}

void RecordedWindow::controllerNeedsToLoadViewController(CVOperationController &, CVScreen &screen, bool back)
{
    log.note((back ? u"back to "_s : u"view "_s) + static_cast<Named &>(screen).name);
}

void RecordedWindow::controllerNeedsToLoadProgressView(CVOperationController &)
{
    log.note(u"view progress"_s);
}

void RecordedWindow::controllerNeedsToLoadAnalysingView(CVOperationController &)
{
    log.note(u"view analysing"_s);
}

void RecordedWindow::controllerNeedsToLoadCreateView(CVOperationController &)
{
    log.note(u"view create"_s);
}

void RecordedWindow::controllerNeedsToLoadSplitViewWithFile(CVOperationController &, const QString &path)
{
    log.note(u"view split "_s + shortened(path));
}

void RecordedWindow::controllerNeedsToLoadPreviewViewWithFiles(
    CVOperationController &, const std::vector<std::shared_ptr<CVArchive>> &archives)
{
    previewed = archives;
    QStringList names;
    for (const auto &archive : archives)
        names.append(QFileInfo(archive->sourcePath).fileName());
    log.note(u"view preview "_s + names.join(u' '));
}

void RecordedWindow::controllerNeedsToLoadDoneViewWithFileAtPath(CVOperationController &, const QString &path)
{
    log.note(u"view done "_s + shortened(path));
}

void RecordedWindow::controllerNeedsToLoadMultipleDoneViewWithFiles(CVOperationController &,
                                                                    const QStringList &paths)
{
    QStringList names;
    for (const QString &path : paths)
        names.append(shortened(path));
    log.note(u"view done with "_s + names.join(u' '));
}

void RecordedWindow::controllerNeedsToGoBack(CVOperationController &)
{
    log.note(u"back"_s);
}

void RecordedWindow::controllerNeedsToGoBackIfNotAtMain(CVOperationController &)
{
    log.note(u"back if not at main"_s);
}

void RecordedWindow::controllerNeedsToGoBackToMainView(CVOperationController &)
{
    log.note(u"back to main"_s);
}

void RecordedWindow::controllerNeedsToGoForwardToMainView(CVOperationController &)
{
    log.note(u"forward to main"_s);
}

void RecordedWindow::controllerNeedsToCloseWindow(CVOperationController &)
{
    log.note(controller->extractInPlace() ? u"close, without quitting"_s : u"close"_s);
}

void RecordedWindow::controllerNeedsToOpenWindowAndExtractArchives(CVOperationController &,
                                                                   const QStringList &paths)
{
    QStringList names;
    for (const QString &path : paths)
        names.append(shortened(path));
    log.note(u"window for "_s + names.join(u' '));
}

void RecordedWindow::controllerNeedsFilePanel(CVOperationController &, FilePanel,
                                              std::function<void(std::optional<QStringList>)> done)
{
    done(panelAnswer);
}

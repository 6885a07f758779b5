#include "engine/ControllerRecorders.h"

#include "archives/CVArchive.h"
#include "engine/ScreenRecorders.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <algorithm>
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

qsizetype WindowLog::count(const QString &start) const
{
    const QStringList events = all();
    return std::ranges::count_if(events, [&](const QString &event) { return event.startsWith(start); });
}

void WindowLog::clear()
{
    const std::lock_guard lock(m_mutex);
    m_events.clear();
}

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

void RecordedWindow::makeArchives()
{
    write(u"a.txt"_s, "a");
    write(u"b.txt"_s, "b");
    write(u"broken.zip"_s, "PK\x03\x04 broken");
    pack(u"a.zip"_s, {u"a.txt"_s});
    pack(u"b.zip"_s, {u"b.txt"_s, u"a.txt"_s});
    controller->setLaunchComplete();
}

bool RecordedWindow::showsPreviewOf(const QStringList &archives)
{
    QStringList paths;
    for (const QString &archive : archives)
        paths.append(at(archive));
    controller->controllerHasNewFiles(paths);
    return reaches(u"view preview "_s + archives.join(u' ')) && idle();
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

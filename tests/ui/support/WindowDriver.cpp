#include "ui/support/WindowDriver.h"

#include "engine/control/CVOperationController.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "platform/LXFileUri.h"
#include "ui/base/CVDarkLook.h"
#include "ui/base/CVToolbar.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QMimeData>
#include <QProcess>
#include <QTest>

#include <functional>
#include <map>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

constexpr int launchMilliseconds = 20000;
constexpr int endMilliseconds = 60000;
constexpr int appearMilliseconds = 2000;

std::map<QString, CVViewController *> screensByName(const CVNavigationController::Screens &screens)
{
    return {{u"dropBox"_s, screens.dropBox},   {u"fileAnalysis"_s, screens.fileAnalysis},
            {u"options"_s, screens.options},   {u"create"_s, screens.create},
            {u"convert"_s, screens.convert},   {u"split"_s, screens.split},
            {u"progress"_s, screens.progress}, {u"password"_s, screens.password},
            {u"alert"_s, screens.alert},       {u"preview"_s, screens.preview},
            {u"done"_s, screens.done},         {u"multipleDone"_s, screens.multipleDone}};
}

/// Nobody clicks on what has not been laid out yet, so this waits a moment for `find` to give something.
bool clickMiddle(const std::function<QWidget *()> &find)
{
    const auto ready = [&]() -> QWidget * {
        QWidget *widget = find();
        return widget && widget->isVisible() && widget->isEnabled() ? widget : nullptr;
    };
    if (!QTest::qWaitFor([&] { return ready() != nullptr; }, appearMilliseconds))
        return false;
    QTest::mouseClick(ready(), Qt::LeftButton);
    return true;
}

} // namespace

WindowDriver::WindowDriver(Motion motion)
{
    const QString home = path(u"home"_s);
    QDir().mkpath(home);
    qputenv("HOME", QFile::encodeName(home));
    for (const auto &[name, place] : std::map<QByteArray, QString>{{"XDG_CONFIG_HOME", u"config"_s},
                                                                   {"XDG_DATA_HOME", u"data"_s},
                                                                   {"XDG_CACHE_HOME", u"cache"_s},
                                                                   {"XDG_STATE_HOME", u"state"_s}}) {
        QDir().mkpath(home + u'/' + place);
        qputenv(name, QFile::encodeName(home + u'/' + place));
    }
    qputenv("CORVANE_REDUCED_MOTION", motion == Motion::Reduced ? "1" : "0");
    CVSettings::setStore(std::make_shared<LXSettingsStore>(home + u"/corvane.conf"_s));
    LXMainThread::install();
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setApplicationDisplayName(u"Corvane"_s);
}

WindowDriver::~WindowDriver()
{
    end();
    CVSettings::setStore(nullptr);
}

QString WindowDriver::makeFile(const QString &relative, const QByteArray &content) const
{
    const QString place = path(relative);
    QDir().mkpath(place.left(place.lastIndexOf(u'/')));
    QFile file(place);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(place));
    return place;
}

bool WindowDriver::runTool(const QString &program, const QStringList &arguments) const
{
    bool hasRun = false;
    // On a thread of its own: where QProcess has started something, the thread sanitizer sees no more locks.
    std::thread([&] {
        QProcess tool;
        tool.setWorkingDirectory(folder());
        tool.setProcessChannelMode(QProcess::MergedChannels);
        tool.start(program, arguments);
        hasRun = tool.waitForFinished(endMilliseconds) && tool.exitStatus() == QProcess::NormalExit &&
                 tool.exitCode() == 0;
        if (!hasRun)
            qWarning() << program << arguments << tool.readAll();
    }).join();
    return hasRun;
}

void WindowDriver::setApplicationBus(std::unique_ptr<LXApplicationBus> bus)
{
    m_bus = std::move(bus);
}

bool WindowDriver::start(const QStringList &files)
{
    m_app = std::make_unique<CVAppController>();
    if (m_bus)
        m_app->setApplicationBus(std::move(m_bus));
    m_app->start(files);
    return QTest::qWaitFor([this] { return m_app->isLaunchComplete(); }, launchMilliseconds);
}

bool WindowDriver::end()
{
    if (!m_app)
        return true;
    bool hasEnded = false;
    QObject::connect(m_app.get(), &CVAppController::terminated, m_app.get(),
                     [&hasEnded] { hasEnded = true; });
    // It may have quit by itself, because its last window was closed.
    m_app->terminate();
    const auto isOver = [&] {
        return hasEnded || (m_app->isTerminating() && m_app->queue()->operations().empty());
    };
    const bool ended = QTest::qWaitFor(isOver, endMilliseconds);
    m_app.reset();
    window = 0;
    return ended;
}

CVWindowController *WindowDriver::windowController() const
{
    const auto windows = m_app ? m_app->windowControllers() : std::vector<CVWindowController *>();
    return static_cast<std::size_t>(window) < windows.size() ? windows.at(static_cast<std::size_t>(window))
                                                             : nullptr;
}

CVMainWindow *WindowDriver::mainWindow() const
{
    return windowController()->window();
}

CVNavigationController &WindowDriver::navigation() const
{
    return *windowController()->navController();
}

CVOperationController &WindowDriver::operations() const
{
    return *windowController()->operationController();
}

QString WindowDriver::screenName() const
{
    if (!windowController() || !navigation().slideAnimation()->isIdle())
        return {};
    const QWidget *shown = navigation().slideAnimation()->currentView();
    for (const auto &[name, candidate] : screensByName(navigation().screens())) {
        if (candidate && candidate->view() == shown)
            return name;
    }
    return {};
}

CVViewController *WindowDriver::screen(const QString &name) const
{
    const auto screens = screensByName(navigation().screens());
    const auto found = screens.find(name);
    return found == screens.end() ? nullptr : found->second;
}

bool WindowDriver::waitForScreen(const QString &name, int milliseconds) const
{
    if (QTest::qWaitFor([&] { return screenName() == name; }, milliseconds))
        return true;
    qWarning() << "waited for the screen" << name << "but there is" << screenName();
    return false;
}

bool WindowDriver::waitForJobs(int milliseconds) const
{
    return QTest::qWaitFor(
        [this] {
            if (!m_app->queue()->operations().empty())
                return false;
            for (const CVWindowController *each : m_app->windowControllers()) {
                if (each->operationController()->isWorkingOnOperation() ||
                    !each->navController()->slideAnimation()->isIdle())
                    return false;
            }
            return true;
        },
        milliseconds);
}

bool WindowDriver::waitForWindows(int count, int milliseconds) const
{
    return QTest::qWaitFor(
        [&] { return m_app->windowControllers().size() == static_cast<std::size_t>(count); }, milliseconds);
}

bool WindowDriver::drop(const QStringList &paths) const
{
    QMimeData data;
    QByteArray list;
    for (const QString &file : paths)
        list += LXFileUri::uriOfPath(file) + "\r\n";
    data.setData(u"text/uri-list"_s, list);

    QWidget *view = navigation().slideAnimation()->currentView();
    QPoint middle = view->rect().center();
    QWidget *target = view->childAt(middle) ? view->childAt(middle) : view;
    middle = target->mapFrom(view, middle);
    while (target && !target->acceptDrops()) {
        middle = target->mapToParent(middle);
        target = target->isWindow() ? nullptr : target->parentWidget();
    }
    if (!target)
        return false;
    const Qt::DropActions actions = Qt::CopyAction | Qt::MoveAction;
    QDragEnterEvent enter(middle, actions, &data, Qt::LeftButton, QApplication::keyboardModifiers());
    QApplication::sendEvent(target, &enter);
    if (!enter.isAccepted())
        return false;
    QDragMoveEvent move(middle, actions, &data, Qt::LeftButton, QApplication::keyboardModifiers());
    QApplication::sendEvent(target, &move);
    QDropEvent dropped(middle, actions, &data, Qt::LeftButton, QApplication::keyboardModifiers());
    QApplication::sendEvent(target, &dropped);
    return dropped.isAccepted();
}

bool WindowDriver::click(const QString &identifier) const
{
    return clickMiddle([&]() -> QWidget * {
        const auto buttons = mainWindow()->toolbar()->findChildren<QAbstractButton *>(identifier);
        return buttons.isEmpty() ? nullptr : buttons.last();
    });
}

bool WindowDriver::clickWidget(const QString &objectName) const
{
    return clickMiddle([&]() -> QWidget * {
        const QWidget *view = navigation().slideAnimation()->currentView();
        if (auto *widget = view->findChild<QWidget *>(objectName))
            return widget;
        const auto panels = mainWindow()->findChildren<QDialog *>();
        for (const QDialog *panel : panels) {
            if (auto *widget = panel->findChild<QWidget *>(objectName); widget && panel->isVisible())
                return widget;
        }
        return nullptr;
    });
}

void WindowDriver::press(int key, Qt::KeyboardModifiers modifiers) const
{
    QWidget *focused = mainWindow()->focusWidget();
    QTest::keyClick(focused ? focused : mainWindow(), static_cast<Qt::Key>(key), modifiers);
}

void WindowDriver::type(const QString &text) const
{
    QWidget *focused = mainWindow()->focusWidget();
    QTest::keyClicks(focused ? focused : mainWindow(), text);
}

void WindowDriver::picture(const QString &name) const
{
    const QString pictures = QStringLiteral(CORVANE_PICTURES);
    QDir().mkpath(pictures);
    const auto save = [&](const QString &file) {
        QCoreApplication::processEvents();
        mainWindow()->grab().save(pictures + u'/' + file + u".png"_s);
    };
    save(name);
    CVDarkLook::setActive(true);
    save(name + u"-dark"_s);
    CVDarkLook::setActive(false);
    QCoreApplication::processEvents();
}

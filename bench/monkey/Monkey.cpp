#include "monkey/Monkey.h"

#include "engine/control/CVOperationController.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "ui/base/CVToolbar.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"
#include "ui/window/CVWindowController.h"

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDirIterator>
#include <QLineEdit>
#include <QMenu>
#include <QTest>
#include <QTextStream>

#include <malloc.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int actionsBetweenLooks = 60;
constexpr auto settleTime = std::chrono::seconds(60);

/// What a person can change; those that throw archives away are left out, for nothing may be lost here.
const QList<std::pair<QString, QVariantList>> &settings()
{
    static const QList<std::pair<QString, QVariantList>> all = {
        {CVSettingsKey::extractDestination, {0, 1, 2, 2}},
        {CVSettingsKey::skipArchivePreview, {true, false}},
        {CVSettingsKey::skipOptionsView, {true, false}},
        {CVSettingsKey::skipDoneView, {true, false, false}},
        {CVSettingsKey::inspectApplicationBundle, {true, false}},
        {CVSettingsKey::showInFinderAfterExtract, {true, false}},
        {CVSettingsKey::ignoreMacSpecificFiles, {true, false}},
        {CVSettingsKey::sound, {true, false}},
        {CVSettingsKey::shouldShowPassword, {true, false}},
        {CVSettingsKey::shouldEncrypt, {true, false, false}},
        {CVSettingsKey::compressionLevelSetting, {0, 1, 2, 3}},
        {CVSettingsKey::numberOfSimultaneousOperations, {1, 2, 5}},
    };
    return all;
}

QString inMegabytes(qint64 bytes)
{
    return QString::number(static_cast<double>(bytes) / 1e6, 'f', 1) + u" MB"_s;
}

} // namespace

Monkey::Monkey(unsigned seed, std::chrono::seconds patience)
    : m_random(seed)
    , m_inputs(m_driver)
    , m_log(QDir::tempPath() + u"/corvane-monkey-%1.log"_s.arg(seed))
    , m_watch(m_log, patience)
    , m_seed(seed)
{
    // Panels begin where the process is, and whatever is not told a place goes there.
    for (const QString &folder : {u"results"_s, u"temporary"_s})
        QDir().mkpath(m_driver.path(folder));
    QDir::setCurrent(m_driver.path(u"results"_s));
    qputenv("TMPDIR", QFile::encodeName(m_driver.path(u"temporary"_s)));
    CVSettings::setValue(CVSettingsKey::extractDestination, 2);
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, m_driver.path(u"results"_s));
    m_actions = {
        {"drop", 20, [this] { dropFiles(); }},
        {"key", 22, [this] { pressKey(); }},
        {"tool", 18, [this] { clickTool(); }},
        {"control", 12, [this] { clickControl(); }},
        {"menu", 5, [this] { triggerMenu(); }},
        {"words", 8, [this] { typeWords(); }},
        {"row", 6, [this] { clickRow(); }},
        {"cancel", 3, [this] { cancelJob(); }},
        {"close", 1, [this] { closeWindow(); }},
        {"open", 2, [this] { openWindow(); }},
        {"setting", 5, [this] { changeSetting(); }},
        {"resize", 1, [this] { resizeWindow(); }},
        {"wait", 6, [this] { QTest::qWait(below(400)); }},
    };
}

bool Monkey::fail(const QString &what)
{
    QTextStream(stderr) << "monkey: " << what << "\n  seed " << m_seed << ", after " << m_performed
                        << " actions, log " << m_log << '\n';
    return false;
}

bool Monkey::start()
{
    if (!m_driver.start())
        return fail(u"the application does not start"_s);
    return true;
}

bool Monkey::run(std::chrono::seconds time)
{
    using Clock = std::chrono::steady_clock;
    if (!start())
        return false;
    const auto end = Clock::now() + time;
    bool isGood = true;
    while (isGood && Clock::now() < end) {
        if (m_driver.app().isTerminating()) {
            // Its last window was closed, or it was told to quit.
            m_watch.note(u"start again"_s);
            ++m_restarts;
            if (!m_driver.end())
                return fail(u"a job does not end after the application was told to quit"_s);
            if (!start())
                return false;
        }
        if (m_driver.app().windowControllers().empty())
            m_driver.app().showMainWindow();
        perform(choose());
        if (m_performed % actionsBetweenLooks == 0)
            isGood = settle();
    }
    isGood = isGood && settle();
    m_watch.note(u"end"_s);
    if (isGood && !m_driver.end())
        isGood = fail(u"a job does not end after the application was told to quit"_s);
    report();
    return isGood;
}

const Monkey::Action &Monkey::choose()
{
    int sum = 0;
    for (const Action &action : m_actions)
        sum += action.weight;
    int at = below(sum);
    for (const Action &action : m_actions) {
        at -= action.weight;
        if (at < 0)
            return action;
    }
    return m_actions.back();
}

bool Monkey::isUsable() const
{
    return !m_driver.hasEnded() && m_driver.windowController() && m_driver.windowController()->window();
}

void Monkey::perform(const Action &action)
{
    const auto windows = static_cast<int>(m_driver.app().windowControllers().size());
    if (windows == 0)
        return;
    m_driver.window = below(windows);
    if (!isUsable())
        return;
    const QString screen = m_driver.screenName();
    ++m_screens[screen.isEmpty() ? u"(sliding)"_s : screen];
    ++m_counts[QString::fromLatin1(action.name)];
    ++m_performed;
    m_watch.note(u"%1 window %2 of %3, screen %4: %5"_s.arg(m_performed)
                     .arg(m_driver.window)
                     .arg(windows)
                     .arg(screen, QString::fromLatin1(action.name)));
    action.perform();
    breathe();
}

void Monkey::breathe()
{
    QCoreApplication::processEvents();
    if (below(3) == 0)
        QTest::qWait(below(40));
}

void Monkey::dropFiles()
{
    const QStringList paths = anyOf(m_resultsElsewhere ? m_inputs.safe() : m_inputs.beside());
    m_watch.note(u"  "_s + paths.join(u", "_s).replace(u'\n', u' '));
    if (below(8) == 0)
        m_driver.app().openFiles(paths);
    else if (m_driver.navigation().slideAnimation()->currentView())
        m_driver.drop(paths);
}

void Monkey::pressKey()
{
    static const QList<QKeyCombination> keys = {
        Qt::Key_Return,
        Qt::Key_Return,
        Qt::Key_Escape,
        Qt::Key_Tab,
        Qt::Key_Tab,
        Qt::Key_Space,
        Qt::Key_Up,
        Qt::Key_Down,
        Qt::Key_Left,
        Qt::Key_Right,
        Qt::Key_Delete,
        Qt::Key_A,
        Qt::Key_End,
        Qt::CTRL | Qt::Key_A,
        Qt::CTRL | Qt::Key_B,
        Qt::CTRL | Qt::Key_E,
        Qt::CTRL | Qt::Key_F,
        Qt::ALT | Qt::Key_Left,
        Qt::SHIFT | Qt::Key_Tab,
        Qt::SHIFT | Qt::Key_Down,
        Qt::CTRL | Qt::Key_Space,
    };
    const QKeyCombination key = below(300) == 0 ? (Qt::CTRL | Qt::Key_Q) : anyOf(keys);
    m_watch.note(u"  "_s + QKeySequence(key).toString());
    m_driver.press(key.key(), key.keyboardModifiers());
}

void Monkey::clickTool()
{
    QList<QAction *> items;
    for (QAction *item : m_driver.mainWindow()->toolbar()->items()) {
        if (item->isEnabled() && item->isVisible())
            items.append(item);
    }
    if (items.isEmpty())
        return;
    const QString name = anyOf(items)->objectName();
    m_watch.note(u"  "_s + name);
    m_driver.click(name);
}

void Monkey::clickControl()
{
    QWidget *view = m_driver.navigation().slideAnimation()->currentView();
    if (!view)
        return;
    QList<QWidget *> controls;
    for (QWidget *widget : view->findChildren<QWidget *>()) {
        const bool isControl = qobject_cast<QAbstractButton *>(widget) || qobject_cast<QComboBox *>(widget) ||
                               qobject_cast<QLineEdit *>(widget);
        if (isControl && widget->isVisible() && widget->isEnabled())
            controls.append(widget);
    }
    if (controls.isEmpty())
        return;
    QWidget *control = anyOf(controls);
    m_watch.note(
        u"  %1 %2"_s.arg(QLatin1StringView(control->metaObject()->className()), control->objectName()));
    if (auto *box = qobject_cast<QComboBox *>(control)) {
        // Its list is a window of its own; the wheel and keys do without.
        box->setFocus();
        QTest::keyClick(box, below(2) ? Qt::Key_Down : Qt::Key_Up);
    } else {
        QTest::mouseClick(control, Qt::LeftButton);
    }
}

void Monkey::triggerMenu()
{
    QList<QAction *> actions;
    for (const QMenu *menu : {m_driver.mainWindow()->fileMenu(), m_driver.mainWindow()->actionMenu(),
                              m_driver.mainWindow()->helpMenu()}) {
        for (QAction *action : menu->actions()) {
            if (action->isEnabled() && action->isVisible() && !action->isSeparator() && !action->menu())
                actions.append(action);
        }
    }
    if (actions.isEmpty())
        return;
    QAction *action = anyOf(actions);
    // Else most of the time would go into starting.
    if (action->text().contains(u"Quit"_s) && below(10) != 0)
        return;
    m_watch.note(u"  "_s + action->text());
    action->trigger();
}

void Monkey::typeWords()
{
    auto *field = qobject_cast<QLineEdit *>(m_driver.mainWindow()->focusWidget());
    if (!field)
        return;
    static const QStringList words = {u"secret"_s, u"secret"_s, u"wrong"_s, u"x/y"_s, u"1"_s,
                                      u"250"_s,    u"0"_s,      u"-3"_s,    u".."_s,  u"a b"_s};
    if (below(2))
        field->selectAll();
    m_driver.type(anyOf(words));
    if (below(2))
        m_driver.press(Qt::Key_Return);
}

void Monkey::clickRow()
{
    QWidget *view = m_driver.navigation().slideAnimation()->currentView();
    QList<QAbstractItemView *> lists;
    for (auto *list : view ? view->findChildren<QAbstractItemView *>() : QList<QAbstractItemView *>()) {
        if (list->isVisible() && list->model() && list->model()->rowCount() > 0)
            lists.append(list);
    }
    if (lists.isEmpty())
        return;
    QAbstractItemView *list = anyOf(lists);
    const QModelIndex row = list->model()->index(below(list->model()->rowCount()), 0);
    list->scrollTo(row);
    const QPoint place = list->visualRect(row).center();
    if (!list->viewport()->rect().contains(place))
        return;
    if (below(4) == 0)
        QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, place);
    else
        QTest::mouseClick(list->viewport(), Qt::LeftButton, below(3) ? Qt::NoModifier : Qt::ControlModifier,
                          place);
}

void Monkey::cancelJob()
{
    m_driver.operations().stopOperation();
}

void Monkey::closeWindow()
{
    if (below(2))
        m_driver.mainWindow()->close();
    else
        m_driver.press(Qt::Key_W, Qt::ControlModifier);
}

void Monkey::openWindow()
{
    if (m_driver.app().windowControllers().size() >= 4)
        return;
    if (below(3) == 0)
        m_driver.app().showMainWindow();
    else
        m_driver.operations().controllerHasNewFilesDuringOperation(
            anyOf(m_resultsElsewhere ? m_inputs.safe() : m_inputs.beside()));
}

void Monkey::changeSetting()
{
    const auto &[key, values] = anyOf(settings());
    const QVariant value = anyOf(values);
    if (key == CVSettingsKey::extractDestination) {
        // What is on its way was dropped for the other place.
        if (!settle())
            std::exit(1);
        m_resultsElsewhere = value.toInt() != 0;
    }
    m_watch.note(u"  %1 = %2"_s.arg(key, value.toString()));
    CVSettings::setValue(key, value);
}

void Monkey::resizeWindow()
{
    m_driver.mainWindow()->resize(300 + below(900), 200 + below(700));
}

bool Monkey::settle()
{
    using Clock = std::chrono::steady_clock;
    m_watch.note(u"settle"_s);
    ++m_settled;
    // Let some of it come to its own end.
    QTest::qWait(below(1500));
    const auto end = Clock::now() + settleTime;
    const auto isQuiet = [this] {
        if (m_driver.app().isTerminating())
            return m_driver.app().queue()->operations().empty();
        for (const CVWindowController *window : m_driver.app().windowControllers()) {
            if (window->operationController()->isWorkingOnOperation())
                return false;
        }
        return m_driver.app().queue()->operations().empty();
    };
    while (!isQuiet()) {
        if (Clock::now() > end) {
            QStringList jobs;
            for (const auto &job : m_driver.app().queue()->operations())
                jobs.append(job->taskDescription());
            for (m_driver.window = 0; isUsable(); ++m_driver.window) {
                if (m_driver.operations().isWorkingOnOperation())
                    jobs.append(
                        u"that of window %1, screen %2"_s.arg(m_driver.window).arg(m_driver.screenName()));
            }
            return fail(u"jobs that do not end although they were cancelled: "_s + jobs.join(u", "_s));
        }
        for (CVWindowController *window : m_driver.app().windowControllers()) {
            if (window->operationController()->isWorkingOnOperation())
                window->operationController()->stopOperation();
        }
        // A job that failed is over when its message was read.
        for (m_driver.window = 0; isUsable(); ++m_driver.window) {
            if (m_driver.screenName() == u"alert"_s)
                m_driver.screen(u"alert"_s)->action(u"done"_s)->trigger();
        }
        m_driver.window = 0;
        for (const auto &job : m_driver.app().queue()->operations())
            job->cancel();
        QTest::qWait(20);
    }
    // Every window has a screen that one can go on from, or an alert that one can close.
    for (int i = 0; i < 30 && !m_driver.app().isTerminating(); ++i) {
        bool isAtMain = true;
        QString where;
        for (m_driver.window = 0; isUsable(); ++m_driver.window) {
            const QString screen = m_driver.screenName();
            if (screen == u"progress"_s || screen == u"fileAnalysis"_s || screen == u"password"_s) {
                isAtMain = false;
                where = u"window %1 of %2, screen %3"_s.arg(m_driver.window)
                            .arg(m_driver.app().windowControllers().size())
                            .arg(screen);
            }
        }
        m_driver.window = 0;
        if (isAtMain)
            break;
        if (i == 29)
            return fail(u"no job is left, but a window still shows one: "_s + where);
        QTest::qWait(100);
    }
    if (const QStringList damage = m_inputs.damage(); !damage.isEmpty())
        return fail(damage.join(u"; "_s));
    if (const QStringList escaped = m_inputs.escaped(); !escaped.isEmpty())
        return fail(u"written outside: "_s + escaped.join(u"; "_s));
    // Hidden work folders go with their jobs, but for those with what was opened from an archive: they are in
    // the list for the cleaning.
    QStringList left;
    const QStringList listed = CVWorkDirectoryManager::workDirs();
    QDirIterator folders(m_driver.folder(), {u".corvane-*"_s}, QDir::Dirs | QDir::Files | QDir::Hidden,
                         QDirIterator::Subdirectories);
    while (folders.hasNext()) {
        const QString folder = folders.next();
        if (!listed.contains(folder) || !folder.startsWith(m_driver.path(u"temporary"_s)))
            left.append(folder);
    }
    if (!left.isEmpty() && !m_driver.app().isTerminating())
        return fail(u"left behind: "_s + left.join(u"; "_s));
    // Results would fill the disk.
    QDir results(m_driver.path(u"results"_s));
    for (const QString &name : results.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
        const QFileInfo item(results.filePath(name));
        if (item.isDir() && !item.isSymLink())
            QDir(item.filePath()).removeRecursively();
        else
            QFile::remove(item.filePath());
    }
    ::malloc_trim(0);
    m_watch.forgivePause();
    m_memory.push_back({m_performed, MonkeyWatch::heapBytes(), MonkeyWatch::residentBytes()});
    m_watch.note(u"heap %1, resident %2, windows %3"_s
                     .arg(inMegabytes(m_memory.back().heap), inMegabytes(m_memory.back().resident))
                     .arg(m_driver.app().windowControllers().size()));
    return true;
}

void Monkey::report() const
{
    QTextStream out(stdout);
    out << m_performed << " actions, seed " << m_seed << ", " << m_restarts << " restarts, compared "
        << m_settled << " times\n";
    for (const auto &[title, counts] :
         {std::pair(u"actions"_s, m_counts), std::pair(u"screens"_s, m_screens)}) {
        out << title << ':';
        for (auto each = counts.begin(); each != counts.end(); ++each)
            out << ' ' << each.key() << ' ' << each.value();
        out << '\n';
    }
    out << "longest pause of the main thread " << m_watch.longestPause().count() << " ms during "
        << m_watch.longestPauseDuring() << '\n';
    if (!m_memory.empty()) {
        // The first part fills caches.
        const Memory &first = m_memory[m_memory.size() / 5];
        const Memory &last = m_memory.back();
        out << "heap " << inMegabytes(first.heap) << " -> " << inMegabytes(last.heap) << ", resident "
            << inMegabytes(first.resident) << " -> " << inMegabytes(last.resident) << ", over "
            << last.actions - first.actions << " actions\n";
    }
}

#include "ui/support/LargeArchiveTour.h"

#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVOutlineViewController.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVMainWindow.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHeaderView>
#include <QLineEdit>
#include <QScrollBar>
#include <QStyleOptionSlider>
#include <QTest>
#include <QTimer>
#include <QWheelEvent>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int mostMilliseconds = 120'000;
// Longer than the pause after which a typed letter is searched for.
constexpr int slowKey = 250;
constexpr int timeToPaint = 40;
constexpr int timeToFree = 3000;

double statusMegabytes(const QByteArray &field)
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(field.size()).simplified().split(' ').constFirst().toDouble() * 1024 / 1e6;
    }
    return 0;
}

void forgetPeak()
{
    QFile file(u"/proc/self/clear_refs"_s);
    if (file.open(QIODevice::WriteOnly))
        file.write("5");
}

void turnWheel(QWidget *widget, int notches)
{
    const QPointF middle = widget->rect().center();
    QWheelEvent event(middle, widget->mapToGlobal(middle), {}, {0, 120 * notches}, Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(widget, &event);
}

void sendMouse(QWidget *widget, QEvent::Type type, const QPoint &place)
{
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    const Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, place, widget->mapToGlobal(place), button, held, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

} // namespace

LargeArchiveTour::LargeArchiveTour(WindowDriver &driver, ManyEntries::Shape shape, int files)
    : m_driver(driver)
    , m_shape(shape)
    , m_files(files)
{}

CVOutlineViewController &LargeArchiveTour::preview() const
{
    return *static_cast<CVOutlineViewController *>(m_driver.screen(u"preview"_s));
}

CVFileNodeModel &LargeArchiveTour::model() const
{
    const bool isGrid = preview().fileViewControlValue() == CVOutlineViewController::GridMode;
    return isGrid ? preview().gridModel() : preview().listModel();
}

bool LargeArchiveTour::check(bool holds, const QString &what)
{
    if (!holds && m_problem.isEmpty())
        m_problem = what;
    return m_problem.isEmpty();
}

// Sleeps in the loop of events and nowhere else, or what is measured would be this.
void LargeArchiveTour::breathe(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

bool LargeArchiveTour::waitFor(const std::function<bool()> &holds)
{
    QElapsedTimer timer;
    timer.start();
    while (!holds()) {
        if (timer.elapsed() > mostMilliseconds)
            return false;
        breathe();
    }
    return true;
}

void LargeArchiveTour::step(const QString &what, const std::function<void()> &act)
{
    if (!m_problem.isEmpty())
        return;
    m_watch->reset();
    act();
    breathe(timeToPaint);
    m_steps.append({what, m_watch->worst(), statusMegabytes("VmRSS:")});
}

bool LargeArchiveTour::drop()
{
    return check(m_driver.drop({m_driver.path(u"large.zip"_s)}), u"the drop is not taken"_s) &&
           check(waitFor([this] { return m_driver.screenName() == u"preview"_s && !model().isBusy(); }),
                 u"the preview is not shown"_s) &&
           check(waitFor([this] { return model().totalCount().has_value(); }), u"nothing is counted"_s) &&
           check(model().rowCount() == ManyEntries::topCount(m_files, m_shape) &&
                     model().totalCount() == ManyEntries::totalCount(m_files, m_shape),
                 u"the preview does not show what is in the archive"_s);
}

void LargeArchiveTour::lookAround(QAbstractItemView *files)
{
    const QString where = files == preview().listView() ? u"list: "_s : u"icons: "_s;
    step(where + u"wheel"_s, [&] {
        for (int i = 0; i < 60; ++i) {
            turnWheel(files->viewport(), i < 40 ? -1 : 1);
            breathe();
        }
    });
    step(where + u"keys"_s, [&] {
        const QList<Qt::Key> keys = {Qt::Key_Down,     Qt::Key_PageDown, Qt::Key_PageDown, Qt::Key_PageDown,
                                     Qt::Key_PageUp,   Qt::Key_End,      Qt::Key_PageUp,   Qt::Key_Home,
                                     Qt::Key_PageDown, Qt::Key_Up,       Qt::Key_End};
        for (const Qt::Key key : keys) {
            QTest::keyClick(files, key);
            breathe();
        }
        check(files->currentIndex().row() == model().rowCount() - 1, u"End does not go to the end"_s);
        QTest::keyClick(files, Qt::Key_Home);
        breathe();
        check(files->currentIndex().row() == 0, u"Home does not go to the beginning"_s);
    });
    step(where + u"scroll bar"_s, [&] {
        QScrollBar *bar = files->verticalScrollBar();
        if (bar->maximum() == 0)
            return;
        QStyleOptionSlider option;
        option.initFrom(bar);
        option.orientation = Qt::Vertical;
        option.maximum = bar->maximum();
        option.pageStep = bar->pageStep();
        option.sliderPosition = option.sliderValue = bar->value();
        option.subControls = QStyle::SC_All;
        const QPoint began =
            bar->style()
                ->subControlRect(QStyle::CC_ScrollBar, &option, QStyle::SC_ScrollBarSlider, bar)
                .center();
        sendMouse(bar, QEvent::MouseButtonPress, began);
        for (int i = 1; i <= 60; ++i) {
            sendMouse(bar, QEvent::MouseMove, began + QPoint(0, bar->height() * i / 60));
            breathe();
        }
        check(bar->value() == bar->maximum(), u"the scroll bar cannot be dragged to its end"_s);
        sendMouse(bar, QEvent::MouseButtonRelease, began + QPoint(0, bar->height()));
    });
    step(where + u"typed name"_s, [&] {
        QTest::keyClick(files, Qt::Key_Home);
        for (const char letter : {'d', 'o', 'c', 'z'}) {
            QTest::keyClick(files, letter);
            breathe();
        }
    });
}

void LargeArchiveTour::sortByColumns()
{
    QHeaderView *header = preview().listView()->horizontalHeader();
    for (int i = header->count() - 1; i >= 0; --i) {
        if (header->isSectionHidden(i))
            continue;
        const QString column = header->model()->headerData(i, Qt::Horizontal).toString();
        for (int time = 0; time < 2; ++time) {
            step(u"list: sort by "_s + column + (time == 0 ? u""_s : u", again"_s), [&] {
                const QPoint place(header->sectionViewportPosition(i) + header->sectionSize(i) / 2,
                                   header->height() / 2);
                QTest::mouseClick(header->viewport(), Qt::LeftButton, {}, place);
                check(waitFor([this] { return !model().isBusy(); }), u"the sorting does not end"_s);
                check(static_cast<int>(model().order().column) == i, u"a click does not sort"_s);
            });
        }
    }
}

void LargeArchiveTour::search(const QString &text)
{
    const QString where = &model() == &preview().listModel() ? u"list: "_s : u"icons: "_s;
    const int before = model().rowCount();
    QLineEdit *field = preview().searchField();
    const auto settle = [this] {
        check(waitFor([this] {
                  return !model().isBusy() &&
                         model().searchText() == preview().searchField()->text().trimmed();
              }),
              u"the search does not end"_s);
    };
    for (const int pause : {slowKey, 20}) {
        step(where + (pause == slowKey ? u"search, slow keys"_s : u"search, fast keys"_s), [&] {
            field->setFocus();
            for (const QChar letter : text) {
                QTest::keyClick(field, letter.toLatin1());
                breathe(pause);
            }
            settle();
            check(model().rowCount() > 0, u"the search finds nothing"_s);
        });
        if (pause == slowKey && &model() == &preview().listModel())
            sortByColumns();
        step(where + u"search, taken back"_s, [&] {
            for (qsizetype i = 0; i < text.size(); ++i) {
                QTest::keyClick(field, Qt::Key_Backspace);
                breathe(pause);
            }
            settle();
            check(model().rowCount() == before, u"without a search not everything is there again"_s);
        });
    }
    step(where + u"search, cleared"_s, [&] {
        QTest::keyClicks(field, text);
        settle();
        QTest::keyClick(field, Qt::Key_Escape);
        settle();
        check(model().rowCount() == before, u"after a search not everything is there again"_s);
    });
}

void LargeArchiveTour::selectAndLeaveIt(QAbstractItemView *files)
{
    const QString where = files == preview().listView() ? u"list: "_s : u"icons: "_s;
    files->setFocus();
    step(where + u"select all"_s, [&] {
        QTest::keyClick(files, Qt::Key_A, Qt::ControlModifier);
        breathe(50);
        check(files->selectionModel()->isSelected(model().index(model().rowCount() - 1, 0)),
              u"not everything is selected"_s);
        turnWheel(files->viewport(), -3);
        breathe(50);
    });
    step(where + u"one more and one less"_s, [&] {
        for (int i = 0; i < 2; ++i) {
            const QPoint place = files->visualRect(files->indexAt(QPoint(60, 60))).center();
            QTest::mouseClick(files->viewport(), Qt::LeftButton, Qt::ControlModifier, place);
            breathe(20);
        }
    });
    step(where + u"extract all that is selected"_s, [&] {
        // More than can be taken at once are refused; less are asked a place for.
        if (model().rowCount() > 20'000)
            m_driver.press(Qt::Key_E, Qt::ControlModifier);
        breathe(50);
    });
    step(where + u"up to the end, from the keyboard"_s, [&] {
        QTest::keyClick(files, Qt::Key_Home);
        QTest::keyClick(files, Qt::Key_End, Qt::ShiftModifier);
        breathe(50);
        QTest::keyClick(files, Qt::Key_Home);
        breathe(50);
    });
}

void LargeArchiveTour::inList()
{
    CVFileListView *list = preview().listView();
    lookAround(list);
    selectAndLeaveIt(list);
    if (m_shape == ManyEntries::Shape::Folders) {
        step(u"list: open folders"_s, [&] {
            QTest::keyClick(list, Qt::Key_Home);
            for (int i = 0; i < 30; ++i) {
                QTest::keyClick(list, Qt::Key_Right);
                check(waitFor([this] { return !model().isBusy(); }), u"a folder does not open"_s);
                QTest::keyClick(list, Qt::Key_Left);
                QTest::keyClick(list, Qt::Key_Down);
                QTest::keyClick(list, Qt::Key_Up);
                QTest::keyClick(list, Qt::Key_Right);
                check(waitFor([this] { return !model().isBusy(); }), u"a folder does not open"_s);
                list->setCurrentIndex(model().index(list->currentIndex().row() + 1001, 0));
                breathe();
            }
            check(model().rowCount() > 30'000, u"folders do not open"_s);
        });
        lookAround(list);
        selectAndLeaveIt(list);
    }
    sortByColumns();
    step(u"list: sort with all selected"_s, [&] {
        QTest::keyClick(list, Qt::Key_A, Qt::ControlModifier);
        model().sort(1, Qt::AscendingOrder);
        check(waitFor([this] { return !model().isBusy(); }), u"the sorting does not end"_s);
        model().sort(0, Qt::AscendingOrder);
        check(waitFor([this] { return !model().isBusy(); }), u"the sorting does not end"_s);
        QTest::keyClick(list, Qt::Key_Home);
        breathe(50);
    });
    search(u"ment 77"_s);
}

void LargeArchiveTour::inGrid()
{
    step(u"icons: shown"_s, [&] {
        m_driver.clickWidget(u"gridButton"_s);
        breathe(50);
        check(waitFor([this] { return !model().isBusy() && model().rowCount() > 0; }),
              u"the icons are not shown"_s);
    });
    CVFileGridView *grid = preview().gridView();
    lookAround(grid);
    selectAndLeaveIt(grid);
    search(u"99"_s);
    if (m_shape == ManyEntries::Shape::Folders) {
        step(u"icons: into a folder and out"_s, [&] {
            QTest::keyClick(grid, Qt::Key_Home);
            QTest::keyClick(grid, Qt::Key_Down, Qt::ControlModifier);
            check(waitFor([this] { return !model().isBusy(); }), u"the folder is not shown"_s);
            check(model().rowCount() == 1000, u"the folder does not show what is in it"_s);
            QTest::keyClick(grid, Qt::Key_Backspace);
            check(waitFor([this] { return !model().isBusy(); }), u"the folder cannot be left"_s);
        });
    }
    step(u"list: shown again"_s, [&] {
        m_driver.clickWidget(u"listButton"_s);
        breathe(50);
        check(waitFor([this] { return !model().isBusy(); }), u"the list is not shown"_s);
    });
    step(u"window: larger and smaller"_s, [&] {
        m_driver.mainWindow()->resize(1000, 800);
        breathe(50);
        m_driver.mainWindow()->resize(500, 500);
        breathe(50);
    });
}

void LargeArchiveTour::leave()
{
    step(u"back to the beginning"_s, [&] {
        preview().listView()->setFocus();
        m_driver.press(Qt::Key_Escape);
        check(waitFor([this] { return m_driver.screenName() == u"dropBox"_s; }), u"it cannot be left"_s);
        breathe(timeToFree);
    });
    m_leftMegabytes = statusMegabytes("VmRSS:");
    step(u"drop, second time"_s, [&] { drop(); });
    step(u"close while it sorts"_s, [&] {
        QTest::keyClick(preview().listView(), Qt::Key_A, Qt::ControlModifier);
        model().sort(1, Qt::DescendingOrder);
        breathe(20);
        m_driver.mainWindow()->close();
        check(waitFor([this] { return m_driver.app().windowControllers().empty(); }),
              u"the window does not close"_s);
        breathe(timeToFree / 3);
    });
    check(m_driver.end(), u"the application does not end"_s);
}

void LargeArchiveTour::closeWhileRead()
{
    check(m_driver.start(), u"the application does not start again"_s);
    step(u"close while it is read"_s, [&] {
        check(m_driver.drop({m_driver.path(u"large.zip"_s)}), u"the drop is not taken by the next window"_s);
        breathe(slowKey);
        m_driver.mainWindow()->close();
        check(waitFor([this] { return m_driver.app().windowControllers().empty(); }),
              u"the window does not close while it reads"_s);
        breathe(timeToFree / 3);
    });
    check(m_driver.end(), u"the application does not end"_s);
}

bool LargeArchiveTour::run()
{
    if (!check(ManyEntries::writeZip(m_driver.path(u"large.zip"_s), m_files, m_shape),
               u"the archive cannot be written"_s))
        return false;
    forgetPeak();
    if (!check(m_driver.start(), u"the application does not start"_s))
        return false;
    MainThreadWatch watch;
    m_watch = &watch;
    step(u"drop"_s, [&] { drop(); });
    if (m_problem.isEmpty())
        inList();
    if (m_problem.isEmpty())
        inGrid();
    if (m_problem.isEmpty())
        leave();
    if (m_problem.isEmpty())
        closeWhileRead();
    m_watch = nullptr;
    m_peakMegabytes = statusMegabytes("VmHWM:");
    return m_problem.isEmpty();
}

LargeArchiveTour::Step LargeArchiveTour::longest() const
{
    const auto found =
        std::ranges::max_element(m_steps, {}, [](const Step &step) { return step.worst.milliseconds; });
    return found == m_steps.end() ? Step() : *found;
}

QString LargeArchiveTour::report() const
{
    QString text;
    for (const Step &step : m_steps)
        text += u"%1 ms, %2 of its own, %3 MB: %4\n"_s.arg(step.worst.milliseconds, 7, 'f', 1)
                    .arg(step.worst.own, 6, 'f', 1)
                    .arg(step.megabytes, 4, 'f', 0)
                    .arg(step.what);
    return text + u"peak %1 MB, %2 MB after it was left\n"_s.arg(m_peakMegabytes, 0, 'f', 0)
                      .arg(m_leftMegabytes, 0, 'f', 0);
}

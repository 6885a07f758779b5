#include "engine/model/CVSettings.h"
#include "ui/base/CVFileWell.h"
#include "ui/base/CVTheme.h"
#include "ui/progress/CVAlertViewController.h"
#include "ui/progress/CVPasswordViewController.h"
#include "ui/progress/CVProgressController.h"
#include "ui/progress/CVProgressText.h"
#include "ui/progress/CVProgressView.h"
#include "ui/support/ScreenStage.h"
#include "util/LXMainThread.h"

#include <QAccessible>
#include <QCheckBox>
#include <QDropEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <future>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

QStringList labelTexts(const QWidget *view)
{
    QStringList texts;
    for (const QLabel *label : view->findChildren<QLabel *>()) {
        if (!label->text().isEmpty() && label->isVisibleTo(view))
            texts.append(label->text());
    }
    return texts;
}

/// A job's thread that asks for a password.
class Asker
{
public:
    explicit Asker(CVPasswordScreen &screen)
        : m_answer(std::async(std::launch::async, [&screen, stop = source.get_token()] {
            return screen.promptForPassword(stop);
        }))
    {}
    ~Asker()
    {
        source.request_stop();
        wait();
    }
    bool wait()
    {
        return QTest::qWaitFor([this] { return isReady(); }, 5000);
    }
    bool isReady() const
    {
        return !m_answer.valid() || m_answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    std::optional<QString> answer() { return m_answer.get(); }

    std::stop_source source;

private:
    std::future<std::optional<QString>> m_answer;
};

class PasswordListener final : public CVPasswordDelegate
{
public:
    void passwordPromptFinishedWasCancelled(bool cancelled) override
    {
        ends.append(cancelled ? u"cancelled"_s : u"done"_s);
        if (onEnd)
            onEnd();
    }
    QStringList ends;
    std::function<void()> onEnd;
};

} // namespace

class tst_progress_screens : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase() { m_stage.reset(); }

    void barShowsTheShare_data();
    void barShowsTheShare();
    void onlyBytesAreShownAsBytes();
    void manyReportsAreOneEvent();
    void timeLeftIsRounded_data();
    void timeLeftIsRounded();
    void batchIsShownAsAWhole();
    void cancelRunsTheLastActionOnce();
    void reportsOutliveTheScreen();
    void dropsReachTheWindow();
    void timeLeftIsNotSpokenAllTheTime();

    void passwordEndsOnce_data();
    void passwordEndsOnce();
    void passwordOfAStoppedJob();
    void passwordWhenTheScreenGoes_data();
    void passwordWhenTheScreenGoes();
    void askersTakeTurns();
    void passwordFieldFollowsTheSetting();
    void failedPasswordIsKeptForMending();
    void hostileNamesAreText();

    void alertEndsOnce_data();
    void alertEndsOnce();
    void alertThatIsReplaced();
    void alertHeight();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ScreenStage> m_stage;
};

void tst_progress_screens::initTestCase()
{
    LXMainThread::install();
    CVTheme::setReducedMotion(true);
    // One for all: the offscreen platform does not always activate a second one.
    m_stage = std::make_unique<ScreenStage>();
    QVERIFY(QTest::qWaitForWindowActive(&m_stage->window));
}

void tst_progress_screens::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    CVSettings::setStore(std::make_shared<LXSettingsStore>(m_dir->filePath(u"settings"_s)));
    m_stage->requests.clear();
}

void tst_progress_screens::cleanup()
{
    m_stage->clear();
    CVSettings::setStore(nullptr);
}

void tst_progress_screens::barShowsTheShare_data()
{
    QTest::addColumn<double>("done");
    QTest::addColumn<double>("total");
    QTest::addColumn<double>("share");
    QTest::newRow("half") << 5.0 << 10.0 << 0.5;
    QTest::newRow("total of nothing") << 5.0 << 0.0 << 0.0;
    QTest::newRow("more than all") << 11.0 << 10.0 << 1.0;
    QTest::newRow("less than nothing") << -1.0 << 10.0 << 0.0;
    QTest::newRow("beyond int") << 4e12 << 8e12 << 0.5;
    QTest::newRow("nonsense") << 1.0 << -3.0 << 0.0;
}

void tst_progress_screens::barShowsTheShare()
{
    QFETCH(double, done);
    QFETCH(double, total);
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setProgress(done, total);
    screen.refresh();
    const auto *bar = screen.view()->findChild<QProgressBar *>();
    QVERIFY(bar->maximum() > bar->minimum());
    QTEST(double(bar->value()) / bar->maximum(), "share");
    screen.reset();
    screen.refresh();
    QCOMPARE(bar->value(), 0);
}

void tst_progress_screens::onlyBytesAreShownAsBytes()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setJob(u"Creating “a.zip”"_s);
    screen.setProgress(3, 12);
    screen.refresh();
    QTRY_VERIFY(labelTexts(screen.view()).contains(u"25 %"_s));
    screen.reset();
    screen.setProgressUnit(LXProgressUnit::Bytes);
    screen.setProgress(3'000'000, 12'000'000);
    QTRY_VERIFY(labelTexts(screen.view()).join(u' ').contains(u"3.0 MB of 12.0 MB"_s));
    QVERIFY(!labelTexts(screen.view()).join(u' ').contains(u'%'));
    screen.reset(); // the next job counts shares until it says otherwise
    screen.setProgress(1, 2);
    QTRY_VERIFY(labelTexts(screen.view()).contains(u"50 %"_s));
}

void tst_progress_screens::manyReportsAreOneEvent()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    auto *bar = screen.view()->findChild<QProgressBar *>();
    screen.setProgress(0, 1e6);
    screen.refresh();
    QSignalSpy changes(bar, &QProgressBar::valueChanged);
    std::jthread job([&screen] {
        for (int i = 0; i <= 1'000'000; ++i)
            screen.setProgress(i, 1e6);
    });
    QTRY_COMPARE(bar->value(), bar->maximum());
    job.join();
    QTest::qWait(50);
    // The bar has ten thousand steps, and a million reports would have shown them all.
    QVERIFY2(changes.size() < 1000, qPrintable(QString::number(changes.size())));
}

void tst_progress_screens::timeLeftIsRounded_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");
    QTest::newRow("end") << 0.0 << u"A few seconds left"_s;
    QTest::newRow("seconds") << 13.0 << u"About 15 seconds left"_s;
    QTest::newRow("almost a minute") << 57.0 << u"About 55 seconds left"_s;
    QTest::newRow("a minute") << 61.0 << u"About a minute left"_s;
    QTest::newRow("two") << 115.0 << u"About 2 minutes left"_s;
    QTest::newRow("many") << 43.0 * 60 << u"About 45 minutes left"_s;
    QTest::newRow("an hour") << 59.0 * 60 << u"About an hour left"_s;
    QTest::newRow("hours") << 2.6 * 3600 << u"About 3 hours left"_s;
    QTest::newRow("days") << 50.0 * 3600 << u"More than a day left"_s;
}

void tst_progress_screens::timeLeftIsRounded()
{
    QFETCH(double, seconds);
    QTEST(CVProgressText::timeLeft(seconds), "text");
}

void tst_progress_screens::batchIsShownAsAWhole()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setBatchPosition({.number = 2, .count = 5, .shareBefore = 0.2, .shareAfter = 0.6});
    screen.setProgress(1, 2);
    screen.refresh();
    QVERIFY(labelTexts(screen.view()).contains(u"Archive 2 of 5"_s));
    const auto bars = screen.view()->findChildren<QProgressBar *>();
    QCOMPARE(bars.size(), 2);
    QStringList shares;
    for (const QProgressBar *bar : bars)
        shares.append(QString::number(bar->value() * 100 / bar->maximum()));
    shares.sort();
    QCOMPARE(shares, (QStringList{u"40"_s, u"50"_s}));
    screen.reset();
    screen.refresh();
    QVERIFY(!labelTexts(screen.view()).contains(u"Archive 2 of 5"_s));
}

void tst_progress_screens::cancelRunsTheLastActionOnce()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    QStringList cancelled;
    screen.setCancelButton([&] { cancelled.append(u"first"_s); });
    screen.setCancelButton([&] { cancelled.append(u"second"_s); });
    screen.refresh();
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QCOMPARE(cancelled, QStringList(u"second"_s));
    QVERIFY(labelTexts(screen.view()).contains(u"Cancelling…"_s));
    // A late report of the job that is being stopped changes nothing about that.
    screen.setProgress(1, 2);
    QTest::qWait(600);
    QVERIFY(labelTexts(screen.view()).contains(u"Cancelling…"_s));
    // The next job can be cancelled as well.
    screen.reset();
    screen.setCancelButton([&] { cancelled.append(u"third"_s); });
    screen.refresh();
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QCOMPARE(cancelled.size(), 2);
}

void tst_progress_screens::reportsOutliveTheScreen()
{
    auto screen = std::make_unique<CVProgressController>();
    m_stage->loadViewController(*screen, false);
    screen->setProgress(1, 2);
    screen->setJob(u"x"_s);
    m_stage->clear();
    screen.reset();
    QCoreApplication::processEvents(); // what was on its way finds nobody
}

void tst_progress_screens::dropsReachTheWindow()
{
    CVProgressController screen;
    QStringList dropped;
    screen.setFilesDropped([&](const QStringList &paths) { dropped = paths; });
    m_stage->loadViewController(screen, false);
    auto *well = screen.view()->findChild<CVFileWell *>();
    QMimeData data;
    data.setData(u"text/uri-list"_s,
                 "file:///tmp/a%20b.zip\r\nfile:///tmp/%FF.rar\r\nhttps://a.invalid/b.zip\r\n");
    QVERIFY(!well->acceptDrops());
    screen.setAcceptsDrops(true);
    QVERIFY(well->acceptDrops());
    const QPointF middle(well->rect().center());
    QDragEnterEvent enter(middle.toPoint(), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
    QCoreApplication::sendEvent(well, &enter);
    QVERIFY(enter.isAccepted());
    QCOMPARE(enter.dropAction(), Qt::CopyAction);
    QDropEvent drop(middle, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
    QCoreApplication::sendEvent(well, &drop);
    QCOMPARE(drop.dropAction(), Qt::CopyAction); // never takes the files away
    QCOMPARE(dropped, (QStringList{u"/tmp/a b.zip"_s, u"/tmp/"_s + QChar(0xdcff) + u".rar"_s}));
}

void tst_progress_screens::timeLeftIsNotSpokenAllTheTime()
{
    CVProgressView view;
    view.setTimeLeft(u"About 3 minutes left"_s);
    view.setTimeLeft(u"About 2 minutes left"_s);
    const auto labels = view.findChildren<QLabel *>();
    const auto time =
        std::ranges::find_if(labels, [](const QLabel *l) { return l->text().startsWith(u"About 2"); });
    QVERIFY(time != labels.end());
    QCOMPARE((*time)->accessibleName(), u"About 3 minutes left"_s);
}

void tst_progress_screens::passwordEndsOnce_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<QStringList>("ends");
    QTest::newRow("Return") << u"Return"_s << QStringList(u"done"_s);
    QTest::newRow("Enter") << u"Enter"_s << QStringList(u"done"_s);
    QTest::newRow("tool bar") << u"tool bar"_s << QStringList(u"done"_s);
    QTest::newRow("Escape") << u"Escape"_s << QStringList(u"cancelled"_s);
}

void tst_progress_screens::passwordEndsOnce()
{
    QFETCH(QString, how);
    QFETCH(QStringList, ends);
    CVPasswordViewController screen(*m_stage);
    PasswordListener listener;
    listener.onEnd = [&] { m_stage->leave(u"back"_s); };
    screen.setPasswordDelegate(&listener);
    Asker asker(screen);
    QTRY_COMPARE(m_stage->current.get(), &screen);
    QCOMPARE(screen.result(), -1);
    QTest::keyClicks(QApplication::focusWidget(), u"p@ssword"_s);
    QWindow *window = m_stage->window.windowHandle();
    if (how == u"tool bar")
        m_stage->toolbar->item(u"done"_s)->trigger();
    else
        QTest::keyClick(window, how == u"Return"  ? Qt::Key_Return
                                : how == u"Enter" ? Qt::Key_Enter
                                                  : Qt::Key_Escape);
    screen.cancelPasswordPrompt(); // too late
    QVERIFY(asker.wait());
    const bool isDone = ends == QStringList(u"done"_s);
    QCOMPARE(asker.answer(), isDone ? std::optional(u"p@ssword"_s) : std::nullopt);
    QCOMPARE(listener.ends, ends);
    QCOMPARE(screen.result(), isDone ? 1 : 2);
    QCOMPARE(screen.finishedOk(), isDone);
}

void tst_progress_screens::passwordOfAStoppedJob()
{
    CVPasswordViewController screen(*m_stage);
    PasswordListener listener;
    screen.setPasswordDelegate(&listener);
    Asker asker(screen);
    QTRY_COMPARE(m_stage->current.get(), &screen);
    QTest::keyClicks(QApplication::focusWidget(), u"secret"_s);
    asker.source.request_stop();
    // Before the stop could come through: whoever stopped the job goes back, not this prompt.
    screen.confirmPasswordPrompt();
    QVERIFY(asker.wait());
    QCOMPARE(asker.answer(), std::nullopt);
    QCoreApplication::processEvents();
    QCOMPARE(listener.ends, QStringList());
    QCOMPARE(m_stage->requests, QStringList(u"load"_s));

    // One that is stopped before it asks is not seen at all.
    std::stop_source stopped;
    stopped.request_stop();
    std::async(std::launch::async, [&] {
        QCOMPARE(screen.promptForPassword(stopped.get_token()), std::nullopt);
    }).get();
    QCoreApplication::processEvents();
    QCOMPARE(m_stage->requests, QStringList(u"load"_s));
    m_stage->clear();
}

void tst_progress_screens::passwordWhenTheScreenGoes_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("another screen") << u"another"_s;
    QTest::newRow("deleted") << u"deleted"_s;
    QTest::newRow("deleted before it was shown") << u"unseen"_s;
}

void tst_progress_screens::passwordWhenTheScreenGoes()
{
    QFETCH(QString, how);
    auto screen = std::make_unique<CVPasswordViewController>(*m_stage);
    Asker asker(*screen);
    if (how == u"unseen") {
        QThread::msleep(50); // no events are handled meanwhile
    } else {
        QTRY_COMPARE(m_stage->current.get(), screen.get());
    }
    CVProgressController progress;
    if (how == u"another")
        m_stage->loadViewController(progress, false);
    else
        m_stage->clear(), screen.reset();
    QVERIFY(asker.wait());
    QCOMPARE(asker.answer(), std::nullopt);
    m_stage->clear();
}

void tst_progress_screens::askersTakeTurns()
{
    CVPasswordViewController screen(*m_stage);
    PasswordListener listener;
    screen.setPasswordDelegate(&listener);
    std::vector<std::unique_ptr<Asker>> askers;
    for (int i = 0; i < 3; ++i)
        askers.push_back(std::make_unique<Asker>(screen));
    QTRY_COMPARE(m_stage->requests.size(), 1);
    askers.push_back(std::make_unique<Asker>(screen));
    askers.back()->source.request_stop(); // one that waits for its turn can be stopped as well
    QVERIFY(askers.back()->wait());
    askers.pop_back();
    for (int i = 1; i <= 3; ++i) {
        QTRY_COMPARE(m_stage->requests.size(), i);
        QTest::keyClicks(QApplication::focusWidget(), QString::number(i));
        QTest::keyClick(&m_stage->window, Qt::Key_Return);
    }
    QSet<QString> answers;
    for (const auto &asker : askers) {
        QVERIFY(asker->wait());
        answers.insert(asker->answer().value_or(u"none"_s));
    }
    QCOMPARE(answers, (QSet<QString>{u"1"_s, u"2"_s, u"3"_s}));
    QCOMPARE(listener.ends.size(), 3);
}

void tst_progress_screens::passwordFieldFollowsTheSetting()
{
    CVSettings::setValue(CVSettingsKey::shouldShowPassword, true);
    CVPasswordViewController screen(*m_stage);
    Asker asker(screen);
    QTRY_COMPARE(m_stage->current.get(), &screen);
    auto *field = screen.view()->findChild<QLineEdit *>();
    auto *box = screen.view()->findChild<QCheckBox *>();
    QCOMPARE(field->echoMode(), QLineEdit::Normal);
    QTest::mouseClick(box, Qt::LeftButton, {}, QPoint(8, box->height() / 2));
    QCOMPARE(field->echoMode(), QLineEdit::Password);
    QVERIFY(!CVSettings::boolean(CVSettingsKey::shouldShowPassword));
    QCOMPARE(QApplication::focusWidget(), field); // one goes on typing
    QTest::keyClick(field, Qt::Key_Escape);
}

void tst_progress_screens::failedPasswordIsKeptForMending()
{
    CVPasswordViewController screen(*m_stage);
    const auto field = screen.view()->findChild<QLineEdit *>();
    {
        Asker first(screen);
        QTRY_COMPARE(m_stage->requests.size(), 1);
        QTest::keyClicks(field, u"wrnog"_s);
        QTest::keyClick(field, Qt::Key_Return);
    }
    screen.setLastTryFailed(true);
    {
        Asker second(screen);
        QTRY_COMPARE(m_stage->requests.size(), 2);
        QCOMPARE(field->selectedText().size(), 5);
        QTest::keyClicks(field, u"right"_s);
        QTest::keyClick(field, Qt::Key_Return);
        QVERIFY(second.wait());
        QCOMPARE(second.answer(), u"right"_s);
    }
    Asker third(screen); // of another archive
    QTRY_COMPARE(m_stage->requests.size(), 3);
    QCOMPARE(field->text(), QString());
}

void tst_progress_screens::hostileNamesAreText()
{
    const QString name = u"<b>a</b>&amp;\n\u202e%1.zip"_s;
    CVPasswordViewController password(*m_stage);
    password.setInformativeText(u"Please enter the password to open “%1”"_s.arg(name));
    const QString shown = labelTexts(password.view()).join(u' ');
    QVERIFY(shown.contains(u"<b>a</b>&amp;\\n\\u{202e}%1.zip"_s));
    CVAlertViewController alert;
    alert.prepareAlert(true, name, name, u"Replace"_s);
    for (const CVViewController *screen :
         {static_cast<CVViewController *>(&password), static_cast<CVViewController *>(&alert)}) {
        for (const QLabel *label : screen->view()->findChildren<QLabel *>()) {
            QVERIFY(label->text().isEmpty() || label->textFormat() == Qt::PlainText ||
                    label->text() == u"Caps Lock is on");
            QVERIFY(!label->text().contains(QChar(0x202e)));
        }
    }
}

void tst_progress_screens::alertEndsOnce_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("withCancel");
    QTest::addColumn<QList<int>>("results");
    QTest::newRow("Return") << u"Return"_s << true << QList<int>{1};
    QTest::newRow("Return on Cancel") << u"Return on Cancel"_s << true << QList<int>{0};
    QTest::newRow("Space on Cancel") << u"Space on Cancel"_s << true << QList<int>{0};
    QTest::newRow("Escape") << u"Escape"_s << true << QList<int>{0};
    QTest::newRow("nothing to cancel") << u"Escape"_s << false << QList<int>{};
    QTest::newRow("default button") << u"default"_s << true << QList<int>{1};
    QTest::newRow("stopped") << u"stop"_s << true << QList<int>{0};
}

void tst_progress_screens::alertEndsOnce()
{
    QFETCH(QString, how);
    QFETCH(bool, withCancel);
    CVAlertViewController alert;
    QList<int> results;
    alert.prepareAlert(withCancel, u"Message"_s, u"More"_s, u"Replace"_s);
    alert.run([&](int result) {
        results.append(result);
        m_stage->leave(u"back"_s);
    });
    m_stage->loadViewController(alert, false);
    QCOMPARE(m_stage->toolbar->item(u"done"_s)->text(), u"Replace"_s);
    QCOMPARE(m_stage->toolbar->item(u"cancel"_s) != nullptr, withCancel);
    const auto buttons = alert.view()->findChildren<QPushButton *>();
    const auto isDefault = [](const QPushButton *button) { return button->isDefault(); };
    auto *accept = *std::ranges::find_if(buttons, isDefault);
    auto *cancel = *std::ranges::find_if_not(buttons, isDefault);
    QCOMPARE(cancel->isVisible(), withCancel);
    QCOMPARE(QApplication::focusWidget(), accept);
    if (how.endsWith(u"Cancel"))
        cancel->setFocus();
    if (how == u"stop")
        alert.stop();
    else if (how == u"default")
        QTest::mouseClick(accept, Qt::LeftButton);
    else
        QTest::keyClick(QApplication::focusWidget(), how.startsWith(u"Return")  ? Qt::Key_Return
                                                     : how.startsWith(u"Space") ? Qt::Key_Space
                                                                                : Qt::Key_Escape);
    QTEST(results, "results");
    if (!results.isEmpty()) {
        alert.stop();
        QCoreApplication::processEvents();
        QCOMPARE(results.size(), 1);
    }
}

void tst_progress_screens::alertThatIsReplaced()
{
    CVAlertViewController alert;
    CVProgressController progress;
    QStringList ends;
    const auto ended = [&](const QString &name) {
        return [&ends, name](int result) { ends.append(name + QString::number(result)); };
    };
    alert.prepareAlert(false, u"One"_s, {}, u"OK"_s);
    alert.run(ended(u"one"_s));
    m_stage->loadViewController(alert, false);
    // The next one on the same screen: the first is over, the second is not.
    alert.prepareAlert(true, u"Two"_s, {}, u"Replace"_s);
    alert.run(ended(u"two"_s));
    m_stage->loadViewController(alert, false);
    QCoreApplication::processEvents();
    QCOMPARE(ends, QStringList(u"one0"_s));
    m_stage->loadViewController(progress, false);
    QTRY_COMPARE(ends, (QStringList{u"one0"_s, u"two0"_s}));
}

void tst_progress_screens::alertHeight()
{
    CVAlertViewController alert;
    alert.prepareAlert(false, u"Short"_s, {}, {});
    QCOMPARE(alert.size(), CVTheme::initialSize());
    const QString line = u"Several words that make one line of an explanation, more or less.\n"_s;
    alert.prepareAlert(false, u"Longer"_s, line.repeated(6), {});
    const int longer = alert.size().height();
    QVERIFY(longer > CVTheme::initialSize().height());
    // Very long ones scroll, and a name without a blank does not widen the window.
    alert.prepareAlert(true, u"Longest"_s, line.repeated(400) + QString(5000, u'x'), u"Skip"_s);
    QVERIFY(alert.size().height() > longer && alert.size().height() < 800);
    QCOMPARE(alert.size().width(), CVTheme::initialSize().width());
    m_stage->loadViewController(alert, false);
    QCoreApplication::processEvents();
    const auto bars = alert.view()->findChildren<QScrollBar *>();
    QVERIFY(std::ranges::any_of(bars, [](const QScrollBar *bar) { return bar->maximum() > 0; }));
    for (const QPushButton *button : alert.view()->findChildren<QPushButton *>())
        QVERIFY(alert.view()->rect().contains(button->geometry()));
}

QTEST_MAIN(tst_progress_screens)
#include "tst_progress_screens.moc"

#include "engine/model/CVSettings.h"
#include "ui/base/CVTheme.h"
#include "ui/progress/CVAlertViewController.h"
#include "ui/progress/CVPasswordViewController.h"
#include "ui/progress/CVProgressController.h"
#include "ui/support/ScreenTest.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>

#include <algorithm>
#include <future>

using namespace Qt::StringLiterals;

namespace {

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

class tst_question_screens : public ScreenTest
{
    Q_OBJECT

private Q_SLOTS:
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
};

void tst_question_screens::passwordEndsOnce_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<QStringList>("ends");
    QTest::newRow("Return") << u"Return"_s << QStringList(u"done"_s);
    QTest::newRow("Enter") << u"Enter"_s << QStringList(u"done"_s);
    QTest::newRow("tool bar") << u"tool bar"_s << QStringList(u"done"_s);
    QTest::newRow("Escape") << u"Escape"_s << QStringList(u"cancelled"_s);
}

void tst_question_screens::passwordEndsOnce()
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

void tst_question_screens::passwordOfAStoppedJob()
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

void tst_question_screens::passwordWhenTheScreenGoes_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("another screen") << u"another"_s;
    QTest::newRow("deleted") << u"deleted"_s;
    QTest::newRow("deleted before it was shown") << u"unseen"_s;
}

void tst_question_screens::passwordWhenTheScreenGoes()
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

void tst_question_screens::askersTakeTurns()
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

void tst_question_screens::passwordFieldFollowsTheSetting()
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

void tst_question_screens::failedPasswordIsKeptForMending()
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

void tst_question_screens::hostileNamesAreText()
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

void tst_question_screens::alertEndsOnce_data()
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

void tst_question_screens::alertEndsOnce()
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

void tst_question_screens::alertThatIsReplaced()
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

void tst_question_screens::alertHeight()
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

QTEST_MAIN(tst_question_screens)
#include "tst_question_screens.moc"

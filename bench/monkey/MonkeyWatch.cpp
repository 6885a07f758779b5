#include "monkey/MonkeyWatch.h"

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QKeyEvent>

#include <thread>
#include <utility>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int tickMilliseconds = 10;
constexpr auto notedPause = std::chrono::milliseconds(100);
constexpr int janitorMilliseconds = 120;
constexpr auto guardSleep = std::chrono::milliseconds(200);

} // namespace

MonkeyWatch::MonkeyWatch(const QString &logPath, std::chrono::seconds patience)
    : m_log(::open(QFile::encodeName(logPath).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
    , m_last(Clock::now())
{
    connect(&m_ticks, &QTimer::timeout, this, &MonkeyWatch::tick);
    m_ticks.setTimerType(Qt::PreciseTimer);
    m_ticks.start(tickMilliseconds);
    connect(&m_janitor, &QTimer::timeout, this, &MonkeyWatch::clearTheWay);
    m_janitor.start(janitorMilliseconds);
    // Looks now and then: a wait that its end interrupts is one more thing for the thread sanitizer to doubt.
    m_guard = std::jthread([this, patience](const std::stop_token &stop) {
        qint64 last = -1;
        for (auto seen = Clock::now(); !stop.stop_requested();) {
            std::this_thread::sleep_for(guardSleep);
            if (const qint64 now = m_beat.load(); std::exchange(last, now) != now) {
                seen = Clock::now();
            } else if (Clock::now() - seen > patience) {
                static constexpr char text[] = "monkey: the main thread stands still\n";
                (void)!::write(STDERR_FILENO, text, sizeof text - 1);
                ::abort(); // where it stands is in the core
            }
        }
    });
}

MonkeyWatch::~MonkeyWatch()
{
    m_guard.request_stop();
    m_guard.join();
    ::close(m_log);
}

void MonkeyWatch::note(const QString &action)
{
    m_action = action;
    write(action);
}

void MonkeyWatch::write(const QString &text)
{
    const QByteArray line = text.toUtf8() + '\n';
    (void)!::write(m_log, line.constData(), static_cast<std::size_t>(line.size()));
}

void MonkeyWatch::tick()
{
    const auto now = Clock::now();
    const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(now - m_last);
    if (pause > notedPause)
        write(u"  pause of %1 ms"_s.arg(pause.count()));
    if (pause > m_longest) {
        m_longest = pause;
        m_longestDuring = m_action;
    }
    m_last = now;
    ++m_beat;
}

void MonkeyWatch::clearTheWay()
{
    if (QWidget *popup = QApplication::activePopupWidget()) {
        popup->close();
    } else if (auto *panel = qobject_cast<QDialog *>(QApplication::activeModalWidget())) {
        // A file panel that has found nothing to accept stays open.
        if (++m_cleared % 3 == 0)
            panel->accept();
        else
            panel->reject();
    }
}

qint64 MonkeyWatch::heapBytes()
{
    const auto facts = ::mallinfo2();
    return static_cast<qint64>(facts.uordblks + facts.hblkhd);
}

qint64 MonkeyWatch::residentBytes()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <thread>

/// Looks after a run from outside: ends the program with a message when its main thread stands still,
/// remembers the longest pause between two events, closes panels and menus that stand in the way, and keeps a
/// log of what was done that survives a crash.
class MonkeyWatch final : public QObject
{
    Q_OBJECT

public:
    using Clock = std::chrono::steady_clock;

    MonkeyWatch(const QString &logPath, std::chrono::seconds patience);
    ~MonkeyWatch() override;

    /// What is done now; in the log before it is done.
    void note(const QString &action);
    /// The pause since the last event was made here, by the comparing.
    void forgivePause() { m_last = Clock::now(); }
    std::chrono::milliseconds longestPause() const { return m_longest; }
    QString longestPauseDuring() const { return m_longestDuring; }

    /// Bytes in use of the heap, and of the process in memory.
    static qint64 heapBytes();
    static qint64 residentBytes();

private:
    void tick();
    void write(const QString &text);
    void clearTheWay();

    int m_log = -1;
    QTimer m_ticks;
    QTimer m_janitor;
    int m_cleared = 0;
    Clock::time_point m_last;
    std::chrono::milliseconds m_longest{0};
    QString m_action;
    QString m_longestDuring;
    std::atomic<qint64> m_beat = 0;
    std::jthread m_guard;
};

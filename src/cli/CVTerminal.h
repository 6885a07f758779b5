#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXProgressRate.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

/// The three streams of a terminal program: results on standard output, everything else on standard
/// error, answers from the terminal itself even when standard input is something else.
///
/// Every text passes through terminalText() before it is written.
/// Thread: any; the calls are serialised, and a question keeps the progress line off the screen.
class CVTerminal
{
public:
    CVTerminal();
    /// Streams of one's own, borrowed; `terminalPath` is opened for questions.
    CVTerminal(int in, int out, int err, QByteArray terminalPath);
    ~CVTerminal();
    CVTerminal(const CVTerminal &) = delete;
    CVTerminal &operator=(const CVTerminal &) = delete;

    bool outputIsTerminal() const { return m_outputIsTerminal; }
    /// Somebody sits in front of it and can be asked.
    bool canAsk() const { return m_canAsk; }

    /// One line on standard output. False when it could not be written.
    bool printResult(const QString &line);
    /// Raw bytes to standard output, for text that is escaped already.
    bool writeOutput(const QByteArray &bytes);

    /// One line on standard error, with "corvane: " before it. Takes the progress line away.
    void message(const QString &text);
    /// No progress and no notes from now on.
    void setQuiet() { m_quiet = true; }
    /// A message that nothing depends on.
    void note(const QString &text);
    /// A line without the program's name, for what belongs to the message before it.
    void detail(const QString &text);

    /// What the progress line names, until the next call.
    void setProgressTitle(const QString &title);
    /// Draws the progress line, at most ten times a second and only on a terminal. A total of zero or less
    /// means that nobody knows it.
    void showProgress(double done, double total, LXProgressUnit unit = LXProgressUnit::Bytes);
    void clearProgress();

    /// A line typed without echo, after `prompt` as it stands. Nothing when it was interrupted, ended with
    /// Ctrl-D, or nobody can be asked.
    std::optional<QString> askPassword(const QString &prompt);
    /// True for y or yes. Everything else, an interruption too, is no.
    bool askYesNo(const QString &question);

    /// Any thread: ends the question that is open and all that would come.
    void interrupt();
    bool wasInterrupted() const { return m_interrupted.load(); }

    /// Echo as it was found. For a sudden end of the process, from a signal handler too; a question restores
    /// it itself.
    void restoreEcho();

private:
    std::optional<QByteArray> readAnswer(const QByteArray &prompt, bool echo);
    void eraseProgressLocked();
    void writeErrorLocked(const QByteArray &bytes);
    void drawProgressLocked(double done, double total, LXProgressUnit unit);

    using Clock = std::chrono::steady_clock;

    const int m_in;
    const int m_out;
    const int m_err;
    const QByteArray m_terminalPath;
    bool m_outputIsTerminal = false;
    bool m_errorIsTerminal = false;
    bool m_progressWanted = false;
    bool m_canAsk = false;
    std::atomic<bool> m_quiet = false;
    std::atomic<bool> m_interrupted = false;
    LXFileDescriptor m_wake; ///< eventfd: readable once interrupted

    std::mutex m_askMutex;            ///< one question at a time
    std::mutex m_mutex;               ///< guards what follows and the streams
    std::atomic<int> m_silentFd = -1; ///< terminal whose echo is off, else -1; not guarded
    struct SavedMode;
    std::unique_ptr<SavedMode> m_saved;
    bool m_asking = false;
    bool m_progressShown = false;
    QString m_title;
    Clock::time_point m_titleSince{};
    Clock::time_point m_lastDrawn{};
    LXProgressRate m_rate;
};

#pragma once

#include "util/LXConfinement.h"
#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <chrono>
#include <memory>
#include <optional>
#include <stop_token>

#include <sys/types.h>

/// Bounds that the kernel enforces on a child and on everything it starts. Zero: not bounded.
struct LXChildLimits
{
    qint64 addressSpaceBytes = 0;
    qint64 fileSizeBytes = 0; ///< of each file it writes; beyond, it gets SIGXFSZ
    qint64 cpuSeconds = 0;
    qint64 processes = 0; ///< counted per user; without effect for root
};

/// How a child is started. Nothing of it goes through a shell. Texts become bytes by bytesOfFileName().
struct LXChildOptions
{
    enum class Stream {
        Null,
        Pipe,
        Terminal, ///< one pseudo-terminal for every stream that says so; it is the controlling one
        Merge,    ///< error only: same place as the output
    };

    QString program; ///< a path, or a name to be looked up in PATH
    QStringList arguments;
    QString workingFolder; ///< empty: ours
    /// Wins over our own environment, which the child gets without TAPE, TAR_OPTIONS, GZIP, BZIP, BZIP2,
    /// LANGUAGE and CORVANE_PASSWORD, and with LC_ALL=C.UTF-8 and TZ set.
    QMap<QString, QString> environment;
    Stream input = Stream::Null;
    Stream output = Stream::Pipe;
    Stream error = Stream::Pipe;
    /// What the child may do, apart from starting and from what it is handed; nothing: not confined. Where
    /// the kernel lacks a protection the child runs without it.
    std::optional<LXConfinementRules> confinement;
    /// Descriptors of ours that the child gets under the same number; all others are closed.
    /// Numbers from 3 on.
    QList<int> inheritedDescriptors;
    LXChildLimits limits;
};

/// One child process in a session and process group of its own.
///
/// It never outlives us: it ends with the object (the whole group is killed), and the kernel kills it
/// when the thread that started it ends, so that thread has to live as long as the child. What it starts
/// itself hangs up with it: it has a terminal of its own for that, whose end the kernel tells to the group.
/// Thread: one at a time, but requestStop() is for any. Nothing blocks beyond what the child does, and
/// every wait ends with the stop token.
class LXChildProcess
{
public:
    /// Fails when the program cannot be executed; the reason names it.
    static LXResult<std::unique_ptr<LXChildProcess>> start(const LXChildOptions &options);

    /// Kills what still runs and reaps it.
    ~LXChildProcess();
    LXChildProcess(const LXChildProcess &) = delete;
    LXChildProcess &operator=(const LXChildProcess &) = delete;

    struct Chunk
    {
        enum class Kind {
            Output, ///< from the output or the terminal
            Error,
            Closed, ///< nothing comes any more: both streams ended, or the child did
            Stopped,
            TimedOut,
        };
        Kind kind = Kind::Closed;
        QByteArray data; ///< arbitrary pieces: lines and characters may be cut
    };

    static constexpr std::chrono::milliseconds forever{-1};

    /// The next piece of output, as soon as there is one.
    Chunk read(std::stop_token stop = {}, std::chrono::milliseconds timeout = forever);

    enum class WriteResult {
        Written,
        Broken, ///< the child does not read any more
        Stopped,
    };

    /// Feeds the child's input. Output that arrives meanwhile is kept for read(), up to 1 MiB; what
    /// comes beyond is dropped, so that a child that is not listened to does not stand still.
    WriteResult write(const char *data, qsizetype size, std::stop_token stop = {});

    /// Whether write() had to drop output.
    bool hasLostOutput() const;

    /// The child sees the end of its input. On a terminal, end-of-file is typed.
    void closeInput();

    struct Exit
    {
        bool normal = false; ///< it ended by itself, not by a signal
        int status = 0;      ///< exit status or signal number
        bool succeeded() const { return normal && status == 0; }
    };

    /// Waits for the end, dropping output that nobody read; kills the rest of the group. Nothing when
    /// stopped first.
    std::optional<Exit> wait(std::stop_token stop = {});

    /// Ends the whole group: asked first, killed when it has not ended within 200 ms.
    Exit terminate();

    /// Any thread: pending and later waits of read(), write() and wait() answer Stopped.
    void requestStop();

    /// Any thread: the pending or the next read() answers TimedOut, once, so that the thread in it can
    /// do something else with the child.
    void interruptRead();

    pid_t processId() const;

    static constexpr const char *errorDomain = "LXChildProcess";

private:
    LXChildProcess();
    struct Private;
    std::unique_ptr<Private> d;
};

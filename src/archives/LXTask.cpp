#include "archives/LXTask.h"

#include "util/LXChildProcess.h"
#include "util/LXLog.h"

#include <condition_variable>
#include <mutex>
#include <thread>

Q_LOGGING_CATEGORY(lcTask, "corvane.archives.task")

namespace {

constexpr int cannotStart = 127;

} // namespace

struct LXTask::Private
{
    std::mutex mutex;
    std::condition_variable changed;
    LXChildProcess *child = nullptr; // while it runs; owned by the thread
    QByteArray input;
    bool launched = false;
    bool running = false;
    bool ended = false;
    bool terminateRequested = false;
    int status = 0;
    std::jthread thread;

    void run(const LXChildOptions &options, const Callbacks &callbacks)
    {
        auto started = LXChildProcess::start(options);
        {
            const std::lock_guard lock(mutex);
            launched = true;
            if (started) {
                child = started.value().get();
                running = true;
                if (terminateRequested)
                    child->requestStop();
            }
        }
        changed.notify_all();
        int result = cannotStart;
        if (started)
            result = serve(*started.value(), callbacks);
        else
            LX_WARNING(lcTask, "%s %s", qUtf8Printable(started.error().description),
                       qUtf8Printable(started.error().reason));
        {
            const std::lock_guard lock(mutex);
            child = nullptr;
            running = false;
            ended = true;
            status = result;
        }
        changed.notify_all();
        callbacks.completed(result);
    }

    int serve(LXChildProcess &process, const Callbacks &callbacks)
    {
        using Kind = LXChildProcess::Chunk::Kind;
        while (true) {
            const LXChildProcess::Chunk chunk = process.read();
            if (chunk.kind == Kind::Output || chunk.kind == Kind::Error) {
                callbacks.output(chunk.data);
            } else if (chunk.kind == Kind::TimedOut) {
                QByteArray data;
                {
                    const std::lock_guard lock(mutex);
                    data.swap(input);
                }
                process.write(data.constData(), data.size());
            } else {
                break;
            }
        }
        // The end of the output ends the child: whatever still runs then has nobody to talk to.
        return process.terminate().status;
    }
};

LXTask::LXTask()
    : d(std::make_unique<Private>())
{}

LXTask::~LXTask()
{
    terminate();
}

void LXTask::launch(Callbacks callbacks)
{
    LXChildOptions options;
    options.program = launchPath;
    options.arguments = arguments;
    options.workingFolder = currentDirectoryPath;
    options.environment = environment;
    options.confinement = confinement;
    options.input = LXChildOptions::Stream::Pipe;
    options.error = LXChildOptions::Stream::Merge;
    // The thread that starts the child has to outlive it, so it is the one that reads it.
    d->thread =
        std::jthread([this, options, callbacks = std::move(callbacks)] { d->run(options, callbacks); });
    std::unique_lock lock(d->mutex);
    d->changed.wait(lock, [this] { return d->launched; });
}

void LXTask::sendInput(const QByteArray &data)
{
    const std::lock_guard lock(d->mutex);
    d->input += data;
    if (d->child)
        d->child->interruptRead();
}

bool LXTask::isRunning() const
{
    const std::lock_guard lock(d->mutex);
    return d->running;
}

void LXTask::terminate()
{
    const std::lock_guard lock(d->mutex);
    d->terminateRequested = true;
    if (d->child)
        d->child->requestStop();
}

void LXTask::waitUntilExit()
{
    std::unique_lock lock(d->mutex);
    if (!d->launched)
        return;
    d->changed.wait(lock, [this] { return d->ended; });
}

int LXTask::terminationStatus() const
{
    const std::lock_guard lock(d->mutex);
    return d->status;
}

#include "archives/LXTaskHelper.h"

#include "util/LXMainThread.h"

#include <QStringDecoder>
#include <QStringList>

#include <mutex>

/// What the posted calls share with the helper. They run on the main thread; the helper may be released
/// on any.
struct LXTaskHelper::Link
{
    std::mutex mutex;
    std::shared_ptr<LXTaskDelegate> delegate; ///< null once completed or released
    std::weak_ptr<LXTask> task;
    QByteArray cut;          ///< the beginning of a character whose end has not come yet
    QByteArrayList arriving; ///< not yet seen by the main thread

    std::shared_ptr<LXTaskDelegate> receiver()
    {
        const std::lock_guard lock(mutex);
        return delegate;
    }
    std::shared_ptr<LXTaskDelegate> release()
    {
        const std::lock_guard lock(mutex);
        return std::move(delegate);
    }
    void arrived(const std::shared_ptr<Link> &self, const QByteArray &chunk);
    void output(const QByteArray &chunk);
    void completed(int status);
};

namespace {

/// How many bytes at the end are the beginning of a UTF-8 character that is not complete.
qsizetype unfinishedTail(const QByteArray &bytes)
{
    for (qsizetype back = 1; back <= 3 && back <= bytes.size(); ++back) {
        const auto c = static_cast<unsigned char>(bytes[bytes.size() - back]);
        if ((c & 0xc0) == 0x80)
            continue;
        const qsizetype length = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc0 ? 2 : 1;
        return length > back ? back : 0;
    }
    return 0;
}

} // namespace

/// A tool that writes line by line must not cost a hop to the main thread for every line.
void LXTaskHelper::Link::arrived(const std::shared_ptr<Link> &self, const QByteArray &chunk)
{
    {
        const std::lock_guard lock(mutex);
        arriving.append(chunk);
        if (arriving.size() > 1)
            return; // the call is on its way
    }
    LXMainThread::post([self] {
        QByteArrayList chunks;
        {
            const std::lock_guard lock(self->mutex);
            chunks.swap(self->arriving);
        }
        for (const QByteArray &piece : chunks)
            self->output(piece);
    });
}

void LXTaskHelper::Link::output(const QByteArray &chunk)
{
    const std::shared_ptr<LXTask> running = task.lock();
    if (!running)
        return;
    QByteArray bytes = cut + chunk;
    const qsizetype tail = unfinishedTail(bytes);
    cut = bytes.right(tail);
    bytes.chop(tail);
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(bytes);
    if (decoder.hasError() || (text.isEmpty() && tail > 0))
        return;
    for (const QString &line : text.split(u'\n'))
        if (const auto listener = receiver())
            listener->taskHasOutputAvailable(*running, line);
}

void LXTaskHelper::Link::completed(int status)
{
    // Whoever is told may release the helper in the call.
    const std::shared_ptr<LXTask> ended = task.lock();
    const std::shared_ptr<LXTaskDelegate> listener = release();
    if (ended && listener)
        listener->taskHasCompletedWithStatus(*ended, status);
}

LXTaskHelper::LXTaskHelper(std::shared_ptr<LXTaskDelegate> delegate, std::shared_ptr<LXTask> task)
    : m_link(std::make_shared<Link>())
    , m_task(std::move(task))
{
    m_link->delegate = std::move(delegate);
    m_link->task = m_task;
}

LXTaskHelper::~LXTaskHelper()
{
    m_link->release();
}

void LXTaskHelper::launchTask()
{
    m_task->environment.insert(QStringLiteral("NSUnbufferedIO"), QStringLiteral("YES"));
    const std::shared_ptr<Link> link = m_link;
    m_task->launch({
        .output = [link](const QByteArray &chunk) { link->arrived(link, chunk); },
        .completed = [link](int status) { LXMainThread::post([link, status] { link->completed(status); }); },
    });
}

void LXTaskHelper::sendInput(const QString &text)
{
    m_task->sendInput(text.toUtf8());
}

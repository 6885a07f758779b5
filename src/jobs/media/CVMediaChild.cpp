#include "jobs/media/CVMediaChild.h"

#include "archives/CVToolPaths.h"
#include "archives/CVToolRules.h"
#include "jobs/media/media_line.h"

#include <csignal>

namespace {

constexpr qint64 gibibyte = 1024LL * 1024 * 1024;
// Two of the largest pictures at sixteen bits, which turning one takes, and the libraries' own.
constexpr qint64 addressSpace = 8 * gibibyte;
constexpr qint64 largestFile = 16 * gibibyte;
constexpr auto timeToEnd = std::chrono::seconds(2);
constexpr qsizetype longestAnswer = 64 * 1024;

constexpr bool isSanitized()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true; // their shadow takes more addresses than any limit
#else
    return false;
#endif
}

QString reasonOf(const LXChildProcess::Exit &exit)
{
    if (!exit.normal && exit.status == SIGXFSZ)
        return QStringLiteral("The new file became too large.");
    if (!exit.normal && exit.status == SIGXCPU)
        return QStringLiteral("It took too long.");
    return QStringLiteral("The converter came to a sudden end (%1 %2).")
        .arg(exit.normal ? QStringLiteral("status") : QStringLiteral("signal"))
        .arg(exit.status);
}

} // namespace

LXResult<std::unique_ptr<CVMediaChild>> CVMediaChild::start(const Settings &settings)
{
    const auto tool = CVToolPaths::toolPath(QStringLiteral("corvane-media"));
    if (!tool)
        return tool.error();
    // By its descriptor, because its path may hold bytes that no text has.
    const QString folder = QStringLiteral("/proc/self/fd/%1").arg(settings.folder);
    const QString scratch = QString::fromLatin1(settings.scratch);
    const QString threads = QString::number(settings.threads);
    LXChildOptions options;
    options.program = tool.value();
    options.workingFolder = folder;
    options.environment = {
        {QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("minimal")},
        {QStringLiteral("XDG_RUNTIME_DIR"), QStringLiteral("/nonexistent")},
        {QStringLiteral("TMPDIR"), scratch},
        {QStringLiteral("MAGICK_TEMPORARY_PATH"), scratch},
        {QStringLiteral("MAGICK_THREAD_LIMIT"), threads},
        {QStringLiteral("OMP_NUM_THREADS"), threads},
    };
    options.input = LXChildOptions::Stream::Pipe;
    options.error = LXChildOptions::Stream::Null;
    options.confinement = CVToolRules::single();
    options.confinement->readable += folder;
    options.confinement->writable = {folder};
    options.confinement->changes = LXConfinementRules::Changes::ByDescriptor;
    options.limits.addressSpaceBytes = isSanitized() ? 0 : addressSpace;
    options.limits.fileSizeBytes = largestFile;
    auto process = LXChildProcess::start(options);
    if (!process)
        return process.error();
    std::unique_ptr<CVMediaChild> child(new CVMediaChild);
    child->m_process = std::move(process).value();
    child->m_patience = settings.patience;
    return child;
}

CVMediaChild::Outcome CVMediaChild::end(const QString &reason)
{
    const auto exit = m_process->terminate();
    m_process.reset();
    return {Outcome::Kind::Failed, reason.isEmpty() ? reasonOf(exit) : reason};
}

CVMediaChild::Outcome CVMediaChild::convert(const Job &job, const std::stop_token &stop)
{
    const QByteArray line = mediaLine({job.isSound ? "sound" : "image", QByteArray::number(job.type),
                                       job.folder, job.source, job.target, job.temporary});
    const auto stopped = [this] {
        m_process->terminate();
        m_process.reset();
        return Outcome{Outcome::Kind::Stopped, {}};
    };
    switch (m_process->write(line.constData(), line.size(), stop)) {
    case LXChildProcess::WriteResult::Written:
        break;
    case LXChildProcess::WriteResult::Broken:
        return end({});
    case LXChildProcess::WriteResult::Stopped:
        return stopped();
    }
    while (true) {
        const auto chunk = m_process->read(stop, m_patience);
        using Kind = LXChildProcess::Chunk::Kind;
        if (chunk.kind == Kind::Stopped)
            return stopped();
        if (chunk.kind == Kind::TimedOut)
            return end(QStringLiteral("It took too long."));
        if (chunk.kind == Kind::Closed)
            return end({});
        m_unread += chunk.data;
        if (m_unread.size() > longestAnswer)
            return end(QStringLiteral("The converter gave no sensible answer."));
        for (qsizetype at = m_unread.indexOf('\n'); at >= 0; at = m_unread.indexOf('\n')) {
            const QList<QByteArray> answer = fieldsOfMediaLine(m_unread.left(at));
            m_unread.remove(0, at + 1);
            if (answer.first() == "done")
                return {Outcome::Kind::Done, {}};
            if (answer.first() == "failed")
                return {Outcome::Kind::Failed, QString::fromUtf8(answer.value(1))};
        }
    }
}

void CVMediaChild::finish(const std::stop_token &stop)
{
    if (!m_process)
        return;
    m_process->closeInput();
    using Kind = LXChildProcess::Chunk::Kind;
    Kind kind = Kind::Output;
    while (kind == Kind::Output)
        kind = m_process->read(stop, timeToEnd).kind;
    m_process.reset(); // what is not gone by now is killed
}

#include "archives/reading/CVZipExtractor.h"

#include "archives/reading/CVZipBytes.h"
#include "archives/reading/CVZipDirectory.h"
#include "archives/reading/CVZipInflater.h"
#include "archives/reading/CVZipLocalHeader.h"

#include <libdeflate.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <numeric>
#include <system_error>
#include <thread>

using namespace CVZipBytes;

namespace {

using Flow = CVEntryWriter::Flow;

constexpr qint64 writeBlock = 1 << 20;     // what the sink takes at once
constexpr quint64 window = 1 << 20;        // what is read of neighbouring entries at once
constexpr std::size_t mostInWindow = 1024; // so that a stop request is seen soon among folders, too

// Local headers have longer extra fields than the directory says; this much is read along in any case.
constexpr quint64 extraAllowance = 256;
constexpr quint64 largestGap = 64 * 1024; // bytes between neighbours that are cheaper read than skipped

// Making a file costs about as much as unpacking this many bytes.
constexpr quint64 costOfFile = 16 * 1024;
// Work below this is done before another thread has started.
constexpr quint64 costWorthThreads = 1 << 20;
constexpr quint64 leastRun = 512 * 1024;

struct Job
{
    int index;
    quint64 limit; ///< where the entry's data has to end; 0 for an entry that shares its place with another
};

/// Hands out runs of jobs.
class Plan
{
public:
    Plan(const CVZipDirectory &directory, std::vector<Job> jobs)
        : m_directory(directory)
        , m_jobs(std::move(jobs))
        , m_costLeft(std::accumulate(m_jobs.begin(), m_jobs.end(), quint64(0),
                                     [this](quint64 sum, const Job &job) { return sum + cost(job); }))
    {}

    std::size_t size() const { return m_jobs.size(); }
    quint64 costLeft() const { return m_costLeft; }

    std::span<const Job> takeRun(unsigned workers)
    {
        const std::lock_guard lock(m_mutex);
        const quint64 share = std::max(m_costLeft / (2 * workers), leastRun);
        const std::size_t first = m_next;
        for (quint64 taken = 0; m_next < m_jobs.size() && taken < share; ++m_next) {
            const quint64 one = cost(m_jobs[m_next]);
            taken += one;
            m_costLeft -= one;
        }
        return std::span(m_jobs).subspan(first, m_next - first);
    }

private:
    quint64 cost(const Job &job) const
    {
        // Declared sizes are only a guess here; the bound keeps a false one from overflowing the sum.
        constexpr quint64 most = quint64(1) << 32;
        const std::size_t at = std::size_t(job.index);
        return std::min(most, m_directory.records()[at].packedSize) +
               std::min(most, quint64(m_directory.entries()[at].size)) + costOfFile;
    }

    const CVZipDirectory &m_directory;
    const std::vector<Job> m_jobs;
    std::mutex m_mutex;
    std::size_t m_next = 0;
    quint64 m_costLeft;
};

/// What all workers share.
struct Work
{
    int fd;
    const CVZipDirectory &directory;
    CVEntrySink &sink;
    Plan &plan;
    unsigned workers;
    std::atomic<bool> stop = false;
    std::atomic<bool> foundUnlisted = false; ///< an entry that the directory does not name
    std::atomic<bool> outOfMemory = false;
};

/// Memory that grows and is used again.
class Buffer
{
public:
    char *get(quint64 size)
    {
        if (size > m_size) {
            m_bytes.reset();
            m_size = 0;
            m_bytes = std::make_unique_for_overwrite<char[]>(size);
            m_size = size;
        }
        return m_bytes.get();
    }

private:
    std::unique_ptr<char[]> m_bytes;
    quint64 m_size = 0;
};

class Worker
{
public:
    explicit Worker(Work &work)
        : m_work(work)
        , m_share(CVZipExtractor::bufferBudget / work.workers)
    {}

    void run() noexcept
    {
        try {
            for (;;) {
                const std::span<const Job> jobs = m_work.plan.takeRun(m_work.workers);
                if (jobs.empty() || !extractRun(jobs))
                    return;
            }
        } catch (const std::bad_alloc &) {
            m_work.outOfMemory = true;
            m_work.stop = true;
        }
    }

private:
    const CVZipRecord &record(const Job &job) const
    {
        return m_work.directory.records()[std::size_t(job.index)];
    }
    const XADEntry &entry(const Job &job) const { return m_work.directory.entries()[std::size_t(job.index)]; }

    quint64 start(const Job &job) const { return record(job).headerOffset; }
    quint64 least(const Job &job) const
    {
        return quint64(localHeaderSize) + record(job).storedNameSize + record(job).packedSize;
    }
    /// Where to read to, to have the whole entry as a rule.
    quint64 readEnd(const Job &job) const
    {
        return std::max(start(job) + least(job),
                        std::min(job.limit, start(job) + least(job) + extraAllowance));
    }

    bool needsStream(const Job &job) const
    {
        return record(job).isDeflated() && record(job).packedSize + quint64(entry(job).size) > m_share;
    }

    bool extractRun(std::span<const Job> jobs);
    bool extractWindow(std::span<const Job> jobs, quint64 end);
    bool extractAlone(const Job &job);
    bool makeDirectory(const Job &job);
    bool extractStored(const Job &job, quint64 offset);
    bool extractStream(const Job &job, quint64 offset);
    bool extractPacked(const Job &job, const char *packed);
    bool deliver(const Job &job, const char *data);

    /// Empty when what stands before and behind the data says the same as the directory.
    QString checkSurroundings(const Job &job, CVZipLocalHeader &header, const char *bytes, quint64 available);
    QString checkSizes(const Job &job) const;

    /// Each of these returns false when the extraction has to stop.
    bool failed(const Job &job, const QString &detail)
    {
        return proceed(m_work.sink.entryFailed(job.index, XADErrorCode::Damaged, detail));
    }
    bool proceed(Flow flow)
    {
        if (flow == Flow::Stop)
            m_work.stop = true;
        return !m_work.stop;
    }

    Work &m_work;
    const quint64 m_share;
    CVZipInflater m_inflater;
    Buffer m_in;
    Buffer m_out;
};

QString cutOff()
{
    return QStringLiteral("The file ends within the entry.");
}

QString badData()
{
    return QStringLiteral("The packed data is damaged.");
}

QString badChecksum()
{
    return QStringLiteral("The checksum does not fit.");
}

bool Worker::extractRun(std::span<const Job> jobs)
{
    while (!jobs.empty()) {
        if (m_work.stop || !proceed(m_work.sink.shouldStop() ? Flow::Stop : Flow::Go))
            return false;
        const quint64 from = start(jobs.front());
        std::size_t count = 0;
        quint64 end = from;
        while (count < jobs.size()) {
            const Job &job = jobs[count];
            const quint64 jobEnd = readEnd(job);
            if (start(job) > end + largestGap || jobEnd - from > window || count == mostInWindow ||
                needsStream(job))
                break;
            end = std::max(end, jobEnd);
            ++count;
        }
        if (!(count == 0 ? extractAlone(jobs.front()) : extractWindow(jobs.first(count), end)))
            return false;
        jobs = jobs.subspan(std::max<std::size_t>(count, 1));
    }
    return true;
}

/// Entries that fit into one read.
bool Worker::extractWindow(std::span<const Job> jobs, quint64 end)
{
    const quint64 from = start(jobs.front());
    const char *bytes = nullptr;
    qint64 got = 0;
    for (const Job &job : jobs) {
        if (m_work.stop)
            return false;
        if (entry(job).type == XADEntry::Type::Directory) {
            if (!makeDirectory(job))
                return false;
            continue;
        }
        if (!bytes) {
            char *const to = m_in.get(window);
            got = std::max<qint64>(readAt(m_work.fd, to, qint64(end - from), from), 0);
            bytes = to;
        }
        const QString sizes = checkSizes(job);
        if (!sizes.isEmpty()) {
            if (!failed(job, sizes))
                return false;
            continue;
        }
        const quint64 at = start(job) - from;
        const quint64 available = quint64(got) > at ? quint64(got) - at : 0;
        CVZipLocalHeader header(m_work.directory, job.index);
        const QString fault = checkSurroundings(job, header, bytes + at, available);
        if (!fault.isEmpty()) {
            if (!failed(job, fault))
                return false;
        } else if (available < header.headerSize() + record(job).packedSize) {
            // A long extra field pushed the data out of the window (or the file is too short, seen there).
            if (got == qint64(end - from)) {
                if (!extractAlone(job))
                    return false;
                bytes = nullptr; // the buffer was used for it
            } else if (!failed(job, cutOff())) {
                return false;
            }
        } else if (!extractPacked(job, bytes + at + header.headerSize())) {
            return false;
        }
    }
    return true;
}

/// The sink makes folders when it hears of them; what one may carry as data is nobody's.
bool Worker::makeDirectory(const Job &job)
{
    const std::unique_ptr<CVEntryWriter> writer = m_work.sink.beginEntry(job.index);
    return writer ? proceed(writer->finish(XADErrorCode::None)) : !m_work.stop;
}

/// An entry that is read by itself.
bool Worker::extractAlone(const Job &job)
{
    if (entry(job).type == XADEntry::Type::Directory)
        return makeDirectory(job);

    const QString sizes = checkSizes(job);
    if (!sizes.isEmpty())
        return failed(job, sizes);

    CVZipLocalHeader header(m_work.directory, job.index);
    const qint64 got = readAt(m_work.fd, m_in.get(window), header.mostBytes(), start(job));
    const QString fault = got < 0 ? cutOff() : checkSurroundings(job, header, m_in.get(window), quint64(got));
    if (!fault.isEmpty())
        return failed(job, fault);

    const quint64 offset = start(job) + header.headerSize();
    const quint64 packedSize = record(job).packedSize;
    if (!record(job).isDeflated())
        return extractStored(job, offset);
    if (needsStream(job))
        return extractStream(job, offset);
    char *const packed = m_in.get(std::max(window, packedSize));
    if (readAt(m_work.fd, packed, qint64(packedSize), offset) != qint64(packedSize))
        return failed(job, cutOff());
    return extractPacked(job, packed);
}

bool Worker::extractStored(const Job &job, quint64 offset)
{
    const std::unique_ptr<CVEntryWriter> writer = m_work.sink.beginEntry(job.index);
    if (!writer)
        return !m_work.stop;
    quint64 left = quint64(entry(job).size);
    quint32 crc = 0;
    Flow flow = Flow::Go;
    char *const block = m_in.get(window);
    while (left > 0 && flow == Flow::Go) {
        if (m_work.stop)
            return false;
        const qint64 wanted = qint64(std::min(left, quint64(writeBlock)));
        if (readAt(m_work.fd, block, wanted, offset) != wanted)
            return proceed(writer->finish(XADErrorCode::Damaged, cutOff()));
        crc = ::libdeflate_crc32(crc, block, std::size_t(wanted));
        offset += quint64(wanted);
        left -= quint64(wanted);
        flow = writer->write(block, wanted);
    }
    if (flow == Flow::Stop)
        return proceed(flow);
    const bool isGood = flow == Flow::SkipEntry || crc == record(job).crc;
    return proceed(isGood ? writer->finish(XADErrorCode::None)
                          : writer->finish(XADErrorCode::Damaged, badChecksum()));
}

bool Worker::extractStream(const Job &job, quint64 offset)
{
    const std::unique_ptr<CVEntryWriter> writer = m_work.sink.beginEntry(job.index);
    if (!writer)
        return !m_work.stop;
    quint32 crc = 0;
    Flow flow = Flow::Go;
    const auto source = [&](char *to, qint64 size) {
        const qint64 got = readAt(m_work.fd, to, size, offset);
        offset += quint64(std::max<qint64>(got, 0));
        return got;
    };
    const auto receiver = [&](const char *data, qint64 size) {
        crc = ::libdeflate_crc32(crc, data, std::size_t(size));
        flow = writer->write(data, size);
        return flow == Flow::Go && !m_work.stop;
    };
    switch (m_inflater.inflateStream(record(job).packedSize, quint64(entry(job).size), source, receiver)) {
    case CVZipInflater::Result::Stopped:
        if (flow == Flow::Stop || m_work.stop)
            return proceed(Flow::Stop);
        return proceed(writer->finish(XADErrorCode::None));
    case CVZipInflater::Result::Unread:
        return proceed(writer->finish(XADErrorCode::Damaged, cutOff()));
    case CVZipInflater::Result::Damaged:
        return proceed(writer->finish(XADErrorCode::Damaged, badData()));
    case CVZipInflater::Result::Done:
        break;
    }
    return proceed(crc == record(job).crc ? writer->finish(XADErrorCode::None)
                                          : writer->finish(XADErrorCode::Damaged, badChecksum()));
}

/// An entry whose packed bytes are all in memory: verified before the sink hears of it, so that
/// a damaged one never makes a file.
bool Worker::extractPacked(const Job &job, const char *packed)
{
    const CVZipRecord &stored = record(job);
    const quint64 size = quint64(entry(job).size);
    const char *data = packed;
    if (stored.isDeflated() && (stored.packedSize > 0 || size > 0)) {
        char *const out = m_out.get(std::max(size, quint64(writeBlock)));
        if (m_inflater.inflateWhole(packed, stored.packedSize, out, size) != CVZipInflater::Result::Done)
            return failed(job, badData());
        data = out;
    }
    if (::libdeflate_crc32(0, data, size) != stored.crc)
        return failed(job, badChecksum());
    return deliver(job, data);
}

bool Worker::deliver(const Job &job, const char *data)
{
    const std::unique_ptr<CVEntryWriter> writer = m_work.sink.beginEntry(job.index);
    if (!writer)
        return !m_work.stop;
    Flow flow = Flow::Go;
    for (qint64 left = entry(job).size; left > 0 && flow == Flow::Go;) {
        if (m_work.stop)
            return false;
        const qint64 size = std::min(left, writeBlock);
        flow = writer->write(data, size);
        data += size;
        left -= size;
    }
    return proceed(flow == Flow::Stop ? flow : writer->finish(XADErrorCode::None));
}

QString Worker::checkSizes(const Job &job) const
{
    const quint64 size = quint64(entry(job).size);
    const quint64 packedSize = record(job).packedSize;
    if (start(job) + least(job) > job.limit)
        return QStringLiteral("The entry overlaps another one.");
    if (record(job).isDeflated() ? !CVZipInflater::isPossible(packedSize, size) : size != packedSize)
        return QStringLiteral("The declared sizes cannot be true.");
    return {};
}

QString Worker::checkSurroundings(const Job &job, CVZipLocalHeader &header, const char *bytes,
                                  quint64 available)
{
    if (QString fault = header.read(bytes, available, job.limit); !fault.isEmpty())
        return fault;
    const quint64 gap = std::min(job.limit - header.dataEnd(), CVZipLocalHeader::bytesBehind);
    if (gap < 4)
        return {};
    const quint64 end = header.dataEnd() - start(job);
    char behind[CVZipLocalHeader::bytesBehind];
    if (available >= end + gap)
        std::memcpy(behind, bytes + end, gap);
    else if (readAt(m_work.fd, behind, qint64(gap), header.dataEnd()) != qint64(gap))
        return cutOff();
    bool isUnlisted = false;
    const QString fault = header.readBehind(behind, gap, isUnlisted);
    if (isUnlisted)
        m_work.foundUnlisted = true;
    return fault;
}

/// The wanted entries in the order of the file, each with the place where the next one begins.
std::vector<Job> sortedJobs(const CVZipDirectory &directory, std::span<const int> indices, bool all)
{
    const std::span<const CVZipRecord> records = directory.records();
    const auto isEarlier = [records](int a, int b) {
        return records[std::size_t(a)].headerOffset < records[std::size_t(b)].headerOffset;
    };
    std::vector<int> order(records.size());
    std::iota(order.begin(), order.end(), 0);
    if (!std::is_sorted(order.begin(), order.end(), isEarlier))
        std::stable_sort(order.begin(), order.end(), isEarlier);

    std::vector<bool> isWanted(records.size(), all);
    for (const int index : indices) {
        if (index >= 0 && std::size_t(index) < records.size())
            isWanted[std::size_t(index)] = true;
    }
    std::vector<Job> jobs;
    jobs.reserve(all ? records.size() : indices.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        const int index = order[i];
        if (!isWanted[std::size_t(index)])
            continue;
        const quint64 own = records[std::size_t(index)].headerOffset;
        quint64 limit = directory.directoryOffset();
        if (i + 1 < order.size())
            limit = records[std::size_t(order[i + 1])].headerOffset;
        const bool isShared =
            limit == own || (i > 0 && records[std::size_t(order[i - 1])].headerOffset == own);
        jobs.push_back({index, isShared ? 0 : limit});
    }
    return jobs;
}

} // namespace

CVReadingEngine::Outcome CVZipExtractor::extract(std::span<const int> indices, bool all,
                                                 CVEntrySink &sink) const
{
    try {
        Plan plan(m_directory, sortedJobs(m_directory, indices, all));
        unsigned workers = 1;
        if (plan.costLeft() >= costWorthThreads) {
            workers = std::clamp(std::thread::hardware_concurrency(), 1u, mostWorkers);
            workers = unsigned(std::min<std::size_t>(workers, std::max<std::size_t>(plan.size(), 1)));
        }
        Work work{m_fd, m_directory, sink, plan, workers};
        {
            std::vector<std::jthread> threads;
            threads.reserve(workers);
            try {
                while (threads.size() + 1 < workers)
                    threads.emplace_back([&work] { Worker(work).run(); });
            } catch (const std::system_error &) {
                // The system gives no more threads: fewer of them do the same work.
            }
            Worker(work).run();
        }
        if (work.outOfMemory)
            return {XADErrorCode::Damaged,
                    QStringLiteral("There is not enough memory to unpack the archive.")};
        if (work.stop)
            return {XADErrorCode::Stopped, {}};
        if (work.foundUnlisted || (all && beginsWithUnlisted()))
            return {XADErrorCode::Damaged,
                    QStringLiteral("The archive holds an entry that its directory does not name.")};
        return {};
    } catch (const std::bad_alloc &) {
        return {XADErrorCode::Damaged, QStringLiteral("There is not enough memory to unpack the archive.")};
    }
}

bool CVZipExtractor::beginsWithUnlisted() const
{
    const std::span<const CVZipRecord> records = m_directory.records();
    const bool isFirstListed = std::any_of(
        records.begin(), records.end(), [](const CVZipRecord &record) { return record.headerOffset == 0; });
    char mark[4];
    // What stands before the archive is another file's.
    return !isFirstListed && m_directory.base() == 0 && readAt(m_fd, mark, sizeof mark, 0) == sizeof mark &&
           u32(mark) == localHeaderMark;
}

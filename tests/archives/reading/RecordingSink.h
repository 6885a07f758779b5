#pragma once

#include "archives/reading/CVReadingEngine.h"

#include <QCryptographicHash>
#include <QFile>

#include <atomic>
#include <map>
#include <mutex>
#include <set>

/// Reads a file the way the archive face does before it asks for bids.
inline CVArchiveProbe probeOf(const QString &path)
{
    constexpr qint64 window = 64 * 1024;
    CVArchiveProbe probe;
    probe.path = path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return probe;
    probe.fileSize = file.size();
    probe.head = file.read(window);
    file.seek(std::max<qint64>(0, probe.fileSize - window - 22));
    probe.tail = file.readAll();
    return probe;
}

class RecordingHost final : public CVEngineHost
{
public:
    std::optional<QString> password() override
    {
        asked = true;
        return given;
    }
    bool shouldStop() override { return stop; }

    std::optional<QString> given;
    std::atomic<bool> asked = false;
    std::atomic<bool> stop = false;
};

/// Keeps what an engine delivers, per entry, and judges sizes as the real sink does. Any thread.
class RecordingSink final : public CVEntrySink
{
public:
    struct Record
    {
        XADErrorCode code = XADErrorCode::None;
        QString detail = {};
        qint64 size = 0;
        QByteArray hash = {};  ///< SHA-256
        QByteArray bytes = {}; ///< the data, up to keepBytes
        bool finished = false;
    };

    explicit RecordingSink(const CVReadingEngine &engine)
        : m_engine(engine)
    {}

    std::unique_ptr<CVEntryWriter> beginEntry(int index) override
    {
        const XADEntry &entry = m_engine.entries()[std::size_t(index)];
        {
            const std::lock_guard lock(m_mutex);
            begun.insert(index);
        }
        const bool needsNoData = entry.type == XADEntry::Type::Directory ||
                                 entry.type == XADEntry::Type::Special || !entry.linkTarget.isEmpty();
        if (needsNoData) {
            record(index, XADErrorCode::None, {});
            return nullptr;
        }
        return std::make_unique<Writer>(*this, index, entry.size);
    }
    CVEntryWriter::Flow entryFailed(int index, XADErrorCode code, const QString &detail) override
    {
        record(index, code, detail);
        return CVEntryWriter::Flow::Go;
    }
    bool shouldStop() override { return stop; }

    qsizetype keepBytes = 4096;
    qint64 stopAfterBytes = -1; ///< Stop from the write that passes this
    std::atomic<bool> stop = false;
    std::atomic<qint64> written = 0;
    std::atomic<qsizetype> largestBlock = 0;
    std::map<int, Record> records;
    std::set<int> begun;

private:
    class Writer final : public CVEntryWriter
    {
    public:
        Writer(RecordingSink &sink, int index, qint64 declared)
            : m_sink(sink)
            , m_index(index)
            , m_declared(declared)
        {}

        Flow write(const char *data, qsizetype size) override
        {
            m_hash.addData(QByteArrayView(data, size));
            if (m_record.bytes.size() < m_sink.keepBytes)
                m_record.bytes.append(data, std::min(size, m_sink.keepBytes - m_record.bytes.size()));
            m_record.size += size;
            m_sink.written += size;
            qsizetype largest = m_sink.largestBlock;
            while (size > largest && !m_sink.largestBlock.compare_exchange_weak(largest, size)) {
            }
            if (m_sink.stopAfterBytes >= 0 && m_sink.written > m_sink.stopAfterBytes)
                m_sink.stop = true;
            return m_sink.stop ? Flow::Stop : Flow::Go;
        }
        Flow writeHole(qint64 size) override
        {
            const QByteArray zeros(qsizetype(size), '\0');
            return write(zeros.constData(), zeros.size());
        }
        Flow finish(XADErrorCode code, const QString &detail) override
        {
            m_record.code = code;
            m_record.detail = detail;
            if (code == XADErrorCode::None && m_declared >= 0 && m_declared != m_record.size) {
                m_record.code = XADErrorCode::Damaged;
                m_record.detail = QStringLiteral("size differs");
            }
            m_record.hash = m_hash.result();
            m_record.finished = true;
            m_sink.record(m_index, m_record);
            return m_sink.stop ? Flow::Stop : Flow::Go;
        }

    private:
        RecordingSink &m_sink;
        QCryptographicHash m_hash{QCryptographicHash::Sha256};
        Record m_record;
        int m_index;
        qint64 m_declared;
    };

    void record(int index, XADErrorCode code, const QString &detail)
    {
        Record value;
        value.code = code;
        value.detail = detail;
        value.finished = true;
        record(index, std::move(value));
    }
    void record(int index, Record value)
    {
        const std::lock_guard lock(m_mutex);
        records[index] = std::move(value);
    }

    const CVReadingEngine &m_engine;
    std::mutex m_mutex;
};

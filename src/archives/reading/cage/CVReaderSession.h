#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/cage/CVCageList.h"
#include "archives/reading/cage/CVCageMemory.h"
#include "archives/reading/cage/CVCageMessages.h"
#include "archives/reading/cage/CVCageSocket.h"
#include "archives/reading/cage/CVReaderWatch.h"
#include "util/LXFileDescriptor.h"

#include <memory>
#include <optional>
#include <vector>

class CVCagedExtraction;

/// The program's side of one archive that is read by a reader of its own: starts it, answers what it wants,
/// ends it.
///
/// A reader that died, hung or spoke nonsense has failed for good, and every later call says so. One that was
/// ended because a person stopped it is started anew at the next call.
/// Thread: one at a time, but position() from any.
class CVReaderSession
{
public:
    /// `file` is the archive at `path`, open for reading; `host` is borrowed.
    CVReaderSession(QString path, LXFileDescriptor file, qint64 fileSize, CVEngineHost &host);
    ~CVReaderSession();
    CVReaderSession(const CVReaderSession &) = delete;
    CVReaderSession &operator=(const CVReaderSession &) = delete;

    /// One for each engine of the reader; none after a failure.
    std::vector<int> bids();

    /// What became of opening with an engine; the list is there unless it is a lazy one.
    struct Opened
    {
        XADErrorCode code = XADErrorCode::None;
        QString detail;
        bool damageIsCertain = false;
        CVCage::Opening opening;
        CVReadingEngine::Outcome listing;
    };
    Opened open(int engine, CVCageList::Held &list);

    CVReadingEngine::Outcome list(CVCageList::Held &list);

    /// Extracts with the engine that was opened last. `isDamageFinal` is what the engine says then.
    CVReadingEngine::Outcome extract(std::span<const int> indices, bool all, bool listGrows,
                                     std::vector<XADEntry> &entries, CVEntrySink &sink, bool &isDamageFinal);

    /// Changes when the reader is another one: what was open is no more.
    int generation() const { return m_generation; }
    bool isRunning() const { return m_control.isOpen(); }
    bool hasFailed() const { return m_failure.has_value(); }
    QString failureText() const { return m_failure.value_or(QString()); }
    /// In bytes of the file, as far as the reader says.
    qint64 position() const;
    qint64 fileSize() const { return m_fileSize; }
    /// Those that it was given.
    QStringList volumePaths() const { return m_volumes; }

private:
    bool start();
    bool begin();
    template <typename Fill>
    std::optional<QByteArray> command(CVCage::Command kind, Fill fill, std::span<const int> descriptors,
                                      CVCage::Report expected, CVCage::Report other,
                                      CVCagedExtraction *extraction = nullptr, CVEntrySink *sink = nullptr);
    std::optional<QByteArray> await(CVCage::Report expected, CVCage::Report other,
                                    CVCagedExtraction *extraction, CVEntrySink *sink);
    bool answer(CVCage::Report kind, QDataStream &from, CVCagedExtraction *extraction);
    bool answerVolume(QDataStream &from);
    bool takeList(const CVCage::Listing &listing, int file, CVCageList::Held &list);
    CVReadingEngine::Outcome failureOutcome() const;
    void end();
    void spokeNonsense();
    void failed(const QString &why);
    void died();

    const QString m_path;
    const LXFileDescriptor m_file;
    const qint64 m_fileSize;
    CVEngineHost &m_host;

    int m_generation = 0;
    CVCageSocket m_control;
    CVCageSocket m_news;
    pid_t m_process = -1;
    LXFileDescriptor m_processHandle;
    std::shared_ptr<CVCageMemory> m_memory;
    std::vector<CVCageSocket> m_streams;
    std::vector<int> m_bids;
    int m_volumesAsked = 0;
    QStringList m_volumes;
    std::optional<QString> m_failure;
};

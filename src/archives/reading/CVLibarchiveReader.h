#pragma once

#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVCpioSums.h"
#include "archives/reading/CVDecodePipeline.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

struct archive;

/// The containers that are read through libarchive.
enum class CVLibarchiveFormat : std::uint8_t {
    Tar,
    Cpio,
    Ar,
    Rar4,
    Rar5,
    Lha,
    Iso,
    Cab,
    Warc,
};

/// One pass over one archive. Compressed streams are decoded by our own decoders in a thread of their
/// own; libarchive only sees the container, because its filters pass over check sums and early ends.
/// Thread: one.
class CVLibarchiveReader
{
public:
    struct Input
    {
        std::shared_ptr<const CVArchiveSource> source;
        qint64 offset = 0; ///< where the archive begins, after a self-extractor's program
        CVStreamKind stream = CVStreamKind::None;
        CVLibarchiveFormat format = CVLibarchiveFormat::Tar;
    };

    /// `shouldStop` is asked once a block; a stop shows as an error with code Stopped.
    CVLibarchiveReader(Input input, std::function<bool()> shouldStop);
    ~CVLibarchiveReader();

    enum class Step {
        Good,
        End,
        EntryFailed, ///< this entry is lost, the next one may be read
        Failed,      ///< nothing more can be read
    };

    /// The header of the next entry, passing over what is left of the one before.
    Step next(XADEntry &entry);

    /// The next piece of the entry's data: `offset` is its place in the file, holes lie between pieces.
    Step read(std::span<const char> &data, qint64 &offset);

    /// After the last entry: reads what follows it, so that the check sums of the stream are compared.
    Step finish();

    /// What is odd about the end of an archive that was read whole; empty when nothing is.
    const QString &remark() const { return m_remark; }

    /// Why the last step was not Good.
    XADErrorCode code() const { return m_code; }
    const QString &detail() const { return m_detail; }

private:
    struct Closer
    {
        void operator()(archive *a) const noexcept;
    };

    /// One file of a set that libarchive has to see as files.
    struct Volume
    {
        CVLibarchiveReader *reader;
        qint64 start;
        qint64 size;
        qint64 position;

        static ssize_t read(archive *a, void *self, const void **buffer);
        static std::int64_t seek(archive *a, void *self, std::int64_t offset, int whence);
        static int enter(archive *a, void *before, void *next);
    };

    bool open();
    bool openVolumes();
    Step failed(Step step);
    Step failedWith(XADErrorCode code, const QString &detail);
    std::span<const char> fetch();
    static ssize_t readCallback(archive *a, void *self, const void **buffer);
    static std::int64_t skipCallback(archive *a, void *self, std::int64_t bytes);
    static std::int64_t seekCallback(archive *a, void *self, std::int64_t offset, int whence);

    Input m_input;
    std::function<bool()> m_shouldStop;
    std::unique_ptr<CVDecodePipeline> m_pipeline;
    std::vector<char> m_buffer;
    std::vector<Volume> m_volumes;
    std::unique_ptr<archive, Closer> m_archive;
    std::optional<CVCpioSums> m_sums;
    qint64 m_position = 0; ///< in the container: end of what libarchive was given
    std::int64_t m_ordinal = -1;
    bool m_inputEnded = false;
    XADErrorCode m_inputCode = XADErrorCode::None; ///< why no more input comes
    QString m_inputDetail;
    XADErrorCode m_code = XADErrorCode::None;
    QString m_detail;
    QString m_remark;
};

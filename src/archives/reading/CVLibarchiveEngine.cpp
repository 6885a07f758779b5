#include "archives/reading/CVLibarchiveEngine.h"

#include "archives/reading/CVByteStream.h"
#include "archives/reading/CVRarHeaders.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <atomic>
#include <cstring>

#include <archive.h>
#include <archive_entry.h>
#include <clocale>
#include <zlib.h>

namespace {

using Flow = CVEntryWriter::Flow;
using Kind = CVByteStream::Kind;

// What may follow the end of an archive inside its compressed stream (padding of tapes) and is still read to
// reach the stream's checksum. More is not padding.
constexpr qint64 maxTrailingBytes = qint64(64) << 20;
constexpr std::size_t maxWriteBytes = std::size_t(1) << 20;
constexpr int maxRarVolumes = 10000;
constexpr qsizetype tarBlockBytes = 512;

enum class Format { Raw, Tar, Cpio, Ar, Xar, Rar4, Rar5, Lha, Cab, SelfExtracting, Unknown };

QString text(const char *source)
{
    return QCoreApplication::translate("CVLibarchiveEngine", source);
}

struct ArchiveFree
{
    void operator()(archive *a) const { archive_read_free(a); }
};
using ArchiveHandle = std::unique_ptr<archive, ArchiveFree>;

/// libarchive converts names by the locale of the calling thread; ours is always UTF-8, whatever the
/// person's is.
class Utf8Locale
{
public:
    Utf8Locale()
        : m_before(::uselocale(utf8()))
    {}
    ~Utf8Locale() { ::uselocale(m_before); }
    Utf8Locale(const Utf8Locale &) = delete;
    Utf8Locale &operator=(const Utf8Locale &) = delete;

private:
    static locale_t utf8()
    {
        static const locale_t locale = ::newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
        return locale;
    }
    locale_t m_before;
};

bool isTarHeader(const QByteArray &head)
{
    if (head.size() < 512)
        return false;
    unsigned sum = 0;
    int signedSum = 0;
    bool empty = true;
    for (int i = 0; i < 512; ++i) {
        const char byte = i >= 148 && i < 156 ? ' ' : head[i];
        sum += static_cast<unsigned char>(byte);
        signedSum += static_cast<signed char>(byte);
        empty = empty && head[i] == 0;
    }
    if (empty)
        return head.size() >= 1024 && head.size() % 512 == 0 && head.left(1024).count('\0') == 1024;
    unsigned stored = 0;
    int i = 148;
    while (i < 156 && (head[i] == ' ' || head[i] == 0))
        ++i;
    if (i == 156)
        return false;
    for (; i < 156 && head[i] >= '0' && head[i] <= '7'; ++i)
        stored = stored * 8 + unsigned(head[i] - '0');
    return stored == sum || stored == static_cast<unsigned>(signedSum);
}

Format formatOf(const QByteArray &head)
{
    const auto at = [&head](qsizetype offset, const char *bytes, qsizetype size) {
        return head.size() >= offset + size &&
               std::memcmp(head.constData() + offset, bytes, std::size_t(size)) == 0;
    };
    if (at(0, "Rar!\x1a\x07\x01\x00", 8))
        return Format::Rar5;
    if (at(0, "Rar!\x1a\x07\x00", 7))
        return Format::Rar4;
    if (at(0, "xar!", 4))
        return Format::Xar;
    if (at(0, "!<arch>\n", 8))
        return Format::Ar;
    if (at(0, "070701", 6) || at(0, "070702", 6) || at(0, "070707", 6) || at(0, "\xc7\x71", 2) ||
        at(0, "\x71\xc7", 2))
        return Format::Cpio;
    if (at(2, "-l", 2) && at(6, "-", 1) && head.size() > 21)
        return Format::Lha;
    if (at(0, "MSCF", 4))
        return Format::Cab;
    if (isTarHeader(head))
        return Format::Tar;
    if (at(0, "MZ", 2))
        return Format::SelfExtracting;
    return Format::Unknown;
}

bool isRpm(const QByteArray &head)
{
    return head.startsWith(QByteArrayView("\xed\xab\xee\xdb", 4));
}

/// Where the payload of an rpm begins; below zero when its headers do not make sense.
qint64 rpmPayload(const QByteArray &head, const QString &path)
{
    QFile file(path);
    if (head.size() < 96 || !file.open(QIODevice::ReadOnly))
        return -1;
    qint64 offset = 96;
    for (int section = 0; section < 2; ++section) {
        file.seek(offset);
        const QByteArray intro = file.read(16);
        if (intro.size() < 16 || !intro.startsWith(QByteArrayView("\x8e\xad\xe8", 3)))
            return -1;
        const auto big = [&intro](int i) {
            quint32 value = 0;
            for (int k = 0; k < 4; ++k)
                value = value << 8 | static_cast<unsigned char>(intro[i + k]);
            return value;
        };
        offset += 16 + qint64(big(8)) * 16 + big(12);
        if (section == 0)
            offset = (offset + 7) / 8 * 8; // the signature is padded
    }
    return offset < file.size() ? offset : -1;
}

/// All files of the set that `path` belongs to, in order.
QStringList rarVolumes(const QString &path)
{
    const QFileInfo info(path);
    const QString name = info.fileName();
    QStringList volumes;
    static const QRegularExpression newStyle(QStringLiteral("^(.*\\.part)(\\d+)(\\.(rar|exe))$"),
                                             QRegularExpression::CaseInsensitiveOption |
                                                 QRegularExpression::DotMatchesEverythingOption);
    if (const auto match = newStyle.match(name); match.hasMatch()) {
        const qsizetype width = match.captured(2).size();
        for (int number = 1; number < maxRarVolumes; ++number) {
            const QString volume = info.dir().filePath(
                match.captured(1) + QString::number(number).rightJustified(width, u'0') + match.captured(3));
            if (!QFileInfo::exists(volume))
                break;
            volumes << volume;
        }
        return volumes.isEmpty() ? QStringList{path} : volumes;
    }
    const QString base = info.dir().filePath(info.completeBaseName());
    const QString first =
        name.endsWith(QLatin1StringView(".rar"), Qt::CaseInsensitive) ? path : base + QStringLiteral(".rar");
    volumes << (QFileInfo::exists(first) ? first : path);
    for (int number = 0; number < 900; ++number) {
        const QString volume = base + u'.' + QChar(char16_t(u'r' + number / 100)) +
                               QString::number(number % 100).rightJustified(2, u'0');
        if (!QFileInfo::exists(volume))
            break;
        if (volume != volumes.first())
            volumes << volume;
    }
    return volumes;
}

QByteArray rawNameOf(const QString &archivePath)
{
    QString name = QFileInfo(archivePath).fileName();
    const QString lower = name.toLower();
    for (const char *shortTar : {".tgz", ".tbz", ".tbz2", ".txz", ".tlz", ".tzst", ".taz"})
        if (lower.endsWith(QLatin1StringView(shortTar)))
            return (name.left(name.lastIndexOf(u'.')) + QStringLiteral(".tar")).toUtf8();
    const qsizetype dot = name.lastIndexOf(u'.');
    return (dot > 0 ? name.left(dot) : name + QStringLiteral(".out")).toUtf8();
}

class CVLibarchiveEngine final : public CVReadingEngine
{
public:
    CVLibarchiveEngine(QString path, Format format, Kind kind, qint64 offset, QStringList volumes)
        : m_path(std::move(path))
        , m_format(format)
        , m_kind(kind)
        , m_offset(offset)
        , m_volumes(std::move(volumes))
    {
        for (const QString &volume : m_volumes)
            m_fileBytes += QFileInfo(volume).size();
    }

    CVRarHeaders rar;
    QString name;

    /// Looks at the first header, so that a file that only resembles its format is refused on opening.
    Outcome tryFirst()
    {
        if (m_format == Format::Raw)
            return {};
        const Utf8Locale locale;
        Source source(*this);
        if (const Outcome opened = source.open(); opened.code != XADErrorCode::None)
            return opened;
        archive_entry *entry = nullptr;
        const int result = archive_read_next_header(source.handle.get(), &entry);
        return result == ARCHIVE_EOF || result >= ARCHIVE_WARN ? Outcome{} : source.failure();
    }

    QString formatName() const override { return name; }
    bool isEncrypted() const override { return false; }
    bool entriesAreLazy() const override { return true; }
    // The library stumbles over rare methods of rar that are not damaged; unar checks them all the same.
    bool isDamageFinal() const override { return m_format != Format::Rar4 && m_format != Format::Rar5; }
    QStringList volumePaths() const override { return m_volumes; }

    bool compressedProgress(qint64 &done, qint64 &total) const override
    {
        done = std::min(m_position.load(), m_fileBytes);
        total = m_fileBytes;
        return total > 0;
    }

    const std::vector<XADEntry> &entries() const override
    {
        if (!m_listed && !m_extracting)
            const_cast<CVLibarchiveEngine *>(this)->list();
        return m_entries;
    }

    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override
    {
        const Utf8Locale locale;
        m_extracting = true;
        if (!m_listed)
            m_entries.clear();
        const Outcome outcome =
            m_format == Format::Raw ? extractRaw(sink) : extractEntries(indices, all, sink);
        m_extracting = false;
        // A whole pass has met every entry.
        m_listed = m_listed || outcome.code == XADErrorCode::None;
        return outcome;
    }

private:
    /// One pass over the archive: the handle and what feeds it.
    struct Source
    {
        explicit Source(CVLibarchiveEngine &e)
            : engine(e)
        {}

        Outcome open()
        {
            handle.reset(archive_read_new());
            archive *a = handle.get();
            switch (engine.m_format) {
            case Format::Tar:
                archive_read_support_format_tar(a);
                break;
            case Format::Cpio:
                archive_read_support_format_cpio(a);
                break;
            case Format::Ar:
                archive_read_support_format_ar(a);
                break;
            case Format::Xar:
                archive_read_support_format_xar(a);
                break;
            case Format::Rar4:
                archive_read_support_format_rar(a);
                break;
            case Format::Rar5:
                archive_read_support_format_rar5(a);
                break;
            case Format::Lha:
                archive_read_support_format_lha(a);
                break;
            case Format::Cab:
                archive_read_support_format_cab(a);
                break;
            case Format::SelfExtracting:
                archive_read_support_format_lha(a);
                break;
            case Format::Raw:
            case Format::Unknown:
                return {XADErrorCode::NotSupported, {}};
            }
            int result;
            if (engine.m_kind != Kind::None || engine.m_format == Format::Tar ||
                engine.m_format == Format::Cpio) {
                stream = CVByteStream::open(engine.m_path, engine.m_kind, engine.m_offset);
                result = archive_read_open(a, this, nullptr, read, nullptr);
            } else {
                std::vector<QByteArray> names;
                std::vector<const char *> pointers;
                for (const QString &volume : engine.m_volumes)
                    names.push_back(QFile::encodeName(volume));
                for (const QByteArray &volume : names)
                    pointers.push_back(volume.constData());
                pointers.push_back(nullptr);
                result = archive_read_open_filenames(a, pointers.data(), std::size_t(256) << 10);
            }
            return result == ARCHIVE_OK ? Outcome{} : failure();
        }

        static la_ssize_t read(archive *a, void *data, const void **buffer)
        {
            auto &self = *static_cast<Source *>(data);
            const CVByteStream::State state = self.stream->next(self.block);
            self.noteTail();
            self.engine.m_position = self.stream->position();
            if (state == CVByteStream::State::Damaged || state == CVByteStream::State::NotSupported) {
                self.streamFailed = state == CVByteStream::State::Damaged ? XADErrorCode::Damaged
                                                                          : XADErrorCode::NotSupported;
                archive_set_error(a, EIO, "%s", self.stream->errorText().toUtf8().constData());
                return ARCHIVE_FATAL;
            }
            *buffer = self.block.constData();
            return self.block.size();
        }

        Outcome failure() const
        {
            if (streamFailed != XADErrorCode::None)
                return {streamFailed, stream->errorText()};
            const char *reason = archive_error_string(handle.get());
            const QString why = QString::fromUtf8(reason ? reason : "unknown error");
            for (const char *word :
                 {"nsupported", "not supported", "ncrypt", "assphrase", "nknown compression"})
                if (why.contains(QLatin1StringView(word)))
                    return {XADErrorCode::NotSupported, why};
            return {XADErrorCode::Damaged, why};
        }

        void noteTail()
        {
            if (!block.isEmpty())
                endsInZeros =
                    block.size() >= tarBlockBytes && block.last(tarBlockBytes).count('\0') == tarBlockBytes;
        }

        void notePosition()
        {
            if (!stream)
                engine.m_position = archive_filter_bytes(handle.get(), -1);
        }

        /// Reads what is behind the archive, so that the checksum at the stream's very end counts.
        Outcome drain(CVEntrySink *sink)
        {
            if (!stream || streamFailed != XADErrorCode::None)
                return streamFailed == XADErrorCode::None ? Outcome{} : failure();
            for (qint64 trailing = 0; trailing <= maxTrailingBytes;) {
                switch (stream->next(block)) {
                case CVByteStream::State::Data:
                    noteTail();
                    trailing += block.size();
                    break;
                case CVByteStream::State::End:
                    return {};
                case CVByteStream::State::Damaged:
                    return {XADErrorCode::Damaged, stream->errorText()};
                case CVByteStream::State::NotSupported:
                    return {XADErrorCode::NotSupported, stream->errorText()};
                }
                if (sink && sink->shouldStop())
                    return {XADErrorCode::Stopped, {}};
            }
            return {XADErrorCode::Damaged, text("A large amount of data follows the archive.")};
        }

        CVLibarchiveEngine &engine;
        std::unique_ptr<CVByteStream> stream;
        QByteArray block;
        XADErrorCode streamFailed = XADErrorCode::None;
        bool endsInZeros = false; ///< as a tar does whose end was not cut off
        ArchiveHandle handle;     // last: freed before what its callback uses
    };

    static XADEntry toEntry(archive_entry *e)
    {
        XADEntry entry;
        const auto raw = [&entry](const char *stored, const char *utf8) {
            if (stored)
                return QByteArray(stored);
            entry.nameEncoding = CVNameEncoding::Utf8;
            return QByteArray(utf8 ? utf8 : "");
        };
        entry.name = raw(archive_entry_pathname(e), archive_entry_pathname_utf8(e));
        if (archive_entry_size_is_set(e))
            entry.size = archive_entry_size(e);
        if (archive_entry_mtime_is_set(e))
            entry.modified = qint64(archive_entry_mtime(e)) * 1'000'000'000 + archive_entry_mtime_nsec(e);
        const auto mode = archive_entry_mode(e);
        entry.mode = mode & 07777;
        entry.hasMode = archive_entry_perm(e) != 0 || archive_entry_filetype(e) != 0;
        entry.encrypted = archive_entry_is_encrypted(e);
        switch (archive_entry_filetype(e)) {
        case AE_IFDIR:
            entry.type = XADEntry::Type::Directory;
            break;
        case AE_IFLNK:
            entry.type = XADEntry::Type::Symlink;
            entry.linkTarget = raw(archive_entry_symlink(e), archive_entry_symlink_utf8(e));
            break;
        case AE_IFREG:
        case 0:
            break;
        default:
            entry.type = XADEntry::Type::Special;
            break;
        }
        if (archive_entry_hardlink(e) || archive_entry_hardlink_utf8(e)) {
            entry.type = XADEntry::Type::HardLink;
            entry.linkTarget = raw(archive_entry_hardlink(e), archive_entry_hardlink_utf8(e));
        }
        return entry;
    }

    XADEntry rawEntry() const
    {
        XADEntry entry;
        entry.name = rawNameOf(m_path);
        entry.nameEncoding = CVNameEncoding::Utf8;
        entry.modified = QFileInfo(m_path).lastModified().toMSecsSinceEpoch() * 1'000'000;
        return entry;
    }

    void list()
    {
        m_entries.clear();
        m_listed = true;
        if (m_format == Format::Raw) {
            m_entries.push_back(rawEntry());
            return;
        }
        const Utf8Locale locale;
        Source source(*this);
        if (source.open().code != XADErrorCode::None)
            return;
        archive_entry *e = nullptr;
        for (;;) {
            const int result = archive_read_next_header(source.handle.get(), &e);
            if (result == ARCHIVE_RETRY)
                continue;
            if (result == ARCHIVE_EOF || result < ARCHIVE_FAILED)
                return;
            m_entries.push_back(toEntry(e));
        }
    }

    Outcome extractRaw(CVEntrySink &sink)
    {
        if (m_entries.empty())
            m_entries.push_back(rawEntry());
        const auto writer = sink.beginEntry(0);
        if (!writer)
            return {sink.shouldStop() ? XADErrorCode::Stopped : XADErrorCode::None, {}};
        const auto stream = CVByteStream::open(m_path, m_kind, m_offset);
        QByteArray block;
        for (;;) {
            const CVByteStream::State state = stream->next(block);
            m_position = stream->position();
            switch (state) {
            case CVByteStream::State::Data: {
                const Flow flow = writer->write(block.constData(), block.size());
                if (flow == Flow::Go)
                    continue;
                if (flow == Flow::SkipEntry)
                    return {writer->finish(XADErrorCode::None) == Flow::Stop ? XADErrorCode::Stopped
                                                                             : XADErrorCode::None,
                            {}};
                return {XADErrorCode::Stopped, {}};
            }
            case CVByteStream::State::End:
                return {writer->finish(XADErrorCode::None) == Flow::Stop ? XADErrorCode::Stopped
                                                                         : XADErrorCode::None,
                        {}};
            case CVByteStream::State::Damaged:
                writer->finish(XADErrorCode::Damaged, stream->errorText());
                return {XADErrorCode::Damaged, stream->errorText()};
            case CVByteStream::State::NotSupported:
                writer->finish(XADErrorCode::NotSupported, stream->errorText());
                return {XADErrorCode::NotSupported, stream->errorText()};
            }
        }
    }

    Outcome extractEntries(std::span<const int> indices, bool all, CVEntrySink &sink)
    {
        Source source(*this);
        if (const Outcome opened = source.open(); opened.code != XADErrorCode::None)
            return opened;
        archive *a = source.handle.get();
        std::size_t nextWanted = 0;
        archive_entry *e = nullptr;
        for (int index = 0;; ++index) {
            if (sink.shouldStop())
                return {XADErrorCode::Stopped, {}};
            if (!all && nextWanted >= indices.size())
                return {}; // nothing more is asked for
            int result = archive_read_next_header(a, &e);
            while (result == ARCHIVE_RETRY)
                result = archive_read_next_header(a, &e);
            if (result == ARCHIVE_EOF)
                return checkedEnd(source, all, index, sink);
            if (result < ARCHIVE_FAILED)
                return source.failure();
            source.notePosition();
            if (!m_listed)
                m_entries.push_back(toEntry(e));
            else if (index >= static_cast<int>(m_entries.size()))
                return {XADErrorCode::Damaged, text("The archive changed while it was read.")};
            if (!all) {
                if (indices[nextWanted] != index)
                    continue;
                ++nextWanted;
            }
            if (result == ARCHIVE_FAILED) {
                const Outcome failed = source.failure();
                if (sink.entryFailed(index, failed.code, failed.detail) == Flow::Stop)
                    return {XADErrorCode::Stopped, {}};
                continue;
            }
            const auto writer = sink.beginEntry(index);
            if (!writer)
                continue;
            const Outcome outcome = copyData(source, e, index, *writer);
            if (outcome.code != XADErrorCode::None)
                return outcome;
        }
    }

    Outcome checkedEnd(Source &source, bool all, int count, CVEntrySink &sink)
    {
        if (!rar.files.empty() && all && count != static_cast<int>(rar.files.size()))
            return {XADErrorCode::NotSupported, text("Not all of its entries were found.")};
        Outcome end = source.drain(&sink);
        if (m_format == Format::Tar && end.code == XADErrorCode::None && !source.endsInZeros)
            end.remark =
                text("It ends without the mark that ends a tar archive; the rest may have been cut off.");
        return end;
    }

    /// Anything but None ends the archive.
    Outcome copyData(Source &source, archive_entry *e, int index, CVEntryWriter &writer)
    {
        archive *a = source.handle.get();
        const bool isRar = m_format == Format::Rar4 || m_format == Format::Rar5;
        const bool sparse = archive_entry_sparse_count(e) > 0;
        qint64 position = 0;
        uLong crc = ::crc32(0, nullptr, 0);
        const auto finish = [&writer](XADErrorCode code, const QString &why = {}) {
            return writer.finish(code, why) == Flow::Stop ? Outcome{XADErrorCode::Stopped, {}} : Outcome{};
        };
        for (;;) {
            const void *data = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int result = archive_read_data_block(a, &data, &size, &offset);
            source.notePosition();
            if (result == ARCHIVE_EOF)
                break;
            if (result != ARCHIVE_OK) { // a checksum that does not fit is but a warning for some formats
                const Outcome failed = source.failure();
                const Outcome ended = finish(failed.code, failed.detail);
                return result == ARCHIVE_FATAL && ended.code == XADErrorCode::None ? failed : ended;
            }
            if (size == 0)
                continue;
            if (offset < position)
                return finish(XADErrorCode::Damaged, text("Its pieces overlap."));
            Flow flow = Flow::Go;
            if (offset > position) {
                flow = writer.writeHole(offset - position);
                if (isRar) // a checksum covers the zeros too, and the format has no holes
                    return finish(XADErrorCode::NotSupported, text("Part of its data is missing."));
                position = offset;
            }
            const char *bytes = static_cast<const char *>(data);
            if (isRar)
                crc = ::crc32_z(crc, reinterpret_cast<const Bytef *>(bytes), size);
            for (std::size_t done = 0; done < size && flow == Flow::Go; done += maxWriteBytes)
                flow =
                    writer.write(bytes + done, static_cast<qsizetype>(std::min(size - done, maxWriteBytes)));
            position += static_cast<qint64>(size);
            if (flow == Flow::Stop)
                return {XADErrorCode::Stopped, {}};
            if (flow == Flow::SkipEntry)
                return finish(XADErrorCode::None);
        }
        const XADEntry &entry = m_entries[static_cast<std::size_t>(index)];
        if (sparse && entry.size > position)
            writer.writeHole(entry.size - position);
        if (isRar && entry.type == XADEntry::Type::File) {
            if (index >= static_cast<int>(rar.files.size()))
                return finish(XADErrorCode::NotSupported, text("Its checksum is not known."));
            const CVRarHeaders::File &header = rar.files[static_cast<std::size_t>(index)];
            if (!header.crc32 && position > 0)
                return finish(XADErrorCode::NotSupported,
                              text("Its checksum is of a kind that is not known."));
            if ((header.size >= 0 && header.size != position) || (header.crc32 && *header.crc32 != crc))
                return finish(XADErrorCode::Damaged, text("Its checksum does not fit."));
        }
        return finish(XADErrorCode::None);
    }

    const QString m_path;
    const Format m_format;
    const Kind m_kind;
    const qint64 m_offset;
    const QStringList m_volumes;
    qint64 m_fileBytes = 0;
    std::atomic<qint64> m_position = 0;
    std::vector<XADEntry> m_entries;
    bool m_listed = false;
    bool m_extracting = false;
};

QString displayName(Format format, Kind kind, bool rpm)
{
    QString base;
    switch (format) {
    case Format::Raw:
        return QString::fromLatin1(CVByteStream::nameOf(kind));
    case Format::Tar:
        base = QStringLiteral("tar");
        break;
    case Format::Cpio:
        base = rpm ? QStringLiteral("RPM") : QStringLiteral("cpio");
        break;
    case Format::Ar:
        base = QStringLiteral("ar");
        break;
    case Format::Xar:
        base = QStringLiteral("XAR");
        break;
    case Format::Rar4:
        base = QStringLiteral("RAR 4");
        break;
    case Format::Rar5:
        base = QStringLiteral("RAR 5");
        break;
    case Format::Lha:
        base = QStringLiteral("LHA");
        break;
    case Format::Cab:
        base = QStringLiteral("CAB");
        break;
    case Format::SelfExtracting:
        base = QStringLiteral("self-extracting archive");
        break;
    case Format::Unknown:
        break;
    }
    return kind == Kind::None || rpm
               ? base
               : base + QStringLiteral(" (%1)").arg(QLatin1StringView(CVByteStream::nameOf(kind)));
}

int bid(const CVArchiveProbe &probe)
{
    if (isRpm(probe.head))
        return 80;
    const Format format = formatOf(probe.head);
    switch (format) {
    case Format::Tar:
    case Format::Cpio:
    case Format::Ar:
    case Format::Xar:
        return 80;
    case Format::Rar4:
    case Format::Rar5:
    case Format::Lha:
        return 60;
    case Format::Cab:
        return 40;
    case Format::SelfExtracting:
        return 20;
    case Format::Raw:
    case Format::Unknown:
        break;
    }
    return CVByteStream::kindOf(probe.head, probe.path) == Kind::None ? 0 : 80;
}

CVEngineDescriptor::OpenOutcome openArchive(const CVArchiveProbe &probe, CVEngineHost &)
{
    CVEngineDescriptor::OpenOutcome outcome;
    const auto refuse = [&outcome](XADErrorCode code, const QString &why) {
        outcome.code = code;
        outcome.detail = why;
        return std::move(outcome);
    };
    Format format = formatOf(probe.head);
    Kind kind = Kind::None;
    qint64 offset = 0;
    const bool rpm = isRpm(probe.head);
    QStringList volumes{probe.path};
    if (rpm) {
        offset = rpmPayload(probe.head, probe.path);
        QFile file(probe.path);
        if (offset < 0 || !file.open(QIODevice::ReadOnly) || !file.seek(offset))
            return refuse(XADErrorCode::Damaged, text("Its headers are damaged."));
        const QByteArray payload = file.read(qint64(64) << 10);
        kind = CVByteStream::kindOf(payload, {});
        format = Format::Cpio;
    } else if (format == Format::Unknown) {
        kind = CVByteStream::kindOf(probe.head, probe.path);
        if (kind == Kind::None)
            return refuse(XADErrorCode::NotSupported, {});
        const auto stream = CVByteStream::open(probe.path, kind);
        QByteArray first, block;
        CVByteStream::State state = CVByteStream::State::Data;
        while (first.size() < 1024 && (state = stream->next(block)) == CVByteStream::State::Data)
            first += block;
        if (first.isEmpty() && state != CVByteStream::State::End)
            return refuse(state == CVByteStream::State::NotSupported ? XADErrorCode::NotSupported
                                                                     : XADErrorCode::Damaged,
                          stream->errorText());
        const Format inner = formatOf(first);
        // Of what may be inside a stream only these can be read without seeking; the rest is one file.
        format = inner == Format::Tar || inner == Format::Cpio ? inner : Format::Raw;
    }

    CVRarHeaders rar;
    if (format == Format::Rar4 || format == Format::Rar5) {
        volumes = rarVolumes(probe.path);
        rar = CVRarHeaders::read(volumes, 0);
        if (!rar.multiVolume && volumes.size() > 1) {
            volumes = {probe.path};
            rar = CVRarHeaders::read(volumes, 0);
        }
        if (rar.headersEncrypted)
            return refuse(XADErrorCode::NotSupported, rar.problem);
        for (const CVRarHeaders::File &file : rar.files) {
            if (file.encrypted)
                return refuse(XADErrorCode::NotSupported, text("It is encrypted."));
            if (!file.stored && !file.isDirectory && ((!rar.rar5 && file.version < 29) || file.version > 50))
                return refuse(XADErrorCode::NotSupported,
                              text("It uses a method of another version of its format."));
        }
        if (!rar.valid) {
            outcome.damageIsCertain = true;
            return refuse(XADErrorCode::Damaged, rar.problem);
        }
    }

    auto engine = std::make_unique<CVLibarchiveEngine>(probe.path, format, kind, offset, volumes);
    engine->rar = std::move(rar);
    engine->name = displayName(format, kind, rpm);
    const CVReadingEngine::Outcome first = engine->tryFirst();
    if (first.code != XADErrorCode::None)
        return refuse(first.code, first.detail);
    outcome.engine = std::move(engine);
    return outcome;
}

} // namespace

CVEngineDescriptor cvLibarchiveEngineDescriptor()
{
    return {"libarchive", bid, openArchive};
}

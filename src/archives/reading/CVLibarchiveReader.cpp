#include "archives/reading/CVLibarchiveReader.h"

#include "archives/reading/CVReadingText.h"

#include <QFile>

#include <algorithm>
#include <cerrno>

#include <archive.h>
#include <archive_entry.h>
#include <locale.h>

namespace {

constexpr std::size_t plainBlockBytes = std::size_t(256) << 10;
// After the end mark of a container only padding follows; what decodes to more than this is made to keep
// a reader busy.
constexpr qint64 maxBytesAfterEnd = qint64(4) << 30;

/// libarchive turns names into text by the locale of the thread. The person's own locale is left alone:
/// it may be "C", in which names beyond ASCII are lost.
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
        static const locale_t locale = [] {
            locale_t found = nullptr;
            for (const char *name : {"C.UTF-8", "C.utf8", "en_US.UTF-8"})
                if (!found)
                    found = ::newlocale(LC_CTYPE_MASK, name, nullptr);
            return found;
        }();
        return locale; // null asks for the present one and changes nothing
    }

    locale_t m_before;
};

constexpr std::size_t volumeBlockBytes = std::size_t(64) << 10;

int supportFormat(archive *a, CVLibarchiveFormat format)
{
    switch (format) {
    case CVLibarchiveFormat::Tar:
        return archive_read_support_format_tar(a);
    case CVLibarchiveFormat::Cpio:
        return archive_read_support_format_cpio(a);
    case CVLibarchiveFormat::Ar:
        return archive_read_support_format_ar(a);
    case CVLibarchiveFormat::Rar4:
        return archive_read_support_format_rar(a);
    case CVLibarchiveFormat::Rar5:
        return archive_read_support_format_rar5(a);
    case CVLibarchiveFormat::Iso:
        return archive_read_support_format_iso9660(a);
    case CVLibarchiveFormat::Lha:
        return archive_read_support_format_lha(a);
    case CVLibarchiveFormat::Cab:
        return archive_read_support_format_cab(a);
    case CVLibarchiveFormat::Warc:
        return archive_read_support_format_warc(a);
    }
    return ARCHIVE_FATAL;
}

bool namesAreUtf8(CVLibarchiveFormat format)
{
    return format == CVLibarchiveFormat::Rar5;
}

/// libarchive makes modes up where the format has none.
bool hasStoredMode(CVLibarchiveFormat format, archive_entry *entry)
{
    switch (format) {
    case CVLibarchiveFormat::Cab:
    case CVLibarchiveFormat::Warc:
        return false;
    case CVLibarchiveFormat::Iso:
        return (archive_entry_perm(entry) & 0777) != 0400 && (archive_entry_perm(entry) & 0777) != 0700;
    case CVLibarchiveFormat::Lha:
        return (archive_entry_perm(entry) & 0777) != 0666 && (archive_entry_perm(entry) & 0777) != 0777;
    default:
        return true;
    }
}

void convert(archive_entry *from, CVLibarchiveFormat format, XADEntry &to)
{
    to = XADEntry();
    if (namesAreUtf8(format))
        to.nameEncoding = CVNameEncoding::Utf8;
    if (const char *name = archive_entry_pathname(from)) {
        to.name = name;
    } else if (const char *utf8 = archive_entry_pathname_utf8(from)) {
        to.name = utf8;
        to.nameEncoding = CVNameEncoding::Utf8;
    }
    const char *target = nullptr;
    if ((target = archive_entry_hardlink(from)) != nullptr) {
        to.type = XADEntry::Type::HardLink;
    } else {
        switch (archive_entry_filetype(from)) {
        case AE_IFDIR:
            to.type = XADEntry::Type::Directory;
            break;
        case AE_IFLNK:
            to.type = XADEntry::Type::Symlink;
            target = archive_entry_symlink(from);
            break;
        case AE_IFREG:
        case 0:
            to.type = XADEntry::Type::File;
            break;
        default:
            to.type = XADEntry::Type::Special;
        }
    }
    if (target)
        to.linkTarget = target;
    if (archive_entry_size_is_set(from) && to.type != XADEntry::Type::Symlink)
        to.size = archive_entry_size(from);
    if (archive_entry_mtime_is_set(from)) {
        qint64 nanoseconds = 0;
        if (!__builtin_mul_overflow(qint64(archive_entry_mtime(from)), qint64(1'000'000'000), &nanoseconds) &&
            !__builtin_add_overflow(nanoseconds, qint64(archive_entry_mtime_nsec(from)), &nanoseconds))
            to.modified = nanoseconds;
    }
    to.mode = static_cast<std::uint32_t>(archive_entry_perm(from)) & 07777U;
    to.hasMode = hasStoredMode(format, from);
    to.encrypted = archive_entry_is_data_encrypted(from) != 0;
}

/// libarchive has one error number for what is damaged and what it does not know; its texts differ.
XADErrorCode codeOf(archive *a)
{
    if (archive_errno(a) == ENOMEM)
        return XADErrorCode::NotSupported;
    const QByteArray text = QByteArray(archive_error_string(a)).toLower();
    for (const char *word : {"unsupported", "not supported", "unavailable", "unrecognized", "encrypt",
                             "unknown compression", "unknown codec"})
        if (text.contains(word))
            return XADErrorCode::NotSupported;
    return XADErrorCode::Damaged;
}

/// A warning with a header says what was passed over or ignored, which is damage (bytes between two headers,
/// attributes of which one may be the name, a file's data out of place), but for these.
bool isHarmless(const char *warning)
{
    const QByteArray text = QByteArray(warning).toLower();
    return text.contains("convert") || text.contains(" acl ") || text.contains("large inode");
}

} // namespace

void CVLibarchiveReader::Closer::operator()(archive *a) const noexcept
{
    archive_read_free(a);
}

CVLibarchiveReader::CVLibarchiveReader(Input input, std::function<bool()> shouldStop)
    : m_input(std::move(input))
    , m_shouldStop(std::move(shouldStop))
{}

CVLibarchiveReader::~CVLibarchiveReader() = default;

bool CVLibarchiveReader::open()
{
    if (m_input.stream != CVStreamKind::None)
        m_pipeline = std::make_unique<CVDecodePipeline>(m_input.source, m_input.offset, m_input.stream);
    else
        m_buffer.resize(plainBlockBytes);
    if (m_input.format == CVLibarchiveFormat::Cpio)
        m_sums.emplace();
    const Utf8Locale locale;
    m_archive.reset(archive_read_new());
    archive *a = m_archive.get();
    if (!a || archive_read_support_filter_none(a) != ARCHIVE_OK ||
        supportFormat(a, m_input.format) < ARCHIVE_WARN)
        return false;
    if (m_input.format == CVLibarchiveFormat::Rar5 && m_input.source->paths().size() > 1)
        return openVolumes();
    archive_read_set_callback_data(a, this);
    archive_read_set_read_callback(a, readCallback);
    // Bytes that are summed have to be seen.
    if (!m_pipeline && !m_sums) {
        archive_read_set_skip_callback(a, skipCallback);
        archive_read_set_seek_callback(a, seekCallback);
    }
    return archive_read_open1(a) == ARCHIVE_OK;
}

bool CVLibarchiveReader::openVolumes()
{
    // The rar 5 reader loses a block that is cut by the end of a short volume unless the volumes are
    // files of their own and their sizes are known, which the look of the zip reader at the end brings about.
    archive *a = m_archive.get();
    archive_read_support_format_zip_seekable(a);
    const std::vector<qint64> starts = m_input.source->starts();
    m_volumes.reserve(starts.size()); // libarchive keeps the addresses
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const qint64 end = i + 1 < starts.size() ? starts[i + 1] : m_input.source->size();
        m_volumes.push_back({this, starts[i], end - starts[i], 0});
        if (archive_read_append_callback_data(a, &m_volumes.back()) != ARCHIVE_OK)
            return false;
    }
    m_buffer.resize(volumeBlockBytes);
    archive_read_set_read_callback(a, Volume::read);
    archive_read_set_seek_callback(a, Volume::seek);
    archive_read_set_switch_callback(a, Volume::enter);
    return archive_read_open1(a) == ARCHIVE_OK;
}

ssize_t CVLibarchiveReader::Volume::read(archive *a, void *self, const void **buffer)
{
    auto *const volume = static_cast<Volume *>(self);
    CVLibarchiveReader &reader = *volume->reader;
    if (reader.m_shouldStop && reader.m_shouldStop())
        reader.m_inputCode = XADErrorCode::Stopped;
    const qint64 wanted = std::min<qint64>(volume->size - volume->position, qint64(reader.m_buffer.size()));
    const qint64 n =
        reader.m_inputCode != XADErrorCode::None
            ? -1
            : reader.m_input.source->readAt(volume->start + volume->position, reader.m_buffer.data(), wanted);
    if (n < 0) {
        archive_set_error(a, EIO, "%s", "input ended");
        return -1;
    }
    volume->position += n;
    *buffer = reader.m_buffer.data();
    return static_cast<ssize_t>(n);
}

std::int64_t CVLibarchiveReader::Volume::seek(archive *, void *self, std::int64_t offset, int whence)
{
    auto *const volume = static_cast<Volume *>(self);
    const qint64 base = whence == SEEK_CUR ? volume->position : whence == SEEK_END ? volume->size : 0;
    if (offset < -base || offset > volume->size - base)
        return ARCHIVE_FATAL;
    return volume->position = base + offset;
}

int CVLibarchiveReader::Volume::enter(archive *, void *, void *next)
{
    static_cast<Volume *>(next)->position = 0;
    return ARCHIVE_OK;
}

std::span<const char> CVLibarchiveReader::fetch()
{
    if (m_inputEnded)
        return {};
    if (m_shouldStop && m_shouldStop()) {
        m_inputEnded = true;
        m_inputCode = XADErrorCode::Stopped;
        return {};
    }
    std::span<const char> data;
    if (m_pipeline) {
        data = m_pipeline->next();
        if (data.empty()) {
            m_inputEnded = true;
            m_inputCode = m_pipeline->result().code;
            m_inputDetail = m_pipeline->result().detail;
        }
    } else {
        const qint64 n = m_input.source->readAt(m_input.offset + m_position, m_buffer.data(),
                                                static_cast<qint64>(m_buffer.size()));
        if (n < 0) {
            m_inputEnded = true;
            m_inputCode = XADErrorCode::Damaged;
            m_inputDetail = readingText("The file cannot be read.");
        } else {
            data = {m_buffer.data(), static_cast<std::size_t>(n)};
        }
    }
    m_position += static_cast<qint64>(data.size());
    if (m_sums)
        m_sums->feed(data);
    return data;
}

ssize_t CVLibarchiveReader::readCallback(archive *a, void *self, const void **buffer)
{
    auto *reader = static_cast<CVLibarchiveReader *>(self);
    const std::span<const char> data = reader->fetch();
    *buffer = data.data();
    if (data.empty() && reader->m_inputCode != XADErrorCode::None) {
        archive_set_error(a, EIO, "%s", "input ended");
        return -1;
    }
    return static_cast<ssize_t>(data.size());
}

std::int64_t CVLibarchiveReader::skipCallback(archive *, void *self, std::int64_t bytes)
{
    auto *reader = static_cast<CVLibarchiveReader *>(self);
    // Never beyond the end: the read that follows has to notice that the data is cut.
    const qint64 left = reader->m_input.source->size() - reader->m_input.offset - reader->m_position;
    const std::int64_t skipped = std::clamp<std::int64_t>(bytes, 0, std::max<qint64>(left, 0));
    reader->m_position += skipped;
    return skipped;
}

std::int64_t CVLibarchiveReader::seekCallback(archive *, void *self, std::int64_t offset, int whence)
{
    auto *reader = static_cast<CVLibarchiveReader *>(self);
    const qint64 size = reader->m_input.source->size() - reader->m_input.offset;
    qint64 target = offset;
    if (whence == SEEK_CUR)
        target += reader->m_position;
    else if (whence == SEEK_END)
        target += size;
    if (target < 0 || target > size)
        return ARCHIVE_FATAL;
    reader->m_position = target;
    return target;
}

CVLibarchiveReader::Step CVLibarchiveReader::failedWith(XADErrorCode code, const QString &detail)
{
    m_code = code;
    m_detail = detail;
    return Step::Failed;
}

CVLibarchiveReader::Step CVLibarchiveReader::failed(Step step)
{
    if (m_inputCode != XADErrorCode::None)
        return failedWith(m_inputCode, m_inputDetail);
    m_code = m_archive ? codeOf(m_archive.get()) : XADErrorCode::NotSupported;
    m_detail = m_archive ? QString::fromUtf8(archive_error_string(m_archive.get())) : QString();
    return step;
}

CVLibarchiveReader::Step CVLibarchiveReader::next(XADEntry &entry)
{
    if (!m_archive && !open())
        return failed(Step::Failed);
    const Utf8Locale locale;
    archive_entry *found = nullptr;
    const int r = archive_read_next_header(m_archive.get(), &found);
    if (r == ARCHIVE_EOF)
        return m_inputCode == XADErrorCode::None ? Step::End : failed(Step::Failed);
    // ARCHIVE_RETRY, which stands between good and a warning, is a damaged header of tar. To go on would
    // take the data of the lost entry for headers.
    if (r != ARCHIVE_OK && r != ARCHIVE_WARN)
        return failed(Step::Failed);
    if (m_input.format == CVLibarchiveFormat::Rar5 &&
        (archive_format(m_archive.get()) & ARCHIVE_FORMAT_BASE_MASK) != ARCHIVE_FORMAT_RAR_V5)
        return failedWith(XADErrorCode::NotSupported, {}); // a stored zip at the end of the last volume
    if (r == ARCHIVE_WARN && !isHarmless(archive_error_string(m_archive.get())))
        return failed(Step::Failed);
    ++m_ordinal;
    convert(found, m_input.format, entry);
    return Step::Good;
}

CVLibarchiveReader::Step CVLibarchiveReader::read(std::span<const char> &data, qint64 &offset)
{
    const void *block = nullptr;
    std::size_t size = 0;
    la_int64_t at = 0;
    const int r = archive_read_data_block(m_archive.get(), &block, &size, &at);
    data = {static_cast<const char *>(block), r == ARCHIVE_OK ? size : 0};
    offset = at;
    if (r == ARCHIVE_OK)
        return Step::Good;
    if (r == ARCHIVE_EOF) {
        if (!m_sums || !m_sums->isWrong(static_cast<std::uint64_t>(m_ordinal)))
            return Step::End;
        m_code = XADErrorCode::Damaged;
        m_detail = readingText("Its check sum does not fit.");
        return Step::EntryFailed;
    }
    // Warnings about data are check sums that do not fit.
    return failed(r == ARCHIVE_FATAL ? Step::Failed : Step::EntryFailed);
}

CVLibarchiveReader::Step CVLibarchiveReader::finish()
{
    const bool hasEndMark = m_position > archive_read_header_position(m_archive.get());
    for (const qint64 from = m_position; m_pipeline && !m_inputEnded;) {
        fetch();
        if (m_position - from > maxBytesAfterEnd)
            return failedWith(XADErrorCode::Damaged, readingText("Too much data follows the archive's end."));
    }
    if (m_inputCode != XADErrorCode::None)
        return failed(Step::Failed);
    const bool hasGarbage = m_pipeline && m_pipeline->result().trailingGarbage;
    if (m_input.format == CVLibarchiveFormat::Tar && !hasEndMark) {
        // The garbage may well be the rest, behind a damaged start of its own.
        if (hasGarbage)
            return failedWith(XADErrorCode::Damaged, readingText("The archive ends early."));
        // Some writers leave the mark out, so a stream that is known to be whole may lack it.
        if (!m_pipeline || !cvStreamKnowsItsEnd(m_input.stream))
            m_remark = readingText(
                "It ends without the mark that ends a tar archive; the rest may have been cut off.");
    } else if (hasGarbage) {
        m_remark = readingText("Other data follows the archive.");
    }
    return Step::End;
}

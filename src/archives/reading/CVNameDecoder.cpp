#include "archives/reading/CVNameDecoder.h"

#include "archives/reading/CVNameCharset.h"
#include "archives/reading/CVNameDetection.h"
#include "util/LXFileName.h"

#include <QSet>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

/// Kept of names that are not UTF-8: enough to be sure, little enough not to matter.
constexpr qsizetype keptBytesLimit = 1024 * 1024;

/// Bytes beyond ASCII that tell a charset: one German word of Windows has two of them, and so has any name
/// that is no text at all. Where the maker's system is likely to use UTF-8, fewer say nothing.
constexpr qsizetype leastOddBytes = 4;

/// Kept of names that are UTF-8 only by a few bytes and might as well be something else.
constexpr qsizetype weakBytesLimit = 64 * 1024;

/// A million names of an ordinary archive end here, so it goes by eight bytes.
bool isAscii(QByteArrayView raw)
{
    std::uint64_t all = 0;
    const char *at = raw.data();
    const char *const end = at + raw.size();
    for (; end - at >= qsizetype(sizeof(all)); at += sizeof(all)) {
        std::uint64_t eight = 0;
        std::memcpy(&eight, at, sizeof(eight));
        all |= eight;
    }
    for (; at != end; ++at)
        all |= static_cast<unsigned char>(*at);
    return (all & 0x8080808080808080U) == 0;
}

bool hasEscapeSequence(QByteArrayView raw)
{
    return !raw.isEmpty() && std::memchr(raw.data(), 0x1B, size_t(raw.size())) != nullptr &&
           (raw.contains("\x1b$B") || raw.contains("\x1b$@") || raw.contains("\x1b(J"));
}

/// QString::fromUtf8 drops a byte order mark at the start; a name that has one is another name.
QString fromUtf8Exactly(QByteArrayView raw)
{
    qsizetype marks = 0;
    while (raw.sliced(marks * 3).startsWith("\xEF\xBB\xBF"))
        ++marks;
    if (marks == 0)
        return QString::fromUtf8(raw);
    return QString(marks, QChar(0xFEFF)) + QString::fromUtf8(raw.sliced(marks * 3));
}

QString escapedBeyondAscii(QByteArrayView raw)
{
    QString text;
    for (const char c : raw) {
        if (static_cast<unsigned char>(c) < 0x80)
            text += QLatin1Char(c);
        else
            cvAppendEscapedByte(text, static_cast<unsigned char>(c));
    }
    return text;
}

/// A name of ours can look like an escaped one only if someone typed it that way; then it is escaped
/// itself.
QString fromUtf8WithoutMimicry(QByteArrayView raw)
{
    QString text = fromUtf8Exactly(raw);
    return cvLooksEscaped(text) ? escapedBeyondAscii(raw) : text;
}

/// At most two characters that are not ASCII, each of two bytes: one in seven pairs of bytes of a
/// Chinese code page looks like that.
bool isWeakUtf8(QByteArrayView raw)
{
    int odd = 0;
    for (const char c : raw) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0xE0)
            return false;
        odd += byte >= 0x80;
    }
    return odd <= 4;
}

/// Bytes beyond ASCII in all names of files and folders, each of which counts once however often it occurs:
/// one odd folder is in the path of everything beneath it.
qsizetype oddBytesIn(const std::vector<QByteArrayView> &paths)
{
    QSet<QByteArrayView> seen;
    qsizetype count = 0;
    for (const QByteArrayView path : paths) {
        for (qsizetype begin = 0; begin < path.size() && count < leastOddBytes;) {
            const qsizetype slash = path.indexOf('/', begin);
            const qsizetype end = slash < 0 ? path.size() : slash;
            const QByteArrayView name = path.sliced(begin, end - begin);
            if (!seen.contains(name)) {
                seen.insert(name);
                count += std::count_if(name.begin(), name.end(), [](char c) { return (c & 0x80) != 0; });
            }
            begin = end + 1;
        }
    }
    return count;
}

/// Byte strings one after the other, without an allocation for each.
class Pool
{
public:
    void add(QByteArrayView raw)
    {
        m_bytes.append(raw);
        m_ends.push_back(m_bytes.size());
    }
    qsizetype bytes() const { return m_bytes.size(); }
    qsizetype size() const { return qsizetype(m_ends.size()); }
    QByteArrayView at(qsizetype i) const
    {
        const qsizetype begin = i == 0 ? 0 : m_ends[size_t(i - 1)];
        return QByteArrayView(m_bytes).sliced(begin, m_ends[size_t(i)] - begin);
    }
    std::vector<QByteArrayView> views() const
    {
        std::vector<QByteArrayView> result;
        result.reserve(m_ends.size());
        for (qsizetype i = 0; i < size(); ++i)
            result.push_back(at(i));
        return result;
    }
    void clear()
    {
        m_bytes = {};
        m_ends = {};
    }

private:
    QByteArray m_bytes;
    std::vector<qsizetype> m_ends;
};

} // namespace

struct CVNameDecoder::Private
{
    Family family = Family::Other;
    Pool odd;  ///< names that are not UTF-8
    Pool weak; ///< names that may be UTF-8 by chance
    bool allUtf8 = true;
    bool keepsBytes = false; ///< names that are not UTF-8 are no text
    std::unique_ptr<CVNameCharset> charset;
    QSet<QByteArray> weakInCharset; ///< names that are UTF-8 by chance
    QSet<QString> taken;            ///< texts of observed names that are not UTF-8

    /// Where Unix programs wrote the names, those that can be UTF-8 are: people there changed their
    /// locale from one to the other. The DOS and Windows programs never wrote it without the mark
    /// beside a code page.
    bool doubtsWeakUtf8() const { return family != Family::Tar && family != Family::Other; }
    bool isStateful() const { return std::strcmp(charset->info().name, "ISO-2022-JP") == 0; }
};

CVNameDecoder::CVNameDecoder(Family family)
    : d(std::make_unique<Private>())
{
    d->family = family;
    d->charset = cvFallbackNameCharset(family);
}

CVNameDecoder::~CVNameDecoder() = default;
CVNameDecoder::CVNameDecoder(CVNameDecoder &&) noexcept = default;
CVNameDecoder &CVNameDecoder::operator=(CVNameDecoder &&) noexcept = default;

void CVNameDecoder::observe(QByteArrayView raw)
{
    const bool ascii = isAscii(raw);
    if (ascii ? !hasEscapeSequence(raw) : raw.isValidUtf8()) {
        if (!ascii && d->doubtsWeakUtf8() && isWeakUtf8(raw) &&
            d->weak.bytes() + raw.size() <= weakBytesLimit)
            d->weak.add(raw);
        return;
    }
    d->allUtf8 = false;
    if (d->odd.bytes() + raw.size() <= keptBytesLimit)
        d->odd.add(raw);
}

bool CVNameDecoder::isAllUtf8() const
{
    return d->allUtf8;
}

void CVNameDecoder::decide()
{
    if (d->odd.size() == 0) {
        d->weak.clear();
        return;
    }
    const std::vector<QByteArrayView> names = d->odd.views();
    d->keepsBytes = d->family == Family::Tar && oddBytesIn(names) < leastOddBytes;
    if (auto found = cvDetectNameCharset(names, d->family))
        d->charset = std::move(found);
    for (const QByteArrayView raw : d->weak.views()) {
        if (cvIsLikelierThanUtf8(raw, *d->charset))
            d->weakInCharset.insert(raw.toByteArray());
    }
    for (const QByteArrayView raw : names)
        if (!d->keepsBytes)
            d->taken.insert(d->charset->decode(raw));
    for (const QByteArray &raw : std::as_const(d->weakInCharset))
        d->taken.insert(d->charset->decode(raw));
    d->odd.clear();
    d->weak.clear();
}

QString CVNameDecoder::charsetName() const
{
    return d->allUtf8 ? QStringLiteral("UTF-8") : QString::fromLatin1(d->charset->info().name);
}

QString CVNameDecoder::decode(QByteArrayView raw, CVNameEncoding encoding) const
{
    if (isAscii(raw)) {
        const bool sevenBitCharset = !d->allUtf8 && encoding == CVNameEncoding::Unmarked && d->isStateful();
        return sevenBitCharset && hasEscapeSequence(raw) ? d->charset->decode(raw) : QString::fromLatin1(raw);
    }
    if (!raw.isValidUtf8())
        return d->keepsBytes || encoding == CVNameEncoding::Utf8 ? fileNameFromBytes(raw)
                                                                 : d->charset->decode(raw);
    if (encoding == CVNameEncoding::Unmarked && !d->weakInCharset.isEmpty() &&
        d->weakInCharset.contains(QByteArray::fromRawData(raw.data(), raw.size())))
        return d->charset->decode(raw);
    QString text = fromUtf8WithoutMimicry(raw);
    if (!d->taken.isEmpty() && d->taken.contains(text))
        return escapedBeyondAscii(raw);
    return text;
}

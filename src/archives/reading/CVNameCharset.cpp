#include "archives/reading/CVNameCharset.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

constexpr char16_t escapeMark = u'\u2030';

// ICU's tables for "Shift_JIS", "GBK" and "EUC-KR" are the supersets that Windows really writes when
// asked by these names; GB18030 contains GBK.
constexpr CVNameCharsetInfo charsets[] = {
    {"windows-31j", "ibm-943_P15A-2003", true},
    {"EUC-JP", "euc-jp-2007", true},
    {"ISO-2022-JP", "ISO-2022-JP", true},
    {"GB18030", "gb18030", true},
    {"Big5", "windows-950-2000", true},
    {"windows-949", "windows-949-2000", true},
    {"IBM866", "ibm-866_P100-1995", false},
    {"windows-1251", "ibm-5347_P100-1998", false},
    {"KOI8-R", "ibm-878_P100-1996", false},
    {"KOI8-U", "ibm-1168_P100-2002", false},
    {"ISO-8859-5", "ibm-915_P100-1995", false},
    {"IBM855", "ibm-855_P100-1995", false},
    {"IBM437", "ibm-437_P100-1995", false},
    {"IBM850", "ibm-850_P100-1995", false},
    {"IBM852", "ibm-852_P100-1995", false},
    {"IBM865", "ibm-865_P100-1995", false},
    {"IBM861", "ibm-861_P100-1995", false},
    {"IBM775", "ibm-775_P100-1996", false},
    {"windows-1250", "ibm-5346_P100-1998", false},
    {"windows-1252", "ibm-5348_P100-1997", false},
    {"windows-1257", "ibm-9449_P100-2002", false},
    {"ISO-8859-2", "ibm-912_P100-1995", false},
    {"ISO-8859-15", "ibm-923_P100-1998", false},
    {"macintosh", "macos-0_2-10.2", false},
    {"windows-1253", "ibm-5349_P100-1998", false},
    {"IBM737", "ibm-737_P100-1997", false},
    {"ISO-8859-7", "ibm-9005_X110-2007", false},
    {"windows-1254", "ibm-5350_P100-1998", false},
    {"IBM857", "ibm-857_P100-1995", false},
    {"windows-1255", "ibm-9447_P100-2002", false},
    {"IBM862", "ibm-862_P100-1995", false},
    {"windows-1256", "ibm-9448_X100-2005", false},
    {"IBM720", "ibm-720_P100-1997", false},
    {"windows-874", "windows-874-2000", false},
};

struct ConverterCloser
{
    void operator()(UConverter *converter) const noexcept { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

bool isUsable(char32_t c)
{
    const bool control = c >= 0x80 && c < 0xA0;
    const bool privateUse = (c >= 0xE000 && c <= 0xF8FF) || c >= 0xF0000;
    const bool noCharacter = c == 0xFFFD || (c & 0xFFFE) == 0xFFFE || (c >= 0xFDD0 && c <= 0xFDEF);
    const bool half = c >= 0xD800 && c <= 0xDFFF;
    return !control && !privateUse && !noCharacter && !half;
}

bool isUsable(QStringView text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t c = text[i].unicode();
        if (text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            c = QChar::surrogateToUcs4(text[i], text[i + 1]);
            ++i;
        }
        if (!isUsable(c))
            return false;
    }
    return true;
}

bool isOneCharacter(QStringView text)
{
    return text.size() == 1 || (text.size() == 2 && text[0].isHighSurrogate());
}

bool isUpperHex(int c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

} // namespace

std::span<const CVNameCharsetInfo> cvNameCharsets()
{
    return charsets;
}

void cvAppendEscapedByte(QString &text, unsigned char byte)
{
    constexpr char digits[] = "0123456789ABCDEF";
    text += QChar(escapeMark);
    text += QLatin1Char(digits[byte >> 4]);
    text += QLatin1Char(digits[byte & 15]);
}

bool cvLooksEscaped(QStringView text)
{
    for (qsizetype at = text.indexOf(QChar(escapeMark)); at >= 0;
         at = text.indexOf(QChar(escapeMark), at + 1)) {
        if (at + 2 < text.size() && isUpperHex(text[at + 1].unicode()) && isUpperHex(text[at + 2].unicode()))
            return true;
    }
    return false;
}

struct CVNameCharset::Private
{
    CVNameCharsetInfo info;
    std::array<char16_t, 128> upper{}; ///< of a single-byte charset; 0 where nothing is assigned
    mutable std::mutex mutex;          ///< an ICU converter has state
    Converter converter;

    /// One conversion there and back; nothing when either fails or they do not agree.
    std::optional<QString> roundTrip(const char *bytes, qsizetype size) const;
    QString decodePieces(QByteArrayView raw) const;
    void fillTable();
};

std::optional<QString> CVNameCharset::Private::roundTrip(const char *bytes, qsizetype size) const
{
    QString text(size * 2 + 1, Qt::Uninitialized);
    QByteArray back;
    const std::lock_guard lock(mutex);
    UErrorCode error = U_ZERO_ERROR;
    ucnv_reset(converter.get());
    const int length = ucnv_toUChars(converter.get(), reinterpret_cast<UChar *>(text.data()),
                                     int(text.size()), bytes, int(size), &error);
    if (U_FAILURE(error) || length > text.size())
        return std::nullopt;
    text.truncate(length);
    // Escape sequences of a stateful charset make the way back longer than the text.
    back.resize(qsizetype(length) * 8 + 16);
    const int backLength = ucnv_fromUChars(converter.get(), back.data(), int(back.size()),
                                           reinterpret_cast<const UChar *>(text.constData()), length, &error);
    if (U_FAILURE(error) || backLength != size || std::memcmp(back.constData(), bytes, size_t(size)) != 0)
        return std::nullopt;
    if (!isUsable(text))
        return std::nullopt;
    return text;
}

void CVNameCharset::Private::fillTable()
{
    for (int byte = 0x80; byte < 0x100; ++byte) {
        const char bytes[] = {char(byte)};
        const auto text = roundTrip(bytes, 1);
        upper[size_t(byte - 0x80)] = text && text->size() == 1 ? text->at(0).unicode() : u'\0';
    }
    // ICU reads this byte as a Greek letter; every other program here writes the micro sign, and in
    // the Hebrew code page the table is the same.
    if (std::strcmp(info.name, "IBM437") == 0 || std::strcmp(info.name, "IBM862") == 0)
        upper[0xE6 - 0x80] = u'\u00B5';
}

/// Goes byte by byte; these charsets are prefix codes, so the shortest match is the only one.
QString CVNameCharset::Private::decodePieces(QByteArrayView raw) const
{
    constexpr qsizetype longestSequence = 4;
    const bool stateful = std::strcmp(info.name, "ISO-2022-JP") == 0;
    QString text;
    qsizetype at = 0;
    while (at < raw.size()) {
        const auto byte = static_cast<unsigned char>(raw[at]);
        if (byte < 0x80) {
            if (stateful && byte == 0x1B)
                cvAppendEscapedByte(text, byte);
            else
                text += QLatin1Char(char(byte));
            ++at;
            continue;
        }
        std::optional<QString> piece;
        qsizetype length = 1;
        for (; length <= std::min(longestSequence, raw.size() - at) && !stateful; ++length) {
            piece = roundTrip(raw.data() + at, length);
            if (piece)
                break;
        }
        const bool onlyOne = piece && isOneCharacter(*piece);
        const bool mimicsEscape = onlyOne && piece->at(0) == QChar(escapeMark) &&
                                  at + length + 1 < raw.size() && isUpperHex(raw[at + length]) &&
                                  isUpperHex(raw[at + length + 1]);
        if (onlyOne && !mimicsEscape) {
            text += *piece;
            at += length;
        } else {
            const qsizetype bad = mimicsEscape ? length : 1;
            for (qsizetype i = 0; i < bad; ++i)
                cvAppendEscapedByte(text, static_cast<unsigned char>(raw[at + i]));
            at += bad;
        }
    }
    return text;
}

CVNameCharset::CVNameCharset(std::unique_ptr<Private> p)
    : d(std::move(p))
{}

CVNameCharset::~CVNameCharset() = default;

std::unique_ptr<CVNameCharset> CVNameCharset::open(const CVNameCharsetInfo &info)
{
    UErrorCode error = U_ZERO_ERROR;
    Converter converter(ucnv_open(info.icuName, &error));
    if (U_FAILURE(error))
        return nullptr;
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
    ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
    ucnv_setFallback(converter.get(), false);
    if (U_FAILURE(error))
        return nullptr;
    auto p = std::make_unique<Private>();
    p->info = info;
    p->converter = std::move(converter);
    if (!info.multiByte)
        p->fillTable();
    return std::unique_ptr<CVNameCharset>(new CVNameCharset(std::move(p)));
}

const CVNameCharsetInfo &CVNameCharset::info() const
{
    return d->info;
}

std::optional<QString> CVNameCharset::decodeStrictly(QByteArrayView raw) const
{
    if (raw.size() > std::numeric_limits<int>::max() / 16)
        return std::nullopt;
    if (d->info.multiByte) {
        auto text = d->roundTrip(raw.data(), raw.size());
        if (text && cvLooksEscaped(*text))
            return std::nullopt;
        return text;
    }
    QString text(raw.size(), Qt::Uninitialized);
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const auto byte = static_cast<unsigned char>(raw[i]);
        const char16_t c = byte < 0x80 ? char16_t(byte) : d->upper[byte - 0x80U];
        if (byte >= 0x80 && c == 0)
            return std::nullopt;
        text[i] = QChar(c);
    }
    if (cvLooksEscaped(text))
        return std::nullopt;
    return text;
}

QString CVNameCharset::decode(QByteArrayView raw) const
{
    if (auto text = decodeStrictly(raw))
        return *std::move(text);
    if (d->info.multiByte)
        return d->decodePieces(raw);
    QString text;
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const auto byte = static_cast<unsigned char>(raw[i]);
        const char16_t c = byte < 0x80 ? char16_t(byte) : d->upper[byte - 0x80U];
        const bool mimicsEscape =
            c == escapeMark && i + 2 < raw.size() && isUpperHex(raw[i + 1]) && isUpperHex(raw[i + 2]);
        if ((byte >= 0x80 && c == 0) || mimicsEscape)
            cvAppendEscapedByte(text, byte);
        else
            text += QChar(c);
    }
    return text;
}

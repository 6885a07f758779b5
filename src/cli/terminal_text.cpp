#include "cli/terminal_text.h"

#include "util/LXDisplay.h"

#include <QString>

#include <algorithm>

#include <wchar.h>

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

// The next code point at `i`, which moves past it. Lone surrogates give U+FFFD.
char32_t nextCodePoint(QStringView text, qsizetype &i)
{
    const char16_t unit = text[i++].unicode();
    if (unit < 0xD800 || unit > 0xDFFF)
        return unit;
    if (unit <= 0xDBFF && i < text.size() && text[i].isLowSurrogate())
        return QChar::surrogateToUcs4(unit, text[i++].unicode());
    return 0xFFFD;
}

void appendUtf8(QByteArray &out, char32_t c)
{
    if (c < 0x80) {
        out.append(static_cast<char>(c));
    } else if (c < 0x800) {
        out.append(static_cast<char>(0xC0 | (c >> 6)));
        out.append(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.append(static_cast<char>(0xE0 | (c >> 12)));
        out.append(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.append(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.append(static_cast<char>(0xF0 | (c >> 18)));
        out.append(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.append(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.append(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

// Marks that make the shown order of a line differ from its characters, or that end the line.
bool disturbsLine(char32_t c)
{
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

void appendHex(QByteArray &out, char32_t c, int digits)
{
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
        out.append(hexDigits[(c >> shift) & 0xF]);
}

} // namespace

void appendTerminalText(QByteArray &out, QStringView text)
{
    // Nearly every name is plain ASCII, and a listing writes a million of them.
    const bool plain = std::all_of(text.begin(), text.end(),
                                   [](QChar c) { return c.unicode() >= 0x20 && c.unicode() < 0x7F; });
    if (!plain) {
        out.append(LXDisplay::displayEscaped(text).toUtf8());
        return;
    }
    const qsizetype at = out.size();
    out.resize(at + text.size());
    std::transform(text.begin(), text.end(), out.begin() + at,
                   [](QChar c) { return static_cast<char>(c.unicode()); });
}

QByteArray terminalText(QStringView text)
{
    QByteArray out;
    out.reserve(text.size() + 16);
    appendTerminalText(out, text);
    return out;
}

void appendJsonString(QByteArray &out, QStringView text)
{
    out.append('"');
    for (qsizetype i = 0; i < text.size();) {
        const char32_t c = nextCodePoint(text, i);
        switch (c) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\r':
            out.append("\\r");
            break;
        case '\t':
            out.append("\\t");
            break;
        default:
            // Escaped although JSON would allow the later ones as they are: the output is read on
            // terminals too.
            if (c < 0x20 || (c >= 0x7F && c < 0xA0) || disturbsLine(c)) {
                out.append("\\u");
                appendHex(out, c, 4);
            } else {
                appendUtf8(out, c);
            }
        }
    }
    out.append('"');
}

int terminalWidth(QStringView text)
{
    int cells = 0;
    for (qsizetype i = 0; i < text.size();) {
        const int width = ::wcwidth(static_cast<wchar_t>(nextCodePoint(text, i)));
        cells += width < 0 ? 1 : width;
    }
    return cells;
}

QString terminalElided(const QString &text, int cells)
{
    if (terminalWidth(text) <= cells)
        return text;
    if (cells < 1)
        return {};
    QString head;
    QString tail;
    int left = cells - 1;
    qsizetype front = 0;
    qsizetype back = text.size();
    // Takes from both ends in turn; the end of a name (its extension) tells as much as its start.
    for (bool fromFront = true; left > 0 && front < back; fromFront = !fromFront) {
        qsizetype length = 1;
        if (fromFront && front + 1 < back && text[front].isHighSurrogate())
            length = 2;
        if (!fromFront && back - 2 >= front && text[back - 1].isLowSurrogate())
            length = 2;
        const QString piece = fromFront ? text.mid(front, length) : text.mid(back - length, length);
        const int width = terminalWidth(piece);
        if (width > left)
            break;
        left -= width;
        if (fromFront) {
            head += piece;
            front += length;
        } else {
            tail.prepend(piece);
            back -= length;
        }
    }
    return head + QChar(0x2026) + tail;
}

#include "util/LXDisplay.h"

#include <QStringList>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

bool isHarmful(char32_t c)
{
    if (c < 0x20 || (c >= 0x7f && c <= 0x9f))
        return true;
    if (c < 0x61c)
        return c == 0xad; // soft hyphen: invisible, so two names could look alike
    const bool turnsDirection = c == 0x61c || c == 0x200e || c == 0x200f || (c >= 0x202a && c <= 0x202e) ||
                                (c >= 0x2066 && c <= 0x206f);
    // The joiners U+200C and U+200D are needed in ordinary words and pictures.
    const bool invisible = c == 0x200b || c == 0x2028 || c == 0x2029 || (c >= 0x2060 && c <= 0x2065) ||
                           c == 0xfeff || (c >= 0xfff9 && c <= 0xfffb);
    const bool noCharacter =
        (c >= 0xd800 && c <= 0xdfff) || (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe;
    return turnsDirection || invisible || noCharacter;
}

QString escape(char32_t c)
{
    switch (c) {
    case U'\n':
        return u"\\n"_s;
    case U'\r':
        return u"\\r"_s;
    case U'\t':
        return u"\\t"_s;
    default:
        break;
    }
    if (c < 0x100)
        return u"\\x%1"_s.arg(static_cast<uint>(c), 2, 16, QLatin1Char('0'));
    return u"\\u{%1}"_s.arg(static_cast<uint>(c), 4, 16, QLatin1Char('0'));
}

} // namespace

QString LXDisplay::displayEscaped(QStringView text)
{
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t c = text.at(i).unicode();
        qsizetype units = 1;
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            c = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
            units = 2;
        }
        if (isHarmful(c))
            result += escape(c);
        else
            result += text.mid(i, units);
        i += units - 1;
    }
    return result;
}

QString LXDisplay::fromEscaped(const QString &text)
{
    if (!text.contains(u"\\x") && !text.contains(u"\\u{"))
        return text;
    QString result;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QStringView rest = QStringView(text).sliced(i);
        bool isCode = false;
        if (rest.startsWith(u"\\x") && rest.size() >= 4) {
            const uint code = rest.sliced(2, 2).toUInt(&isCode, 16);
            if (isCode && code < 0x100) {
                result += QChar(code);
                i += 3;
                continue;
            }
        } else if (const qsizetype end = rest.indexOf(u'}'); rest.startsWith(u"\\u{") && end > 3) {
            const uint code = rest.sliced(3, end - 3).toUInt(&isCode, 16);
            if (isCode && code <= 0x10ffff) {
                if (code >= 0x10000)
                    result += QString::fromUcs4(reinterpret_cast<const char32_t *>(&code), 1);
                else
                    result += QChar(static_cast<char16_t>(code));
                i += end;
                continue;
            }
        }
        result += text.at(i);
    }
    return result;
}

QString LXDisplay::displayName(const QString &path)
{
    QStringView view(path);
    while (view.size() > 1 && view.endsWith(u'/'))
        view.chop(1);
    return displayEscaped(view.size() > 1 ? view.mid(view.lastIndexOf(u'/') + 1) : view);
}

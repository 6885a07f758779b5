#include "split/LXPropertyList.h"

#include <QStringDecoder>
#include <QXmlStreamReader>

#include <cstdint>
#include <optional>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Strings = QMap<QString, QString>;

// In the binary form many entries can refer to one text. Names of files and checksums are shorter.
constexpr std::uint64_t longestText = 4096;

LXError malformed(const QString &why)
{
    return LXError{.domain = u"LXPropertyList"_s,
                   .code = 1,
                   .description = u"The property list could not be read."_s,
                   .reason = why,
                   .suggestion = {}};
}

LXResult<Strings> fromXml(const QByteArray &data)
{
    QXmlStreamReader xml(data);
    Strings strings;
    while (!xml.atEnd() && !xml.isStartElement()) {
        // A few letters could stand for a whole text each time; no writer of property lists does that.
        if (xml.readNext() == QXmlStreamReader::DTD && !xml.entityDeclarations().isEmpty())
            return malformed(u"It declares entities."_s);
    }
    if (xml.name() != "plist"_L1)
        return malformed(u"It is no property list."_s);
    if (!xml.readNextStartElement() || xml.name() != "dict"_L1)
        return malformed(u"It holds no dictionary."_s);
    while (xml.readNextStartElement()) {
        if (xml.name() != "key"_L1)
            return malformed(u"A key is missing."_s);
        const QString key = xml.readElementText();
        if (!xml.readNextStartElement() || xml.name() != "string"_L1)
            return malformed(u"A value is no text."_s);
        if (strings.contains(key))
            return malformed(u"A key comes twice."_s);
        strings.insert(key, xml.readElementText());
    }
    // Up to its end, so that what is cut off is noticed. Nothing may be nested there: the reader keeps all
    // elements that are open.
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement)
            return malformed(u"It holds more than a dictionary."_s);
    }
    if (xml.hasError())
        return malformed(xml.errorString());
    return strings;
}

/// The binary form: objects one after another, a table of their offsets, and a trailer of 32 bytes.
/// Every number in it is compared with what is there before it is used.
class BinaryReader
{
public:
    explicit BinaryReader(const QByteArray &data)
        : m_data(data)
    {}

    std::optional<Strings> read()
    {
        constexpr qsizetype trailerBytes = 32;
        if (m_data.size() < trailerBytes + 9)
            return std::nullopt;
        m_end = m_data.size() - trailerBytes;
        m_offsetBytes = static_cast<unsigned char>(m_data[m_end + 6]);
        m_referenceBytes = static_cast<unsigned char>(m_data[m_end + 7]);
        const auto count = number(m_end + 8, 8);
        const auto top = number(m_end + 16, 8);
        const auto table = number(m_end + 24, 8);
        if (m_offsetBytes < 1 || m_offsetBytes > 8 || m_referenceBytes < 1 || m_referenceBytes > 8 ||
            table < 8 || table > static_cast<std::uint64_t>(m_end) ||
            count > (static_cast<std::uint64_t>(m_end) - table) / static_cast<std::uint64_t>(m_offsetBytes))
            return std::nullopt;
        m_count = count;
        m_table = static_cast<qsizetype>(table);
        m_end = m_table; // objects end where the table begins
        return dictionary(top);
    }

private:
    std::uint64_t number(qsizetype at, int bytes) const
    {
        std::uint64_t value = 0;
        for (int i = 0; i < bytes; ++i)
            value = value << 8 | static_cast<unsigned char>(m_data[at + i]);
        return value;
    }

    struct Object
    {
        int kind = 0;
        std::uint64_t size = 0; ///< members or characters
        qsizetype content = 0;
    };

    std::optional<Object> object(std::uint64_t index) const
    {
        if (index >= m_count)
            return std::nullopt;
        const auto offset = number(m_table + static_cast<qsizetype>(index) * m_offsetBytes, m_offsetBytes);
        if (offset < 8 || offset >= static_cast<std::uint64_t>(m_end))
            return std::nullopt;
        auto at = static_cast<qsizetype>(offset);
        const auto mark = static_cast<unsigned char>(m_data[at++]);
        Object found{.kind = mark >> 4, .size = mark & 15U, .content = at};
        if (found.size == 15) { // the size follows as a number
            if (at >= m_end)
                return std::nullopt;
            const auto sizeMark = static_cast<unsigned char>(m_data[at++]);
            const int bytes = 1 << (sizeMark & 15);
            if (sizeMark >> 4 != 1 || bytes > 8 || bytes > m_end - at)
                return std::nullopt;
            found.size = number(at, bytes);
            found.content = at + bytes;
        }
        return found;
    }

    bool fits(const Object &object, std::uint64_t unitBytes) const
    {
        return object.size <= static_cast<std::uint64_t>(m_end - object.content) / unitBytes;
    }

    std::optional<QString> text(std::uint64_t index) const
    {
        const auto found = object(index);
        if (found && found->size > longestText)
            return std::nullopt;
        if (found && found->kind == 5 && fits(*found, 1))
            return QString::fromLatin1(m_data.constData() + found->content,
                                       static_cast<qsizetype>(found->size));
        if (!found || found->kind != 6 || !fits(*found, 2))
            return std::nullopt;
        QStringDecoder decoder(QStringDecoder::Utf16BE);
        return decoder(
            QByteArrayView(m_data).sliced(found->content, static_cast<qsizetype>(found->size) * 2));
    }

    std::optional<Strings> dictionary(std::uint64_t index) const
    {
        const auto found = object(index);
        const auto reference = static_cast<std::uint64_t>(m_referenceBytes);
        if (!found || found->kind != 13 || !fits(*found, 2 * reference))
            return std::nullopt;
        Strings strings;
        const auto size = static_cast<qsizetype>(found->size);
        for (qsizetype i = 0; i < size; ++i) {
            const auto key = text(number(found->content + i * m_referenceBytes, m_referenceBytes));
            const auto value = text(number(found->content + (size + i) * m_referenceBytes, m_referenceBytes));
            if (!key || !value || strings.contains(*key))
                return std::nullopt;
            strings.insert(*key, *value);
        }
        return strings;
    }

    const QByteArray &m_data;
    qsizetype m_end = 0;
    qsizetype m_table = 0;
    std::uint64_t m_count = 0;
    int m_offsetBytes = 0;
    int m_referenceBytes = 0;
};

} // namespace

bool LXPropertyList::canHold(const QString &string)
{
    for (qsizetype i = 0; i < string.size(); ++i) {
        const QChar c = string.at(i);
        if (c.isHighSurrogate() && i + 1 < string.size() && string.at(i + 1).isLowSurrogate())
            ++i;
        else if (c.isSurrogate() || c >= u'\xfffe' || (c < u' ' && c != u'\t' && c != u'\n' && c != u'\r'))
            return false;
    }
    return true;
}

QByteArray LXPropertyList::fromStrings(const QMap<QString, QString> &strings)
{
    QByteArray data = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
    const auto element = [&data](const char *name, const QString &text) {
        QString escaped = text.toHtmlEscaped();
        escaped.replace(u'\r', "&#13;"_L1); // readers take a bare one for a newline
        data += QByteArray("\t<") + name + '>' + escaped.toUtf8() + "</" + name + ">\n";
    };
    for (auto it = strings.begin(); it != strings.end(); ++it) {
        element("key", it.key());
        element("string", it.value());
    }
    return data + "</dict>\n</plist>\n";
}

LXResult<QMap<QString, QString>> LXPropertyList::toStrings(const QByteArray &data)
{
    if (!data.startsWith("bplist0"))
        return fromXml(data);
    if (const auto strings = BinaryReader(data).read())
        return *strings;
    return malformed(u"Its binary form is damaged, or it holds more than texts."_s);
}

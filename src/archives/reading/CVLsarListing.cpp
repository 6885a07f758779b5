#include "archives/reading/CVLsarListing.h"

#include <QJsonDocument>

namespace {

// One entry is some hundred bytes, a few thousand for a file in many volumes. Far more is an attack.
constexpr qsizetype maxEntryBytes = 4 * 1024 * 1024;

QByteArrayView valueOf(QByteArrayView line)
{
    QByteArrayView value = line.sliced(line.indexOf(':') + 1).trimmed();
    if (value.endsWith(','))
        value.chop(1);
    return value;
}

QString stringOf(QByteArrayView line)
{
    const QByteArray json = '[' + valueOf(line).toByteArray() + ']';
    return QJsonDocument::fromJson(json)[0].toString();
}

} // namespace

bool CVLsarListing::add(QByteArrayView text)
{
    qsizetype start = 0;
    while (true) {
        const qsizetype end = text.indexOf('\n', start);
        if (end < 0)
            break;
        const QByteArrayView piece = text.sliced(start, end - start);
        start = end + 1;
        if (m_rest.isEmpty()) {
            if (!line(piece))
                return false;
        } else {
            m_rest.append(piece);
            const QByteArray whole = std::exchange(m_rest, {});
            if (!line(whole))
                return false;
        }
    }
    m_rest.append(text.sliced(start));
    return m_rest.size() <= maxEntryBytes;
}

bool CVLsarListing::line(QByteArrayView text)
{
    if (text.contains("requires a password"))
        m_needsPassword = true;
    if (m_inEntry) {
        const bool last = text == "    }" || text == "    },";
        m_object.append(last ? QByteArrayView("}") : text);
        m_object.append('\n');
        if (!last)
            return m_object.size() <= maxEntryBytes;
        m_inEntry = false;
        const QJsonDocument document = QJsonDocument::fromJson(m_object);
        if (!document.isObject()) {
            ++m_broken;
            return true;
        }
        return m_entry(document.object());
    }
    if (m_inContents) {
        if (text == "    {") {
            m_inEntry = true;
            m_object = "{\n";
        } else if (text.startsWith("  ]")) {
            m_inContents = false;
        }
        return true;
    }
    if (text.startsWith("  \"lsarContents\""))
        m_inContents = true;
    else if (text.startsWith("  \"lsarError\""))
        m_error = valueOf(text).toByteArray().toInt();
    else if (text.startsWith("  \"lsarEncoding\""))
        m_encoding = stringOf(text);
    else if (text.startsWith("  \"lsarConfidence\""))
        m_confidence = valueOf(text).toByteArray().toDouble();
    else if (text.startsWith("  \"lsarFormatName\""))
        m_formatName = stringOf(text);
    else if (text == "}")
        m_complete = true;
    return true;
}

#include "archives/CVTarOutput.h"

#include <QRegularExpression>

namespace {

// The total and the outcome are in the last lines, the first complaint is in the first ones.
constexpr qsizetype keptWords = 8192;
constexpr qsizetype keptBeginning = 8192;

constexpr char totalWords[] = "Total bytes written";
constexpr char failedWords[] = "Exiting with failure status due to previous errors";
constexpr char gaveUpWords[] = "Error is not recoverable: exiting now";

} // namespace

QString CVTarOutput::tarOptions()
{
    return QStringLiteral("--totals --index-file=/dev/null --quoting-style=c");
}

void CVTarOutput::add(const QString &piece)
{
    for (const char c : piece.toUtf8()) {
        if (m_escaped)
            m_escaped = false;
        else if (m_inQuotes && c == '\\')
            m_escaped = true;
        else if (c == '"')
            m_inQuotes = !m_inQuotes;
        else if (!m_inQuotes)
            m_words += c;
    }
    if (m_words.size() > 2 * keptWords)
        m_words = m_words.last(keptWords);

    // Two pieces in a row are two lines or one line in two writes: tar writes up to a colon first.
    if (m_beginning.size() >= keptBeginning)
        return;
    if (!m_beginning.isEmpty() && !m_beginning.endsWith(u'\n') && !m_beginning.endsWith(u": ") &&
        !piece.startsWith(u": "))
        m_beginning += u'\n';
    m_beginning += piece;
}

bool CVTarOutput::hasTotal() const
{
    return m_words.contains(totalWords);
}

bool CVTarOutput::hasFailed() const
{
    return m_words.contains(failedWords) || m_words.contains(gaveUpWords);
}

bool CVTarOutput::onlyDidNotShrink() const
{
    // After giving up, tar does not mention earlier complaints any more, so there must be none at all.
    static const QRegularExpression whole(
        QStringLiteral("^(\\S+: )Child returned status 2\\1Error is not recoverable: exiting now$"));
    return whole.match(QString::fromUtf8(m_words)).hasMatch();
}

QString CVTarOutput::firstComplaint() const
{
    static const QRegularExpression ratio(QStringLiteral("^-?[0-9. ]+%$|bits/byte"));
    // The compressor may speak in the middle of it.
    static const QRegularExpression total(
        QStringLiteral("^(Total bytes written: )?([0-9]+ \\([0-9.]+[A-Za-z]+, [^)]*\\))?"));
    static const QRegularExpression program(
        QStringLiteral("^(/bin/)?(sh: \\d+|\\S*(tar|gzip|bzip2|compress)): "));
    for (const QString &line : m_beginning.split(u'\n', Qt::SkipEmptyParts)) {
        QString text = line;
        text.remove(QLatin1StringView("(stdin):")); // bzip2 names it first, wherever tar just is
        text = text.remove(total).trimmed();
        if (text.isEmpty() || ratio.match(text).hasMatch() || text.contains(QLatin1String(failedWords)))
            continue;
        text.remove(program);
        return text.trimmed();
    }
    return {};
}

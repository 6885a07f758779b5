#include "archives/reading/CVUnarOutput.h"

namespace {

constexpr QByteArrayView prompt = "Password (will not be shown): ";
constexpr QByteArrayView dots = "... ";
// Longer than any path the system can make; the rest of such a line is of no use.
constexpr qsizetype maxLineBytes = 256 * 1024;

QByteArray inBrackets(QByteArrayView text)
{
    const qsizetype open = text.indexOf('(');
    const qsizetype close = text.lastIndexOf(')');
    return open >= 0 && close > open ? text.sliced(open + 1, close - open - 1).toByteArray()
                                     : text.toByteArray();
}

} // namespace

void CVUnarOutput::add(QByteArrayView text)
{
    m_rest.append(text);
    qsizetype start = 0;
    for (qsizetype end; (end = m_rest.indexOf('\n', start)) >= 0; start = end + 1) {
        QByteArray one = m_rest.mid(start, end - start);
        if (one.endsWith('\r'))
            one.chop(1);
        line(std::move(one));
    }
    m_rest.remove(0, start);
    if (m_rest.size() > maxLineBytes)
        m_rest.truncate(maxLineBytes);
}

bool CVUnarOutput::isPrompting() const
{
    return m_rest.endsWith(prompt);
}

void CVUnarOutput::line(QByteArray text)
{
    // The answer to a prompt is not echoed, and what follows may stand on the prompt's own line.
    if (text.startsWith(prompt.toByteArray()))
        text.remove(0, prompt.size());
    if (text.startsWith("Archive parsing failed!") || text.startsWith("Couldn't open archive")) {
        m_archiveFailure = inBrackets(text);
        return;
    }
    if (!text.startsWith("  ")) {
        if (m_pending.isEmpty())
            return;
        if (text == "OK.") {
            m_results.push_back({m_pending, {}, true});
            m_pending.clear();
        } else if (text.startsWith("Failed! (")) {
            m_results.push_back({m_pending, inBrackets(text), false});
            m_pending.clear();
        }
        return;
    }
    const qsizetype end = text.lastIndexOf(dots);
    if (end < 0)
        return;
    const QByteArray outcome = text.mid(end + dots.size());
    const QByteArray entry = text.mid(2, end - 2);
    if (outcome == "OK.")
        m_results.push_back({entry, {}, true});
    else if (outcome.startsWith("Failed! ("))
        m_results.push_back({entry, inBrackets(outcome), false});
    else if (outcome.startsWith("Skipped"))
        m_results.push_back({entry, outcome, false});
    else
        m_pending = entry;
}

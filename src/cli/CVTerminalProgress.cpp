#include "cli/CVTerminalProgress.h"

#include "cli/terminal_text.h"
#include "util/LXBytesValueTransformer.h"

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

QString CVTerminalProgress::duration(double seconds)
{
    constexpr double longest = 100.0 * 3600;
    if (!std::isfinite(seconds) || seconds < 0 || seconds >= longest)
        return {};
    const auto whole = static_cast<qint64>(std::ceil(seconds));
    const auto two = [](qint64 n) { return QString::number(n).rightJustified(2, u'0'); };
    if (whole >= 3600)
        return u"%1:%2:%3"_s.arg(whole / 3600).arg(two(whole / 60 % 60), two(whole % 60));
    return u"%1:%2"_s.arg(whole / 60).arg(two(whole % 60));
}

QString CVTerminalProgress::line(int cells) const
{
    const bool known = total > 0;
    const double share = known ? std::clamp(done / total, 0.0, 1.0) : 0;
    const auto bytes = [](double n) { return LXBytesValueTransformer::formatBytes(static_cast<qint64>(n)); };

    QString amount = inBytes ? bytes(std::max(done, 0.0)) : QString();
    if (known && inBytes)
        amount += u" of "_s + bytes(total);
    QString speed;
    QString left;
    if (rate > 0) {
        if (inBytes)
            speed = bytes(rate) + u"/s"_s;
        if (known && done < total) {
            const QString time = duration((total - done) / rate);
            if (!time.isEmpty())
                left = time + u" left"_s;
        }
    }
    constexpr int barCells = 20;
    const int filled = static_cast<int>(share * barCells);
    const QString percent =
        known ? QString::number(static_cast<int>(share * 100)).rightJustified(3) + u'%' : QString();
    const QString bar =
        known ? u'[' + QString(filled, u'#') + QString(barCells - filled, u'.') + u']' : QString();

    // In the order of the line, each with how soon it goes when the line is narrow (0 stays).
    struct Piece
    {
        QString text;
        int goes;
    };
    Piece pieces[] = {{bar, 3}, {percent, 0}, {amount, known ? 2 : 0}, {speed, 4}, {left, 1}};
    constexpr int shortestTitle = 12;
    const auto width = [&pieces] {
        int sum = 0;
        for (const Piece &piece : pieces) {
            if (!piece.text.isEmpty())
                sum += static_cast<int>(piece.text.size()) + 2;
        }
        return sum;
    };
    const int wanted = title.isEmpty() ? 0 : std::min(terminalWidth(title), shortestTitle);
    for (int rank = 4; rank > 0 && width() + wanted > cells; --rank) {
        for (Piece &piece : pieces) {
            if (piece.goes == rank)
                piece.text.clear();
        }
    }
    QString result;
    for (const Piece &piece : pieces) {
        if (!piece.text.isEmpty())
            result += piece.text + u"  "_s;
    }
    result += terminalElided(title, cells - static_cast<int>(result.size()));
    while (result.endsWith(u' '))
        result.chop(1);
    return terminalElided(result, cells);
}

#include "ui/support/OutsideDrag.h"

#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QTest>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int patience = 15'000; // ms

QByteArray waitForLine(QProcess &process, const QByteArray &start)
{
    QByteArray line;
    const bool came = QTest::qWaitFor(
        [&] {
            while (process.canReadLine()) {
                line = process.readLine().trimmed();
                if (line.startsWith(start))
                    return true;
            }
            return process.state() == QProcess::NotRunning;
        },
        patience);
    return came && line.startsWith(start) ? line : QByteArray();
}

QStringList moveTo(const QPoint &point)
{
    return {u"mousemove"_s, QString::number(point.x()), QString::number(point.y()), u"sleep"_s, u"0.05"_s};
}

void startDrag(QProcess &pointer, const QPoint &from, const QPoint &to)
{
    QStringList words = moveTo(from);
    words << u"mousedown"_s << u"1"_s;
    // A drag begins after some way, and a target answers moves, not jumps.
    constexpr int steps = 8;
    for (int step = 1; step <= steps; ++step)
        words << moveTo(from + (to - from) * step / steps);
    words << moveTo(to + QPoint(3, 2)) << moveTo(to) << u"sleep"_s << u"0.8"_s << u"mouseup"_s << u"1"_s;
    pointer.start(u"xdotool"_s, words);
}

std::optional<QPoint> pointOf(const QByteArray &line)
{
    const QList<QByteArray> words = line.split(' ');
    if (words.size() != 3)
        return std::nullopt;
    return QPoint(words[1].toInt(), words[2].toInt());
}

} // namespace

bool OutsideDrag::isPossible()
{
    return QGuiApplication::platformName() == u"xcb";
}

bool OutsideDrag::drop(const QStringList &paths, const QPoint &globalTarget)
{
    QProcess source;
    source.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    source.start(QStringLiteral(CORVANE_DRAG_SOURCE), paths);
    const auto from = pointOf(waitForLine(source, "ready"));
    if (!from)
        return false;
    QProcess pointer;
    startDrag(pointer, *from, globalTarget);
    const bool isDropped = waitForLine(source, "dropped") == "dropped copy";
    // Whoever ends earlier takes the files away again before they were asked for.
    const bool isTaken = isDropped && !waitForLine(source, "taken").isEmpty();
    pointer.waitForFinished(patience);
    source.kill();
    source.waitForFinished(patience);
    return isTaken;
}

QStringList OutsideDrag::takeFrom(const QPoint &globalSource)
{
    QProcess target;
    target.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    target.start(QStringLiteral(CORVANE_DROP_TARGET), QStringList());
    const auto to = pointOf(waitForLine(target, "ready"));
    if (!to)
        return {};
    QProcess pointer;
    startDrag(pointer, globalSource, *to);
    QStringList taken;
    bool ended = false;
    (void)QTest::qWaitFor(
        [&] {
            while (target.canReadLine()) {
                const QByteArray line = target.readLine().trimmed();
                ended = ended || line == "end";
                if (line.startsWith("took "))
                    taken.append(QString::fromUtf8(line.mid(5)));
            }
            return ended || target.state() == QProcess::NotRunning;
        },
        patience);
    pointer.waitForFinished(patience);
    target.kill();
    target.waitForFinished(patience);
    return taken;
}

#include "ui/progress/CVProgressText.h"

#include "util/LXBytesValueTransformer.h"

#include <QCoreApplication>

#include <algorithm>
#include <cmath>

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVProgressText", text);
}

} // namespace

QString CVProgressText::timeLeft(double seconds)
{
    constexpr double minute = 60;
    constexpr double hour = 60 * minute;
    const auto rounded = [](double value) { return QString::number(std::lround(value)); };
    if (seconds < 7.5)
        return tr("A few seconds left");
    if (seconds < 57.5)
        return tr("About %1 seconds left").arg(rounded(seconds / 5).toInt() * 5);
    if (seconds < 1.5 * minute)
        return tr("About a minute left");
    if (seconds < 57.5 * minute) {
        const double minutes = seconds / minute;
        return tr("About %1 minutes left").arg(rounded(minutes < 10 ? minutes : std::round(minutes / 5) * 5));
    }
    if (seconds < 1.5 * hour)
        return tr("About an hour left");
    if (seconds < 24 * hour)
        return tr("About %1 hours left").arg(rounded(seconds / hour));
    return tr("More than a day left");
}

QString CVProgressText::bytes(double done, double total, double perSecond)
{
    const auto size = [](double n) {
        return LXBytesValueTransformer::formatBytes(static_cast<qint64>(std::max(n, 0.0)));
    };
    QString text = total > 0 ? tr("%1 of %2").arg(size(std::min(done, total)), size(total)) : size(done);
    if (perSecond >= 1)
        text = tr("%1, %2/s").arg(text, size(perSecond));
    return text;
}

QString CVProgressText::percent(double done, double total)
{
    if (!(total > 0))
        return {};
    return tr("%1 %").arg(static_cast<int>(std::clamp(done / total, 0.0, 1.0) * 100));
}

QString CVProgressText::batch(const CVBatchPosition &position)
{
    return tr("Archive %1 of %2").arg(QString::number(position.number), QString::number(position.count));
}

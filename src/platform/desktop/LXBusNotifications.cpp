#include "platform/desktop/LXBusNotifications.h"

#include "platform/desktop/LXSessionBus.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"

#include <QDBusMessage>
#include <QDBusPendingCall>

using namespace Qt::StringLiterals;

namespace {

/// Nobody reads more in a bubble; file names alone can have 255 characters.
constexpr qsizetype longestText = 600;

// Ends of lines are ours; in names they are escaped already.
QString escapedLines(const QString &text)
{
    QStringList lines = text.split(u'\n');
    for (QString &line : lines)
        line = LXDisplay::displayEscaped(line);
    return lines.join(u'\n');
}

QString cut(QString shown)
{
    if (shown.size() <= longestText)
        return shown;
    shown.truncate(longestText - 1);
    if (shown.back().isHighSurrogate())
        shown.chop(1);
    return shown + QChar(u'…');
}

void notify(const QString &title, const QString &text)
{
    const std::optional<QDBusConnection> bus = LXSessionBus::connection();
    if (!bus)
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(u"org.freedesktop.Notifications"_s,
                                                       u"/org/freedesktop/Notifications"_s,
                                                       u"org.freedesktop.Notifications"_s, u"Notify"_s);
    // The body may be read as markup, the title never is.
    call << u"Corvane"_s << uint(0) << u"corvane"_s << cut(LXDisplay::displayEscaped(title))
         << cut(escapedLines(text)).toHtmlEscaped() << QStringList()
         << QVariantMap{{u"desktop-entry"_s, u"org.corvane.Corvane"_s}} << -1;
    bus->asyncCall(call, static_cast<int>(LXSessionBus::answerLimit.count()));
}

} // namespace

void LXBusNotifications::post(const QString &title, const QString &text)
{
    if (LXMainThread::isCurrent())
        notify(title, text);
    else
        LXMainThread::post([title, text] { notify(title, text); });
}

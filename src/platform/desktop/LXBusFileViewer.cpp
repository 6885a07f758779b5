#include "platform/desktop/LXBusFileViewer.h"

#include "platform/LXFileUri.h"
#include "platform/desktop/LXDetached.h"
#include "platform/desktop/LXGioApplications.h"
#include "platform/desktop/LXSessionBus.h"
#include "util/LXMainThread.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/// Nobody looks at more selected files, and a message on the bus has a limit.
constexpr qsizetype mostRevealed = 1000;

void openFolderOf(const QString &path)
{
    const QString folder = path.left(std::max<qsizetype>(1, path.lastIndexOf(u'/')));
    LXDetached::run([folder] { LXGioApplications::launch(u"inode/directory"_s, folder); });
}

void show(const QStringList &paths)
{
    const std::optional<QDBusConnection> bus = LXSessionBus::connection();
    if (!bus) {
        openFolderOf(paths.first());
        return;
    }
    QStringList uris;
    for (const QString &path : paths)
        uris.append(QString::fromLatin1(LXFileUri::uriOfPath(path)));
    QDBusMessage call =
        QDBusMessage::createMethodCall(u"org.freedesktop.FileManager1"_s, u"/org/freedesktop/FileManager1"_s,
                                       u"org.freedesktop.FileManager1"_s, u"ShowItems"_s);
    call << uris << QString();
    // The bus starts the file manager where it is not running, which may take longer than answers do.
    auto *watcher = new QDBusPendingCallWatcher(bus->asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [path = paths.first()](QDBusPendingCallWatcher *done) {
                         if (done->isError() && LXSessionBus::reachedNobody(done->error()))
                             openFolderOf(path);
                         done->deleteLater();
                     });
}

} // namespace

void LXBusFileViewer::reveal(const QStringList &paths)
{
    QStringList absolute;
    for (const QString &path : paths) {
        if (path.startsWith(u'/') && absolute.size() < mostRevealed)
            absolute.append(path);
    }
    if (absolute.isEmpty())
        return;
    if (LXMainThread::isCurrent())
        show(absolute);
    else
        LXMainThread::post([absolute] { show(absolute); });
}

// drop-target: a window of another program that files are dropped into. It says "ready X Y" (where to let go)
// and, after a drop, "took PATH" for every file that it could read then, and "end".
#include <QApplication>
#include <QDropEvent>
#include <QFileInfo>
#include <QLabel>
#include <QMimeData>
#include <QTimer>
#include <QUrl>

#include <cstdio>

namespace {

class Target final : public QLabel
{
public:
    Target()
        : QLabel(QStringLiteral("drop here"))
    {
        setAcceptDrops(true);
    }

protected:
    void dragEnterEvent(QDragEnterEvent *event) override
    {
        if (event->mimeData()->hasFormat(QStringLiteral("text/uri-list")))
            event->acceptProposedAction();
    }
    void dropEvent(QDropEvent *event) override
    {
        for (const QUrl &url : event->mimeData()->urls()) {
            if (QFileInfo(url.toLocalFile()).isReadable())
                std::printf("took %s\n", qUtf8Printable(url.toLocalFile()));
        }
        std::puts("end");
        std::fflush(stdout);
        event->acceptProposedAction();
    }
};

} // namespace

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    Target target;
    target.setGeometry(1250, 880, 120, 80);
    target.show();
    QTimer::singleShot(400, &target, [&target] {
        const QPoint middle = target.mapToGlobal(target.rect().center());
        std::printf("ready %d %d\n", middle.x(), middle.y());
        std::fflush(stdout);
    });
    return QApplication::exec();
}

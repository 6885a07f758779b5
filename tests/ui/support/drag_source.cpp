// drag-source FILE…: a small window of another program that files are dragged out of. It says "ready X Y"
// (where to press) when it is on the screen, and "dropped copy" or "dropped nothing" when a drag has ended.
#include <QApplication>
#include <QDrag>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QTimer>
#include <QUrl>

#include <cstdio>

namespace {

class Source final : public QLabel
{
public:
    explicit Source(const QByteArray &uris)
        : QLabel(QStringLiteral("drag me"))
        , m_uris(uris)
    {}

protected:
    void mousePressEvent(QMouseEvent *) override {}
    void mouseMoveEvent(QMouseEvent *) override
    {
        auto *mime = new QMimeData;
        mime->setData(QStringLiteral("text/uri-list"), m_uris);
        auto *drag = new QDrag(this);
        drag->setMimeData(mime);
        connect(drag, &QObject::destroyed, this, [] {
            std::puts("taken");
            std::fflush(stdout);
        });
        const Qt::DropAction action = drag->exec(Qt::CopyAction);
        std::puts(action == Qt::CopyAction ? "dropped copy" : "dropped nothing");
        std::fflush(stdout);
    }

private:
    const QByteArray m_uris;
};

} // namespace

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    QByteArray uris;
    for (int i = 1; i < argc; ++i)
        uris += "file://" + QByteArray(argv[i]).toPercentEncoding("/") + "\r\n";
    Source source(uris);
    source.setGeometry(4, 40, 90, 60);
    source.show();
    // Only when the window manager has placed it do its coordinates hold.
    QTimer::singleShot(400, &source, [&source] {
        const QPoint middle = source.mapToGlobal(source.rect().center());
        std::printf("ready %d %d\n", middle.x(), middle.y());
        std::fflush(stdout);
    });
    return QApplication::exec();
}

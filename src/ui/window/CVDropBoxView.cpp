#include "ui/window/CVDropBoxView.h"

#include "platform/LXFileUri.h"
#include "ui/base/CVTheme.h"
#include "ui/window/CVDropBoxPicture.h"

#include <QDragEnterEvent>
#include <QLabel>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QSet>
#include <QTimer>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr double frameRadius = 1.5 * CVTheme::unit;
constexpr int restoreMilliseconds = 3000;

} // namespace

CVDropBoxView::CVDropBoxView(QWidget *parent)
    : QWidget(parent)
    , m_picture(new CVDropBoxPicture(this))
    , m_title(new QLabel(tr("Drop files and folders here"), this))
    , m_subtitle(new QLabel(tr("Archives are opened. Everything else can be packed or split."), this))
    , m_button(new QPushButton(tr("Ch&oose Files…"), this))
{
    setObjectName(u"dropBox"_s);
    setAccessibleName(tr("Drop box"));
    setAccessibleDescription(tr("Drop files and folders here, paste them, or choose them"));
    setAcceptDrops(true);
    for (QLabel *label : {m_title, m_subtitle}) {
        label->setTextFormat(Qt::PlainText);
        label->setAlignment(Qt::AlignCenter);
        label->setWordWrap(true);
    }
    m_button->setObjectName(u"chooseFiles"_s);
    m_button->setAccessibleName(tr("Choose files"));
    m_button->setAutoDefault(true); // Return presses it where it has the focus
    connect(m_button, &QPushButton::clicked, this, &CVDropBoxView::chooseFiles);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(4 * CVTheme::unit, 3 * CVTheme::unit, 4 * CVTheme::unit, 4 * CVTheme::unit);
    layout->setSpacing(CVTheme::unit / 2);
    layout->addStretch();
    layout->addWidget(m_picture, 0, Qt::AlignHCenter);
    layout->addWidget(m_title);
    layout->addWidget(m_subtitle);
    layout->addSpacing(CVTheme::unit);
    layout->addWidget(m_button, 0, Qt::AlignHCenter);
    layout->addStretch();
    applyTheme();
}

void CVDropBoxView::reset()
{
    setDraggedOver(false);
    m_picture->reset();
}

QStringList CVDropBoxView::localFiles(const QMimeData *data)
{
    QStringList paths;
    QSet<QString> known;
    const QList<QByteArray> lines = data->data(u"text/uri-list"_s).split('\n');
    for (const QByteArray &line : lines) {
        const auto path = LXFileUri::pathOfUri(QString::fromUtf8(line.trimmed()));
        if (path && !known.contains(*path)) {
            known.insert(*path);
            paths.append(*path);
        }
    }
    return paths;
}

void CVDropBoxView::setDraggedOver(bool over)
{
    if (m_isDraggedOver == over)
        return;
    m_isDraggedOver = over;
    if (over)
        m_picture->startAnimation();
    update();
}

void CVDropBoxView::dragEnterEvent(QDragEnterEvent *event)
{
    // Looking at the names themselves can take long for a great many; the format is enough here.
    if (!event->mimeData()->hasFormat(u"text/uri-list"_s))
        return;
    event->setDropAction(Qt::CopyAction);
    event->accept();
    setDraggedOver(true);
}

void CVDropBoxView::dragMoveEvent(QDragMoveEvent *event)
{
    // Never a move: the source would delete what it thinks has been taken.
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void CVDropBoxView::dragLeaveEvent(QDragLeaveEvent *)
{
    setDraggedOver(false);
    m_picture->stopAnimation();
}

void CVDropBoxView::dropEvent(QDropEvent *event)
{
    setDraggedOver(false);
    const QStringList paths = localFiles(event->mimeData());
    if (paths.isEmpty()) {
        m_picture->stopAnimation();
        return;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
    m_picture->sink();
    // Files that lead to no other screen leave an empty box otherwise.
    QTimer::singleShot(restoreMilliseconds, m_picture, &CVDropBoxPicture::stopAnimation);
    Q_EMIT filesDropped(paths);
}

void CVDropBoxView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor accent = CVTheme::accentColor(palette());
    QColor fill = m_isDraggedOver ? accent : palette().color(QPalette::Base);
    fill.setAlphaF(m_isDraggedOver ? 0.12F : 0.6F);
    QPen pen(m_isDraggedOver ? accent : CVTheme::lineColor(palette()), 2);
    pen.setDashPattern({4, 3});
    pen.setCapStyle(Qt::RoundCap);
    painter.setPen(pen);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()).marginsRemoved(QMarginsF(CVTheme::margin, CVTheme::margin,
                                                                    CVTheme::margin, CVTheme::margin)),
                            frameRadius, frameRadius);
}

void CVDropBoxView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyTheme();
    QWidget::changeEvent(event);
}

void CVDropBoxView::applyTheme()
{
    m_title->setFont(CVTheme::titleFont());
    QPalette second = palette();
    second.setColor(QPalette::WindowText, CVTheme::subtitleColor(second));
    m_subtitle->setPalette(second);
}

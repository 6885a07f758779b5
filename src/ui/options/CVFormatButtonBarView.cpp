#include "ui/options/CVFormatButtonBarView.h"

#include "ui/base/CVTheme.h"
#include "ui/options/CVFormatButton.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QPropertyAnimation>
#include <QScrollArea>
#include <QScrollBar>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>

namespace {

constexpr int gap = CVTheme::unit / 2;
constexpr int scrollMs = 180;
constexpr int fewestVisible = 4;

/// The arrow keys choose; scrolling follows from that.
class RowArea final : public QScrollArea
{
public:
    using QScrollArea::QScrollArea;

protected:
    void keyPressEvent(QKeyEvent *event) override { event->ignore(); }
};

} // namespace

CVFormatButtonBarView::CVFormatButtonBarView(QWidget *parent)
    : QWidget(parent)
    , m_area(new RowArea(this))
    , m_row(new QWidget)
    , m_layout(new QHBoxLayout(m_row))
    , m_left(makeArrow(Qt::LeftArrow, -1, tr("Formats further left")))
    , m_right(makeArrow(Qt::RightArrow, 1, tr("Formats further right")))
    , m_scrolling(new QPropertyAnimation(this))
{
    setAccessibleName(tr("Format"));
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(gap);
    m_area->setWidget(m_row);
    m_area->setWidgetResizable(true);
    m_area->setFrameShape(QFrame::NoFrame);
    m_area->setFocusPolicy(Qt::NoFocus);
    m_area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_area->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // The row shows the window behind it.
    m_area->viewport()->setAutoFillBackground(false);
    m_row->setAutoFillBackground(false);
    m_area->viewport()->installEventFilter(this);
    QScrollBar *bar = m_area->horizontalScrollBar();
    m_scrolling->setTargetObject(bar);
    m_scrolling->setPropertyName("value");
    m_scrolling->setDuration(scrollMs);
    m_scrolling->setEasingCurve(QEasingCurve::OutCubic);
    connect(bar, &QScrollBar::valueChanged, this, &CVFormatButtonBarView::updateArrows);
    connect(bar, &QScrollBar::rangeChanged, this, [this] {
        updateArrows();
        // With another width, what is chosen may lie outside.
        if (const CVFormatButton *button = selectedButton())
            scrollTo(targetFor(button), false);
    });
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QToolButton *CVFormatButtonBarView::makeArrow(Qt::ArrowType type, int direction, const QString &name)
{
    auto *arrow = new QToolButton(this);
    arrow->setArrowType(type);
    arrow->setAutoRaise(true);
    arrow->setAutoRepeat(true);
    arrow->setFocusPolicy(Qt::NoFocus); // the arrow keys choose, and what is chosen is scrolled to
    arrow->setAccessibleName(name);
    arrow->setToolTip(name);
    arrow->hide();
    connect(arrow, &QToolButton::clicked, this, [this, direction] {
        const QScrollBar *bar = m_area->horizontalScrollBar();
        const int step = 2 * (buttonWidth() + gap);
        scrollTo(mirrored(mirrored(bar->value()) + direction * step), true);
    });
    return arrow;
}

CVFormatButton *CVFormatButtonBarView::addButtonWithIdentifier(int identifier, const QIcon &image,
                                                               const QString &name)
{
    auto *button = new CVFormatButton(identifier, image, name, m_row);
    m_layout->addWidget(button);
    button->show(); // now, as it may be given the focus at once
    m_buttons.append(button);
    connect(button, &QAbstractButton::clicked, this, [this, button] {
        if (m_delegate)
            m_delegate->changeArchiveType(button);
    });
    updateGeometry();
    layOut();
    return button;
}

void CVFormatButtonBarView::removeAllButtons()
{
    for (CVFormatButton *button : std::as_const(m_buttons)) {
        m_layout->removeWidget(button);
        button->hide();
        button->deleteLater(); // it may be the one that was pressed
    }
    m_buttons.clear();
    updateGeometry();
}

void CVFormatButtonBarView::deselectAllButtons()
{
    for (CVFormatButton *button : std::as_const(m_buttons))
        button->setSelected(false);
}

CVFormatButton *CVFormatButtonBarView::selectedButton() const
{
    const auto found =
        std::ranges::find_if(m_buttons, [](const CVFormatButton *button) { return button->isSelected(); });
    return found == m_buttons.cend() ? nullptr : *found;
}

CVFormatButton *CVFormatButtonBarView::firstButtonWithIdentifier(int identifier) const
{
    const auto found = std::ranges::find_if(
        m_buttons, [identifier](const CVFormatButton *button) { return button->identifier() == identifier; });
    return found == m_buttons.cend() ? nullptr : *found;
}

bool CVFormatButtonBarView::isFirstButton(const CVFormatButton *button) const
{
    return !m_buttons.isEmpty() && m_buttons.first() == button;
}

bool CVFormatButtonBarView::isLastButton(const CVFormatButton *button) const
{
    return !m_buttons.isEmpty() && m_buttons.last() == button;
}

CVFormatButton *CVFormatButtonBarView::nextButtonForButton(CVFormatButton *button) const
{
    const qsizetype index = m_buttons.indexOf(button);
    return index < 0 || isLastButton(button) ? button : m_buttons.at(index + 1);
}

CVFormatButton *CVFormatButtonBarView::previousButtonForButton(CVFormatButton *button) const
{
    const qsizetype index = m_buttons.indexOf(button);
    return index < 0 || isFirstButton(button) ? button : m_buttons.at(index - 1);
}

// From right to left, the value of a scroll bar counts from the right.
int CVFormatButtonBarView::mirrored(int value) const
{
    return layoutDirection() == Qt::RightToLeft ? m_area->horizontalScrollBar()->maximum() - value : value;
}

int CVFormatButtonBarView::targetFor(const CVFormatButton *button) const
{
    const QScrollBar *bar = m_area->horizontalScrollBar();
    if (isFirstButton(button))
        return bar->minimum();
    if (isLastButton(button))
        return bar->maximum();
    // A piece of the neighbour shows that there is more.
    const int peek = button->width() / 2;
    const int left = button->x() - peek;
    const int right = button->x() + button->width() + peek - m_area->viewport()->width();
    return mirrored(std::clamp(mirrored(bar->value()), std::min(right, left), left));
}

void CVFormatButtonBarView::scrollToButton(CVFormatButton *button)
{
    if (!m_buttons.contains(button))
        return;
    m_layout->activate();
    scrollTo(targetFor(button), isVisible());
}

void CVFormatButtonBarView::scrollTo(int value, bool animated)
{
    QScrollBar *bar = m_area->horizontalScrollBar();
    m_scrolling->stop();
    if (!animated || CVTheme::reducedMotion()) {
        bar->setValue(value);
        return;
    }
    m_scrolling->setStartValue(bar->value());
    m_scrolling->setEndValue(std::clamp(value, bar->minimum(), bar->maximum()));
    m_scrolling->start();
}

int CVFormatButtonBarView::buttonWidth() const
{
    int width = 0;
    for (const CVFormatButton *button : m_buttons)
        width = std::max(width, button->sizeHint().width());
    return width;
}

QSize CVFormatButtonBarView::sizeHint() const
{
    const int count = static_cast<int>(m_buttons.size());
    return {std::max(0, count * (buttonWidth() + gap) - gap),
            m_buttons.isEmpty() ? 0 : m_buttons.first()->sizeHint().height()};
}

QSize CVFormatButtonBarView::minimumSizeHint() const
{
    const QSize all = sizeHint();
    const int some = 2 * m_left->sizeHint().width() + fewestVisible * (buttonWidth() + gap);
    return {std::min(some, all.width()), all.height()};
}

void CVFormatButtonBarView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    layOut();
}

void CVFormatButtonBarView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::LayoutDirectionChange) {
        updateGeometry();
        layOut();
    }
}

void CVFormatButtonBarView::layOut()
{
    const int each = buttonWidth();
    for (CVFormatButton *button : std::as_const(m_buttons))
        button->setFixedWidth(each);
    const bool fits = sizeHint().width() <= width();
    const int arrow = fits ? 0 : m_left->sizeHint().width();
    m_left->setGeometry(0, 0, arrow, height());
    m_right->setGeometry(width() - arrow, 0, arrow, height());
    m_left->setVisible(!fits);
    m_right->setVisible(!fits);
    m_layout->setAlignment(fits ? Qt::AlignHCenter : Qt::Alignment());
    m_area->setGeometry(arrow, 0, width() - 2 * arrow, height());
    updateArrows();
    m_layout->activate();
    if (const CVFormatButton *button = selectedButton())
        scrollTo(targetFor(button), false);
}

void CVFormatButtonBarView::updateArrows()
{
    const QScrollBar *bar = m_area->horizontalScrollBar();
    m_left->setEnabled(mirrored(bar->value()) > 0);
    m_right->setEnabled(mirrored(bar->value()) < bar->maximum());
}

bool CVFormatButtonBarView::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() != QEvent::Wheel)
        return QWidget::eventFilter(watched, event);
    const auto *wheel = static_cast<QWheelEvent *>(event);
    const QPoint delta = wheel->pixelDelta().isNull() ? wheel->angleDelta() / 2 : wheel->pixelDelta();
    const int by = delta.x() != 0 ? delta.x() : delta.y();
    scrollTo(mirrored(mirrored(m_area->horizontalScrollBar()->value()) - by), false);
    return true;
}

#include "ui/progress/CVAlertViewController.h"

#include "ui/base/CVTheme.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QScrollArea>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int pictureSize = 48;
/// The height without the two texts.
constexpr int heightAround = 217;
/// What is longer scrolls.
constexpr int greatestHeight = 560;

/// Names were escaped when the text was made; whatever else has got in is harmless from here on. The lines
/// that the text was written in stay.
QString shownText(const QString &text)
{
    QStringList lines = text.trimmed().split(u'\n');
    for (QString &line : lines)
        line = LXDisplay::displayEscaped(line);
    return lines.join(u'\n');
}

QLabel *textLabel()
{
    auto *label = new QLabel;
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignLeading | Qt::AlignTop);
    // By mouse alone: it should be no stop on the way to the buttons.
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // A name without blanks must not make the window as wide as it is long.
    label->setMinimumWidth(1);
    return label;
}

} // namespace

CVAlertViewController::CVAlertViewController(QObject *parent)
    : CVViewController(parent)
    , m_picture(new QLabel)
    , m_message(textLabel())
    , m_informativeText(textLabel())
    , m_scroller(new QScrollArea)
    , m_default(new QPushButton)
    , m_cancel(new QPushButton(tr("&Cancel")))
{
    auto *texts = new QWidget;
    auto *textLayout = new QVBoxLayout(texts);
    textLayout->setContentsMargins(0, 0, CVTheme::spacing, 0);
    textLayout->setSpacing(CVTheme::spacing);
    textLayout->addWidget(m_message);
    textLayout->addWidget(m_informativeText);
    textLayout->addStretch();
    m_scroller->setWidget(texts);
    m_scroller->setWidgetResizable(true);
    m_scroller->setFrameShape(QFrame::NoFrame);
    m_scroller->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_scroller->viewport()->setAutoFillBackground(false);
    texts->setAutoFillBackground(false);

    m_default->setDefault(true);
    connect(m_default, &QPushButton::clicked, this, [this] { endAlert(defaultResult); });
    connect(m_cancel, &QPushButton::clicked, this, [this] { endAlert(cancelResult); });
    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(CVTheme::spacing);
    buttons->addStretch();
    buttons->addWidget(m_cancel);
    buttons->addWidget(m_default);

    auto *view = new QWidget;
    auto *layout = new QGridLayout(view);
    const int side = 3 * CVTheme::unit;
    layout->setContentsMargins(side, side, side, CVTheme::margin);
    layout->setHorizontalSpacing(CVTheme::margin);
    layout->setVerticalSpacing(CVTheme::margin);
    layout->addWidget(m_picture, 0, 0, Qt::AlignTop);
    layout->addWidget(m_scroller, 0, 1);
    layout->addLayout(buttons, 1, 0, 1, 2);
    layout->setColumnStretch(1, 1);
    layout->setRowStretch(0, 1);
    setView(view);
    view->installEventFilter(this);

    addAction(u"done"_s, tr("OK"), u"tool/done"_s, QKeySequence(Qt::Key_Return), [this] {
        // Return means the button that the person has gone to.
        endAlert(m_cancel->hasFocus() ? cancelResult : defaultResult);
    });
    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape), [this] { stop(); });
    applyStyle();
    prepareAlert(false, {}, {}, {});
}

void CVAlertViewController::applyStyle()
{
    const int side = CVTheme::scaled(pictureSize);
    const QString name = m_showCancelButton ? u"tool/question"_s : u"tool/warning"_s;
    m_picture->setPixmap(CVTheme::icon(name).pixmap(QSize(side, side), m_picture->devicePixelRatioF()));
    m_message->setFont(CVTheme::titleFont());
}

void CVAlertViewController::prepareAlert(bool withCancelButton, const QString &message,
                                         const QString &informativeText, const QString &defaultButtonLabel)
{
    m_showCancelButton = withCancelButton;
    m_cancel->setVisible(withCancelButton);
    action(u"cancel"_s)->setVisible(withCancelButton);
    m_message->setText(shownText(message));
    m_informativeText->setText(shownText(informativeText));
    m_informativeText->setVisible(!m_informativeText->text().isEmpty());
    const QString label = defaultButtonLabel.isEmpty() ? tr("OK") : defaultButtonLabel;
    m_default->setText(label);
    action(u"done"_s)->setText(label);
    view()->setAccessibleName(m_message->text());
    view()->setAccessibleDescription(m_informativeText->text());
    applyStyle();
    if (m_isCurrent)
        Q_EMIT sizeChanged();
}

int CVAlertViewController::textHeight(const QLabel &label) const
{
    if (label.text().isEmpty())
        return 0;
    const QMargins margins = view()->layout()->contentsMargins();
    const int beside =
        margins.left() + margins.right() + CVTheme::scaled(pictureSize) + CVTheme::margin + CVTheme::spacing;
    return label.heightForWidth(CVTheme::initialSize().width() - beside);
}

QSize CVAlertViewController::size() const
{
    const QSize base = CVTheme::initialSize();
    const int wanted =
        CVTheme::scaled(heightAround) + textHeight(*m_message) + textHeight(*m_informativeText);
    return {std::max(base.width(), view()->minimumSizeHint().width()),
            std::clamp(wanted, base.height(), CVTheme::scaled(greatestHeight))};
}

QStringList CVAlertViewController::desiredToolbarItems() const
{
    return m_showCancelButton ? QStringList{u"done"_s, u"cancel"_s} : QStringList{u"done"_s};
}

void CVAlertViewController::didLoadView()
{
    m_default->setFocus(Qt::OtherFocusReason);
}

void CVAlertViewController::viewWillBeUnloaded()
{
    m_isCurrent = false;
    if (!m_ended)
        return;
    // Another screen instead of this one would leave the question unanswered for ever. Later, because loading
    // this screen anew takes it away first.
    LXMainThread::post([this, self = QPointer(this), asked = m_run] {
        if (self && !m_isCurrent && m_run == asked)
            stop();
    });
}

void CVAlertViewController::run(std::function<void(int)> ended)
{
    endAlert(cancelResult);
    ++m_run;
    m_ended = std::move(ended);
}

void CVAlertViewController::endAlert(int result)
{
    // What it leads to may begin the next one.
    if (const auto ended = std::exchange(m_ended, nullptr))
        ended(result);
}

bool CVAlertViewController::eventFilter(QObject *object, QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
    return CVViewController::eventFilter(object, event);
}

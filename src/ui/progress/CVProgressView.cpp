#include "ui/progress/CVProgressView.h"

#include "platform/desktop/LXFileIcons.h"
#include "ui/base/CVElidedLabel.h"
#include "ui/base/CVFileWell.h"
#include "ui/base/CVTheme.h"
#include "ui/progress/CVProgressText.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QVBoxLayout>

#include <algorithm>

namespace {

/// Bars count in int, jobs in bytes of any number.
constexpr int barSteps = 10'000;
constexpr int singleIcon = 110;
constexpr int multipleIcon = 100;
/// How often those who listen are told of the time left.
constexpr auto speakingPeriod = std::chrono::seconds(30);

QLabel *plainLabel(Qt::Alignment alignment)
{
    auto *label = new QLabel;
    label->setTextFormat(Qt::PlainText);
    label->setAlignment(alignment);
    return label;
}

QProgressBar *bar()
{
    auto *bar = new QProgressBar;
    bar->setTextVisible(false);
    return bar;
}

QHBoxLayout *row(QLabel *left, QLabel *right)
{
    auto *layout = new QHBoxLayout;
    layout->setSpacing(CVTheme::margin);
    layout->addWidget(left, 1);
    layout->addWidget(right);
    return layout;
}

} // namespace

CVProgressView::CVProgressView(QWidget *parent)
    : QWidget(parent)
    , m_well(new CVFileWell)
    , m_job(new CVElidedLabel)
    , m_bar(bar())
    , m_amount(plainLabel(Qt::AlignLeading))
    , m_time(plainLabel(Qt::AlignTrailing))
    , m_batch(new QWidget)
    , m_batchText(plainLabel(Qt::AlignLeading))
    , m_batchTime(plainLabel(Qt::AlignTrailing))
    , m_batchBar(bar())
{
    m_well->setAccessibleName(tr("Files dropped here open in a window of their own"));
    m_bar->setAccessibleName(tr("Progress"));
    m_batchBar->setAccessibleName(tr("Progress of all archives"));

    auto *batch = new QVBoxLayout(m_batch);
    batch->setContentsMargins(0, CVTheme::spacing, 0, 0);
    batch->setSpacing(CVTheme::spacing / 2);
    batch->addWidget(m_batchBar);
    batch->addLayout(row(m_batchText, m_batchTime));

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(3 * CVTheme::unit, CVTheme::margin, 3 * CVTheme::unit, CVTheme::margin);
    layout->setSpacing(CVTheme::spacing);
    layout->addStretch();
    layout->addWidget(m_well, 0, Qt::AlignHCenter);
    layout->addWidget(m_job);
    layout->addWidget(m_bar);
    layout->addLayout(row(m_amount, m_time));
    layout->addWidget(m_batch);
    layout->addStretch();

    applyStyle();
    setIcon({}, false);
    setIndeterminate();
    setBatch(std::nullopt, 0, {});
}

void CVProgressView::applyStyle()
{
    QPalette second = palette();
    second.setColor(QPalette::WindowText, CVTheme::subtitleColor(palette()));
    for (QLabel *label : {m_amount, m_time, m_batchText, m_batchTime}) {
        label->setFont(CVTheme::smallFont());
        label->setPalette(second);
        // Lines that come and go must not move what is above them.
        label->setMinimumHeight(label->fontMetrics().height());
    }
    m_job->setFont(CVTheme::titleFont());
    m_batchBar->setFixedHeight(CVTheme::scaled(CVTheme::unit));
}

void CVProgressView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
}

QSize CVProgressView::minimumSizeHint() const
{
    return {CVTheme::initialSize().width(), QWidget::minimumSizeHint().height()};
}

void CVProgressView::setJob(const QString &text)
{
    m_job->setText(text);
}

void CVProgressView::setIcon(const QString &filename, bool multiple)
{
    const bool isFolder = filename.endsWith(u'/');
    m_well->setPicture(LXFileIcons::iconForName(filename, isFolder), multiple ? multipleIcon : singleIcon,
                       multiple);
}

void CVProgressView::setIndeterminate()
{
    // A busy bar is all motion.
    m_bar->setRange(0, CVTheme::reducedMotion() ? barSteps : 0);
    m_bar->setValue(0);
    setAmount(CVTheme::reducedMotion() ? tr("Working…") : QString());
    setTimeLeft({});
}

void CVProgressView::setShare(double share)
{
    if (m_bar->maximum() == 0)
        m_bar->setRange(0, barSteps);
    m_bar->setValue(static_cast<int>(std::clamp(share, 0.0, 1.0) * barSteps));
}

void CVProgressView::setAmount(const QString &text)
{
    m_amount->setText(text);
}

void CVProgressView::setTimeLeft(const QString &text)
{
    if (text == m_time->text())
        return;
    // A label without a name of its own speaks with every change of its text.
    const auto now = std::chrono::steady_clock::now();
    if (!m_timeSpoken || now - *m_timeSpoken >= speakingPeriod) {
        m_time->setAccessibleName(text.isEmpty() ? tr("Time left") : text);
        m_timeSpoken = now;
    }
    m_time->setText(text);
}

void CVProgressView::setBatch(const std::optional<CVBatchPosition> &position, double share,
                              const QString &timeLeft)
{
    m_batch->setVisible(position.has_value());
    if (!position)
        return;
    m_batchBar->setRange(0, barSteps);
    m_batchBar->setValue(static_cast<int>(std::clamp(share, 0.0, 1.0) * barSteps));
    m_batchText->setText(CVProgressText::batch(*position));
    m_batchTime->setAccessibleName(tr("Time left for all archives"));
    m_batchTime->setText(timeLeft);
}

#include "ui/window/CVSlideAnimation.h"

#include "ui/base/CVTheme.h"

#include <QEvent>
#include <QLoggingCategory>
#include <QParallelAnimationGroup>
#include <QPropertyAnimation>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(log, "corvane.ui.slides")

} // namespace

CVSlideAnimation::CVSlideAnimation(QWidget *containerView, QObject *parent)
    : QObject(parent)
    , m_container(containerView)
{
    containerView->installEventFilter(this);
}

CVSlideAnimation::~CVSlideAnimation()
{
    stop();
}

QWidget *CVSlideAnimation::lastView() const
{
    for (const Pending &pending : m_pending) {
        if (pending.nextView)
            return pending.nextView;
    }
    return m_next ? m_next : m_current;
}

void CVSlideAnimation::setCurrentView(QWidget *view)
{
    m_current = view;
    place(view);
    view->show();
}

void CVSlideAnimation::loadView(QWidget *nextView, bool fromRight)
{
    m_pending.push_front({nextView, fromRight});
    takeOldest();
}

void CVSlideAnimation::setNextSize(QSize size)
{
    m_nextSize = size;
    if (m_next)
        m_next->resize(m_container->size().expandedTo(size));
}

void CVSlideAnimation::stop()
{
    m_pending.clear();
    delete m_slide;
    m_slide = nullptr;
    m_slideOut = m_slideIn = nullptr;
    m_next = nullptr;
}

// The delegate may ask for more while it is told of something, so this is a loop and not a recursion:
// a thousand loads without motion must not pile up on the stack.
void CVSlideAnimation::takeOldest()
{
    if (m_isTaking)
        return;
    m_isTaking = true;
    while (!m_slide && !m_pending.empty() && m_container) {
        const Pending oldest = m_pending.back();
        m_pending.pop_back();
        if (!oldest.nextView)
            continue;
        if (oldest.nextView == m_current) {
            qCWarning(log,
                      "%s [Line %d] error: new view %p and current view %p are the same view, will abort",
                      Q_FUNC_INFO, __LINE__, static_cast<void *>(oldest.nextView.data()),
                      static_cast<void *>(m_current.data()));
            continue;
        }
        fire(oldest.nextView, oldest.fromRight);
    }
    m_isTaking = false;
}

void CVSlideAnimation::fire(QWidget *nextView, bool fromRight)
{
    m_next = nextView;
    m_fromRight = fromRight;
    m_nextSize = {};
    place(nextView);
    m_slide = new QParallelAnimationGroup(this);
    if (m_delegate)
        m_delegate->slideAnimationWillStart(nextView);
    if (!m_slide)
        return; // stopped meanwhile
    if (!m_next || !m_current || CVTheme::reducedMotion() || !m_container->isVisible()) {
        slideEnded();
        return;
    }
    const int duration = static_cast<int>(std::lround(m_speed * 1000));
    const auto animate = [&](QWidget *view, const QString &name) {
        auto *animation = new QPropertyAnimation(view, "pos", m_slide);
        animation->setObjectName(name);
        animation->setDuration(duration);
        animation->setEasingCurve(QEasingCurve::Linear);
        return animation;
    };
    m_slideOut = animate(m_current, u"slideOut"_s);
    m_slideIn = animate(m_next, u"slideIn"_s);
    aim();
    m_next->move(m_slideIn->startValue().toPoint());
    m_next->raise();
    m_next->show();
    connect(m_slide, &QAbstractAnimation::finished, this, &CVSlideAnimation::slideEnded);
    m_slide->start();
}

// Again when the container's size changes while the views move.
void CVSlideAnimation::aim()
{
    const int distance = m_fromRight ? -m_current->width() : m_next->width() + 1;
    m_slideOut->setStartValue(QPoint(0, 0));
    m_slideOut->setEndValue(QPoint(distance, 0));
    m_slideIn->setStartValue(QPoint(-distance, 0));
    m_slideIn->setEndValue(QPoint(0, 0));
}

void CVSlideAnimation::slideEnded()
{
    // Called by the group itself, which must not go while it does so.
    m_slide->deleteLater();
    m_slide = nullptr;
    m_slideOut = m_slideIn = nullptr;
    QWidget *arrived = m_next;
    m_next = nullptr;
    if (arrived) {
        if (m_current)
            m_current->hide();
        m_current = arrived;
        place(arrived);
        arrived->show();
        if (m_delegate)
            m_delegate->slideAnimationDidEnd(arrived);
    }
    takeOldest();
}

void CVSlideAnimation::place(QWidget *view)
{
    if (view->parentWidget() != m_container)
        view->setParent(m_container);
    view->setGeometry(m_container->rect());
}

bool CVSlideAnimation::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_container && event->type() == QEvent::Resize) {
        if (m_slide && m_next && m_current && m_slideIn) {
            m_next->resize(m_container->size().expandedTo(m_nextSize));
            if (m_slide->state() == QAbstractAnimation::Running)
                aim();
        } else if (QWidget *view = m_next ? m_next : m_current) {
            view->setGeometry(m_container->rect());
        }
    }
    return QObject::eventFilter(watched, event);
}

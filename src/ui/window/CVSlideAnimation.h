#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>

#include <deque>

class QParallelAnimationGroup;
class QPropertyAnimation;

class CVSlideAnimationDelegate
{
public:
    virtual ~CVSlideAnimationDelegate() = default;
    /// The view is about to come in; it has the size of the container now. Where that will grow with the
    /// slide, setNextSize() says so.
    virtual void slideAnimationWillStart(QWidget *nextView) = 0;
    /// It is the current view, and the one before is hidden.
    virtual void slideAnimationDidEnd(QWidget *currentView) = 0;
};

/// Slides views in and out of a container, one at a time, in the order in which they were asked for.
///
/// The view that is current or comes in always fills the container; the one that goes keeps its size, so a
/// screen never sees a size that was meant for the next one. Where the desktop asks for reduced motion,
/// views change places at once. Main thread. The container and the views are borrowed; any of them may go
/// at any time.
class CVSlideAnimation final : public QObject
{
    Q_OBJECT

public:
    explicit CVSlideAnimation(QWidget *containerView, QObject *parent = nullptr);
    ~CVSlideAnimation() override;

    void setDelegate(CVSlideAnimationDelegate *delegate) { m_delegate = delegate; }
    /// Seconds that one slide takes.
    float speed() const { return m_speed; }
    void setSpeed(float seconds) { m_speed = seconds; }

    QWidget *containerView() const { return m_container; }
    QWidget *currentView() const { return m_current; }
    /// Null while nothing moves.
    QWidget *nextView() const { return m_next; }
    bool isAnimating() const { return m_slide != nullptr; }
    /// Nothing moves and nothing waits.
    bool isIdle() const { return !isAnimating() && m_pending.empty(); }
    /// Where the views will have come to when all slides have run.
    QWidget *lastView() const;

    /// Shows the first view without a slide.
    void setCurrentView(QWidget *view);
    void loadView(QWidget *nextView, bool fromRight);
    /// From slideAnimationWillStart: the view that comes in is at least that large all the way, so it need
    /// not lay itself out anew with each step of a container that grows.
    void setNextSize(QSize size);
    /// Forgets what waits and ends what moves, without a word to the delegate.
    void stop();

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    struct Pending
    {
        QPointer<QWidget> nextView;
        bool fromRight;
    };

    void takeOldest();
    void fire(QWidget *nextView, bool fromRight);
    void aim();
    void slideEnded();
    void place(QWidget *view);

    QPointer<QWidget> m_container;
    QPointer<QWidget> m_current;
    QPointer<QWidget> m_next;
    QSize m_nextSize; ///< at least, while it moves
    CVSlideAnimationDelegate *m_delegate = nullptr;
    float m_speed = 0.5F;
    std::deque<Pending> m_pending; ///< new ones at the front
    QParallelAnimationGroup *m_slide = nullptr;
    QPropertyAnimation *m_slideOut = nullptr;
    QPropertyAnimation *m_slideIn = nullptr;
    bool m_fromRight = true;
    bool m_isTaking = false;
};

#include "ui/window/CVMainWindow.h"

#include "ui/base/CVToolbar.h"
#include "ui/window/CVSlideContainer.h"

#include <QCloseEvent>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QTimer>
#include <QVariantAnimation>

#include <algorithm>

using namespace Qt::StringLiterals;

CVMainWindow::CVMainWindow(QWidget *parent)
    : QMainWindow(parent)
    , m_container(new CVSlideContainer(this))
    , m_toolbar(new CVToolbar(this))
    , m_fitting(new QVariantAnimation(this))
{
    setObjectName(u"mainWindow"_s);
    setContextMenuPolicy(Qt::NoContextMenu);
    setUnifiedTitleAndToolBarOnMac(true);
    m_fileMenu = menuBar()->addMenu(tr("&File"));
    m_actionMenu = menuBar()->addMenu(tr("&Action"));
    m_helpMenu = menuBar()->addMenu(tr("&Help"));
    addToolBar(Qt::TopToolBarArea, m_toolbar);
    m_toolbar->setAccessibleName(tr("Tool bar"));
    m_toolbar->setWindowTitle(tr("Tool bar"));
    setCentralWidget(m_container);
    m_fitting->setEasingCurve(QEasingCurve::InOutSine);
    connect(m_fitting, &QVariantAnimation::valueChanged, this, &CVMainWindow::fitStep);
    connect(m_fitting, &QAbstractAnimation::finished, this, &CVMainWindow::arrive);
}

QSize CVMainWindow::chrome() const
{
    const int menu = menuBar()->isNativeMenuBar() ? 0 : menuBar()->sizeHint().height();
    return {0, menu + m_toolbar->sizeHint().height()};
}

QSize CVMainWindow::contentSize() const
{
    return size() - chrome();
}

QSize CVMainWindow::fitToContent(QSize content, QSize minimum, bool resizable, std::chrono::milliseconds time)
{
    m_fitting->stop();
    const QRect available = screen()->availableGeometry();
    const QSize bars(m_toolbar->sizeHint().width(), 0);
    const QSize border = isVisible() ? frameGeometry().size() - size() : QSize(0, 0);
    // A window larger than the screen has buttons that nobody reaches.
    const QSize wanted = (content + chrome()).expandedTo(bars).boundedTo(available.size() - border);
    if (isMaximized() || isFullScreen()) {
        if (resizable) {
            return contentSize();
        }
        showNormal();
        time = {};
    }
    m_goal = wanted;
    m_goalMinimum = resizable ? (minimum + chrome()).expandedTo(bars).boundedTo(wanted) : wanted;
    m_goalMaximum = resizable ? QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX) : wanted;
    if (time.count() <= 0 || !isVisible() || isMinimized() || size() == wanted) {
        arrive();
    } else {
        const QSize now = size();
        setMinimumSize(now.boundedTo(wanted));
        setMaximumSize(now.expandedTo(wanted));
        m_fitting->setDuration(static_cast<int>(time.count()));
        m_fitting->setStartValue(now);
        m_fitting->setEndValue(wanted);
        m_fitting->start();
    }
    return wanted - chrome();
}

void CVMainWindow::finishFitting()
{
    if (m_fitting->state() == QAbstractAnimation::Stopped)
        return;
    m_fitting->stop();
    arrive();
}

void CVMainWindow::arrive()
{
    const bool isThere = size() == m_goal && maximumSize() == m_goalMaximum;
    setMinimumSize(m_goalMinimum);
    setMaximumSize(m_goalMaximum);
    resize(m_goal);
    // A window that has its size already stays where the person has put it.
    if (!isThere)
        keepOnScreen();
}

void CVMainWindow::fitStep(const QVariant &size)
{
    if (m_fitting->state() != QAbstractAnimation::Running)
        return;
    // Made large by the person meanwhile.
    if (isMaximized() || isFullScreen()) {
        m_fitting->stop();
        return;
    }
    resize(size.toSize());
    keepOnScreen();
}

void CVMainWindow::keepOnScreen()
{
    if (!isVisible())
        return;
    const QRect available = screen()->availableGeometry();
    const QRect frame = frameGeometry();
    const QPoint place(std::clamp(frame.left(), available.left(),
                                  std::max(available.left(), available.right() + 1 - frame.width())),
                       std::clamp(frame.top(), available.top(),
                                  std::max(available.top(), available.bottom() + 1 - frame.height())));
    if (place != frame.topLeft())
        move(place);
}

void CVMainWindow::hideByClose()
{
    m_wasHiddenByClose = true;
    hide();
}

void CVMainWindow::bringToFront()
{
    m_wasHiddenByClose = false;
    if (isMinimized())
        showNormal();
    show();
    raise();
    activateWindow();
}

void CVMainWindow::closeEvent(QCloseEvent *event)
{
    event->setAccepted(!m_mayClose || m_mayClose());
}

bool CVMainWindow::event(QEvent *event)
{
    const bool handled = QMainWindow::event(event);
    switch (event->type()) {
    case QEvent::UpdateRequest:
    case QEvent::Paint:
        if (!m_wasPainted && isVisible()) {
            m_wasPainted = true;
            // After the picture has gone out.
            QTimer::singleShot(0, this, &CVMainWindow::firstPainted);
        }
        break;
    case QEvent::FontChange:
    case QEvent::ApplicationFontChange:
    case QEvent::StyleChange:
        Q_EMIT measuresChanged();
        break;
    default:
        break;
    }
    return handled;
}

#include "ui/base/CVToolbar.h"

#include "ui/base/CVTheme.h"
#include "ui/base/CVToolButton.h"

#include <QAction>
#include <QPainter>

#include <algorithm>

using namespace Qt::StringLiterals;

CVToolbar::CVToolbar(QWidget *parent)
    : QToolBar(parent)
{
    setMovable(false);
    setFloatable(false);
    setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    setContextMenuPolicy(Qt::PreventContextMenu);
    setContentsMargins(CVTheme::unit / 2, 0, CVTheme::unit / 2, 1);
}

void CVToolbar::clearItems()
{
    // A bar forgets its widgets' places when cleared, and keeps the widgets; one of them may be the very
    // button whose press has brought us here.
    const QList<QAction *> places = actions();
    for (QAction *place : places) {
        QWidget *widget = widgetForAction(place);
        removeAction(place);
        if (widget) {
            widget->hide();
            widget->deleteLater();
        }
        place->deleteLater();
    }
    m_items.clear();
    m_places.clear();
}

void CVToolbar::addItem(QAction *action)
{
    static const QStringList goOn = {u"forward"_s, u"done"_s, u"extract"_s, u"archive"_s, u"combine"_s};
    const bool isPrimary = m_items.isEmpty() && goOn.contains(action->objectName());
    QAction *place = addWidget(new CVToolButton(action, isPrimary));
    place->setVisible(action->isVisible());
    connect(action, &QAction::changed, place, [action, place] { place->setVisible(action->isVisible()); });
    connect(action, &QObject::destroyed, this, [this, action] {
        m_items.removeAll(action);
        m_places.remove(action);
    });
    m_items.append(action);
    m_places.insert(action, place);
}

void CVToolbar::addFlexibleSpace()
{
    auto *space = new QWidget;
    space->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    addWidget(space);
}

QAction *CVToolbar::item(const QString &identifier) const
{
    const auto found = std::ranges::find(m_items, identifier, &QAction::objectName);
    return found == m_items.end() ? nullptr : *found;
}

QSize CVToolbar::sizeHint() const
{
    return {QToolBar::sizeHint().width(), CVToolButton::usualHeight() + CVTheme::unit + 2};
}

QSize CVToolbar::minimumSizeHint() const
{
    return {QToolBar::minimumSizeHint().width(), sizeHint().height()};
}

void CVToolbar::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Window));
    painter.fillRect(0, height() - 1, width(), 1, CVTheme::lineColor(palette()));
}

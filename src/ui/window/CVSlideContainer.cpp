#include "ui/window/CVSlideContainer.h"

#include <QKeyEvent>

namespace {

bool mayChoose(const QKeyEvent &key)
{
    return key.key() != Qt::Key_Escape && !(key.modifiers() & (Qt::ControlModifier | Qt::AltModifier));
}

} // namespace

CVSlideContainer::CVSlideContainer(QWidget *parent)
    : QWidget(parent)
{
    // Only by program: nobody comes here with Tab or the mouse.
    setFocusPolicy(Qt::NoFocus);
}

void CVSlideContainer::holdKeyboard()
{
    setFocus(Qt::OtherFocusReason);
}

bool CVSlideContainer::event(QEvent *event)
{
    // An accepted override comes back as a key press instead of as a shortcut; there it ends.
    if (event->type() == QEvent::ShortcutOverride || event->type() == QEvent::KeyPress) {
        if (auto *key = static_cast<QKeyEvent *>(event); hasFocus() && mayChoose(*key)) {
            key->accept();
            return true;
        }
    }
    return QWidget::event(event);
}

#pragma once

#include <QWidget>

/// What screens slide through. While they do, it holds the keyboard: a Return pressed twice must not answer
/// a question that has only just begun to come into sight. Escape and whatever is pressed with Ctrl or Alt
/// pass. Main thread.
class CVSlideContainer final : public QWidget
{
    Q_OBJECT

public:
    explicit CVSlideContainer(QWidget *parent = nullptr);

    /// Takes the focus, so that nothing in the screen that goes can be typed into.
    void holdKeyboard();

protected:
    bool event(QEvent *event) override;
    void focusInEvent(QFocusEvent *) override {}
    void focusOutEvent(QFocusEvent *) override {}
};

#pragma once

#include <QIcon>
#include <QList>
#include <QWidget>

class CVFormatButton;
class QHBoxLayout;
class QPropertyAnimation;
class QScrollArea;
class QToolButton;

class CVFormatButtonBarDelegate
{
public:
    virtual ~CVFormatButtonBarDelegate() = default;
    /// A button was pressed; it is not selected yet.
    virtual void changeArchiveType(CVFormatButton *button) = 0;
};

/// A row of format buttons, in the order of adding. Where they do not fit it scrolls: by the wheel, by the
/// arrows that then appear at its ends, and to whatever is chosen. Main thread.
class CVFormatButtonBarView final : public QWidget
{
    Q_OBJECT

public:
    explicit CVFormatButtonBarView(QWidget *parent = nullptr);

    /// Borrowed; outlives the bar or is set back to null.
    void setDelegate(CVFormatButtonBarDelegate *delegate) { m_delegate = delegate; }

    CVFormatButton *addButtonWithIdentifier(int identifier, const QIcon &image, const QString &name);
    void removeAllButtons();
    void deselectAllButtons();
    const QList<CVFormatButton *> &buttons() const { return m_buttons; }
    CVFormatButton *selectedButton() const;
    /// Null for none.
    CVFormatButton *firstButtonWithIdentifier(int identifier) const;
    bool isFirstButton(const CVFormatButton *button) const;
    bool isLastButton(const CVFormatButton *button) const;
    /// The button itself where there is none further: nothing wraps.
    CVFormatButton *nextButtonForButton(CVFormatButton *button) const;
    CVFormatButton *previousButtonForButton(CVFormatButton *button) const;
    void scrollToButton(CVFormatButton *button);

    /// With room for every button.
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    int buttonWidth() const;
    int mirrored(int value) const;
    int targetFor(const CVFormatButton *button) const;
    void scrollTo(int value, bool animated);
    void layOut();
    void updateArrows();
    QToolButton *makeArrow(Qt::ArrowType type, int direction, const QString &name);

    CVFormatButtonBarDelegate *m_delegate = nullptr;
    QList<CVFormatButton *> m_buttons;
    QScrollArea *m_area;
    QWidget *m_row;
    QHBoxLayout *m_layout;
    QToolButton *m_left;
    QToolButton *m_right;
    QPropertyAnimation *m_scrolling;
};

#pragma once

#include <QRadioButton>

/// One choice of a row: a picture above its name. Pressing it only tells; whoever owns the row selects.
/// Of a row the selected button alone is reached with Tab; the arrow keys belong to the screen.
/// Main thread.
class CVFormatButton final : public QRadioButton
{
    Q_OBJECT

public:
    CVFormatButton(int identifier, const QIcon &image, const QString &name, QWidget *parent = nullptr);

    int identifier() const { return m_identifier; }
    bool isSelected() const { return isChecked(); }
    void setSelected(bool selected);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    bool hitButton(const QPoint &pos) const override { return rect().contains(pos); }
    void nextCheckState() override {}
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    const int m_identifier;
};

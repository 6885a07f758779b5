#pragma once

#include <QVariantAnimation>
#include <QWidget>

/// Something is going on, and nobody knows for how long. Hidden when stopped. With reduced motion it stands
/// still. Main thread.
class CVSpinner final : public QWidget
{
    Q_OBJECT

public:
    explicit CVSpinner(QWidget *parent = nullptr);

    void startAnimating();
    void stopAnimating();
    bool isAnimating() const { return m_isAnimating; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    QVariantAnimation m_turn;
    bool m_isAnimating = false;
};

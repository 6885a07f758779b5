#pragma once

#include <QVariantAnimation>
#include <QWidget>

/// An open box with papers above it. While something is dragged over the drop box, the papers bob above the
/// opening; what is dropped sinks in. It takes no drops itself. Main thread.
class CVDropBoxPicture final : public QWidget
{
    Q_OBJECT

public:
    explicit CVDropBoxPicture(QWidget *parent = nullptr);

    void startAnimation();
    void stopAnimation();
    /// The papers go into the box and stay there until reset().
    void sink();
    void reset();

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void moveTo(double depth, int milliseconds);

    QVariantAnimation m_bobbing;
    QVariantAnimation m_settling;
    double m_depth = 0; ///< of the papers: 0 at rest, negative above, 1 out of sight
};

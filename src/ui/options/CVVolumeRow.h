#pragma once

#include <QWidget>

class CVChunkSizeField;
class QCheckBox;

/// Whether an archive comes in parts, and of which size. Main thread.
class CVVolumeRow final : public QWidget
{
    Q_OBJECT

public:
    explicit CVVolumeRow(QWidget *parent = nullptr);

    /// Of each part, in units of 1000 as everywhere where sizes are shown; 0 for no parts.
    double bytes() const;
    /// Tells nobody. 0 takes the check mark off and leaves the size.
    void setBytes(double bytes);
    QCheckBox *box() const { return m_box; }
    CVChunkSizeField *sizeField() const { return m_size; }

Q_SIGNALS:
    /// By the person.
    void edited();

private:
    QCheckBox *m_box;
    CVChunkSizeField *m_size;
};

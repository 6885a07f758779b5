#pragma once

#include <QStringList>
#include <QWidget>

class QComboBox;
class QDoubleSpinBox;

/// A number and its unit. What the unit stands for is its user's matter. Main thread.
class CVChunkSizeField final : public QWidget
{
    Q_OBJECT

public:
    /// The words "KB", "MB", "GB".
    static const QStringList &units();

    /// `name` is what screen readers call it.
    explicit CVChunkSizeField(const QString &name, QWidget *parent = nullptr);

    double value() const;
    QString unit() const;
    /// Tells nobody. An unknown unit counts as "MB".
    void setSize(double value, const QString &unit);
    QDoubleSpinBox *numberField() const { return m_number; }
    QComboBox *unitChooser() const { return m_unit; }

Q_SIGNALS:
    /// By the person.
    void sizeEdited();

private:
    QDoubleSpinBox *m_number;
    QComboBox *m_unit;
};

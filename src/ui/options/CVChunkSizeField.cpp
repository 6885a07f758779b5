#include "ui/options/CVChunkSizeField.h"

#include "ui/base/CVTheme.h"

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QSignalBlocker>

using namespace Qt::StringLiterals;

namespace {

constexpr double largest = 999999;

/// "10" and not "10.000".
class NumberField final : public QDoubleSpinBox
{
public:
    explicit NumberField(QWidget *parent)
        : QDoubleSpinBox(parent)
    {
        setDecimals(3);
        setRange(0, largest);
        setGroupSeparatorShown(false);
        setAccelerated(true);
    }

    QString textFromValue(double value) const override
    {
        QLocale shown = locale();
        shown.setNumberOptions(QLocale::OmitGroupSeparator);
        return shown.toString(value, 'f', QLocale::FloatingPointShortest);
    }

    QSize sizeHint() const override
    {
        const int digits = fontMetrics().horizontalAdvance(u"000000"_s);
        return {digits + CVTheme::scaled(5 * CVTheme::unit), QDoubleSpinBox::sizeHint().height()};
    }
};

} // namespace

const QStringList &CVChunkSizeField::units()
{
    static const QStringList names{u"KB"_s, u"MB"_s, u"GB"_s};
    return names;
}

CVChunkSizeField::CVChunkSizeField(const QString &name, QWidget *parent)
    : QWidget(parent)
    , m_number(new NumberField(this))
    , m_unit(new QComboBox(this))
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(CVTheme::unit / 2);
    layout->addWidget(m_number);
    layout->addWidget(m_unit);
    m_number->setAccessibleName(name);
    m_unit->setAccessibleName(tr("Unit"));
    m_unit->addItems(units());
    setFocusProxy(m_number);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    connect(m_number, &QDoubleSpinBox::valueChanged, this, &CVChunkSizeField::sizeEdited);
    connect(m_unit, &QComboBox::currentIndexChanged, this, &CVChunkSizeField::sizeEdited);
}

double CVChunkSizeField::value() const
{
    return m_number->value();
}

QString CVChunkSizeField::unit() const
{
    return m_unit->currentText();
}

void CVChunkSizeField::setSize(double value, const QString &unit)
{
    const QSignalBlocker number(m_number);
    const QSignalBlocker chooser(m_unit);
    m_unit->setCurrentText(units().contains(unit) ? unit : u"MB"_s);
    if (m_number->value() != value)
        m_number->setValue(value);
}

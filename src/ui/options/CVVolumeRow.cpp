#include "ui/options/CVVolumeRow.h"

#include "ui/base/CVTheme.h"
#include "ui/options/CVChunkSizeField.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QSignalBlocker>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

constexpr double unitStep = 1000;
constexpr double usualSize = 100;
// Below it a part would be little more than its own overhead.
constexpr double smallest = 64 * 1024;

double factorOf(qsizetype unit)
{
    return std::pow(unitStep, unit + 1);
}

} // namespace

CVVolumeRow::CVVolumeRow(QWidget *parent)
    : QWidget(parent)
    , m_box(new QCheckBox(tr("Split into &parts of"), this))
    , m_size(new CVChunkSizeField(tr("Size of a part"), this))
{
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(CVTheme::spacing);
    row->addWidget(m_box);
    row->addWidget(m_size);
    row->addStretch();
    m_size->setSize(usualSize, u"MB"_s);
    connect(m_box, &QCheckBox::toggled, this, &CVVolumeRow::edited);
    connect(m_size, &CVChunkSizeField::sizeEdited, this, [this] {
        const QSignalBlocker blocker(m_box);
        m_box->setChecked(true);
        Q_EMIT edited();
    });
}

double CVVolumeRow::bytes() const
{
    const double typed = m_size->value() * factorOf(CVChunkSizeField::units().indexOf(m_size->unit()));
    return m_box->isChecked() ? std::max(std::floor(typed), smallest) : 0;
}

void CVVolumeRow::setBytes(double bytes)
{
    const QSignalBlocker blocker(m_box);
    m_box->setChecked(bytes > 0);
    if (bytes <= 0 || bytes == this->bytes())
        return;
    qsizetype unit = CVChunkSizeField::units().size() - 1;
    while (unit > 0 && bytes < factorOf(unit))
        --unit;
    m_size->setSize(bytes / factorOf(unit), CVChunkSizeField::units().at(unit));
}

#include "ui/options/CVEditArchiveView.h"

#include "ui/base/CVTheme.h"
#include "ui/options/CVChunkSizeField.h"
#include "ui/options/CVFormatButton.h"
#include "ui/options/CVFormatButtonBarView.h"
#include "ui/options/CVVolumeRow.h"
#include "util/LXSecrets.h"

#include <QAccessible>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QScrollArea>
#include <QVBoxLayout>

#include <algorithm>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

struct Choice
{
    const char *text;
    int value;
};

constexpr Choice levels[] = {
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "None"), 0},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Fastest"), 1},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Fast"), 3},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Normal"), 5},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Good"), 7},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Best"), 9},
};

constexpr Choice images[] = {
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Leave as they are"), 0},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "JPEG, small files"), 1},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "JPEG, good quality"), 2},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "JPEG, best quality"), 3},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "PNG"), 4},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "TIFF"), 5},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "TGA"), 6},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "SGI"), 7},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "PSD"), 8},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "PDF"), 9},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "BMP"), 10},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "GIF"), 11},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "JPEG 2000"), 12},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "OpenEXR"), 13},
};

constexpr Choice sounds[] = {
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "Leave as it is"), 0},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .m4a, 32 kbit/s"), 1},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .m4a, 128 kbit/s"), 2},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .m4a, 256 kbit/s"), 3},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .m4a, 320 kbit/s"), 4},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .mp4, 32 kbit/s"), 5},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .mp4, 128 kbit/s"), 6},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .mp4, 256 kbit/s"), 7},
    {QT_TRANSLATE_NOOP("CVEditArchiveView", "AAC in .mp4, 320 kbit/s"), 8},
};

template <std::size_t n> void fill(QComboBox *box, const Choice (&choices)[n])
{
    for (const Choice &choice : choices)
        box->addItem(CVEditArchiveView::tr(choice.text), choice.value);
}

// Wider ones would only lie further away from their labels.
constexpr int widestForm = 440;

/// As large as what is in it where there is room.
class FieldsArea final : public QScrollArea
{
public:
    explicit FieldsArea(QWidget *fields, QWidget *parent)
        : QScrollArea(parent)
    {
        setWidget(fields);
        setWidgetResizable(true);
        setFrameShape(QFrame::NoFrame);
        setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        setFocusPolicy(Qt::NoFocus);
        viewport()->setAutoFillBackground(false);
        fields->setAutoFillBackground(false);
    }
    QSize sizeHint() const override { return widget()->sizeHint(); }
    QSize minimumSizeHint() const override
    {
        const QSize all = widget()->minimumSizeHint();
        return {all.width(), std::min(all.height(), CVTheme::scaled(12 * CVTheme::unit))};
    }

protected:
    void keyPressEvent(QKeyEvent *event) override
    {
        // These choose the format.
        if (event->key() == Qt::Key_Left || event->key() == Qt::Key_Right)
            event->ignore();
        else
            QScrollArea::keyPressEvent(event);
    }
};

QLabel *plainLabel(QWidget *parent)
{
    auto *label = new QLabel(parent);
    label->setTextFormat(Qt::PlainText);
    return label;
}

} // namespace

CVEditArchiveView::CVEditArchiveView(QWidget *parent)
    : QWidget(parent)
    , formatBar(new CVFormatButtonBarView(this))
    , description(plainLabel(this))
    , rarText(plainLabel(this))
    , m_fields(new QWidget)
    , m_area(new FieldsArea(m_fields, this))
    , m_form(new QFormLayout)
    , m_hint(plainLabel(this))
    , m_summary(plainLabel(this))
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(CVTheme::margin, CVTheme::margin, CVTheme::margin, CVTheme::margin);
    column->setSpacing(CVTheme::spacing);
    column->addWidget(formatBar);
    for (QLabel *line : {description, rarText, m_hint, m_summary})
        line->setAlignment(Qt::AlignCenter);
    description->setFont(CVTheme::smallFont());
    column->addWidget(description);
    rarText->setObjectName(u"RARInstallText"_s);
    rarText->setWordWrap(true);
    column->addWidget(rarText, 1);
    column->addSpacing(CVTheme::unit / 2);
    layOutFields();
    column->addWidget(m_area, 2);
    m_hint->setObjectName(u"hint"_s);
    m_hint->setWordWrap(true);
    m_hint->hide();
    column->addWidget(m_hint);
    m_summary->setObjectName(u"summary"_s);
    m_summary->setFont(CVTheme::smallFont());
    m_summary->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    column->addWidget(m_summary);
    colour();
}

void CVEditArchiveView::layOutFields()
{
    m_form->setContentsMargins(0, 0, 0, 0);
    m_form->setHorizontalSpacing(CVTheme::spacing);
    m_form->setVerticalSpacing(CVTheme::spacing);
    m_form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    auto *form = new QWidget(m_fields);
    form->setMaximumWidth(CVTheme::scaled(widestForm));
    form->setLayout(m_form);
    auto *centred = new QHBoxLayout(m_fields);
    centred->setContentsMargins(0, 0, 0, 0);
    centred->addStretch(1);
    centred->addWidget(form, 1000, Qt::AlignTop);
    centred->addStretch(1);

    QWidget *name = nameRow();
    addRow(tr("&Name:"), name, nameField);
    levelChooser = addChooser(tr("Co&mpression:"), tr("Compression"));
    fill(levelChooser, levels);
    imageChooser = addChooser(tr("&Images:"), tr("Images"));
    fill(imageChooser, images);
    audioChooser = addChooser(tr("So&und:"), tr("Sound"));
    fill(audioChooser, sounds);
    m_mediaHint = plainLabel(form);
    m_mediaHint->setText(tr("Smaller in the archive only; your files stay as they are."));
    m_mediaHint->setFont(CVTheme::smallFont());
    addRow({}, m_mediaHint);
    zipBox = new QCheckBox(tr("Pack as &ZIP, which every program opens"), form);
    addRow({}, zipBox);
    volumes = new CVVolumeRow(form);
    addRow({}, volumes);
    encryptBox = new QCheckBox(tr("&Encrypt with a password"), form);
    addRow({}, encryptBox);
    passwordField = passwordLine(tr("Password"));
    addRow(tr("Pass&word:"), passwordField);
    confirmationField = passwordLine(tr("Confirm password"));
    addRow(tr("Con&firm:"), confirmationField);
    showPasswordBox = new QCheckBox(tr("&Show password"), form);
    addRow({}, showPasswordBox);

    // Rows come and go; the column of labels stays where it is.
    int widest = 0;
    const auto forEachLabel = [this](const auto &use) {
        for (int i = 0; i < m_form->rowCount(); ++i) {
            if (QLayoutItem *item = m_form->itemAt(i, QFormLayout::LabelRole))
                use(item->widget());
        }
    };
    forEachLabel([&](QWidget *label) { widest = std::max(widest, label->sizeHint().width()); });
    forEachLabel([&](QWidget *label) { label->setMinimumWidth(widest); });

    imageChooser->setObjectName(u"images"_s);
    audioChooser->setObjectName(u"audio"_s);
    levelChooser->setObjectName(u"compressionLevel"_s);
    encryptBox->setObjectName(u"encrypt"_s);
    volumes->setObjectName(u"volumes"_s);
    zipBox->setObjectName(u"zip"_s);
    showPasswordBox->setObjectName(u"showPassword"_s);
}

void CVEditArchiveView::addRow(const QString &text, QWidget *field, QWidget *buddy)
{
    auto *label = new QLabel(text, m_form->parentWidget());
    label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    label->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Expanding);
    if (!text.isEmpty())
        label->setBuddy(buddy ? buddy : field);
    m_form->addRow(label, field);
}

QComboBox *CVEditArchiveView::addChooser(const QString &label, const QString &name)
{
    auto *box = new QComboBox(m_form->parentWidget());
    box->setAccessibleName(name);
    box->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    box->setMinimumWidth(CVTheme::scaled(25 * CVTheme::unit));
    addRow(label, box);
    return box;
}

QWidget *CVEditArchiveView::nameRow()
{
    m_nameRow = new QWidget(this);
    auto *row = new QHBoxLayout(m_nameRow);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(CVTheme::unit / 2);
    nameField = new QLineEdit(m_nameRow);
    nameField->setObjectName(u"archiveName"_s);
    nameField->setAccessibleName(tr("Name of the archive"));
    nameSuffix = plainLabel(m_nameRow);
    row->addWidget(nameField, 1);
    row->addWidget(nameSuffix);
    m_nameRow->setFocusProxy(nameField);
    return m_nameRow;
}

QLineEdit *CVEditArchiveView::passwordLine(const QString &name)
{
    auto *line = new QLineEdit(this);
    line->setEchoMode(QLineEdit::Password);
    connect(line, &QLineEdit::textChanged, &LXSecrets::protectThisProcess);
    line->setAccessibleName(name);
    // Neither spelling nor words learnt from a password.
    line->setInputMethodHints(Qt::ImhHiddenText | Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase |
                              Qt::ImhSensitiveData);
    return line;
}

void CVEditArchiveView::setNameShown(bool shown)
{
    m_form->setRowVisible(m_nameRow, shown);
}

void CVEditArchiveView::setCompressionShown(bool shown)
{
    m_form->setRowVisible(levelChooser, shown);
}

void CVEditArchiveView::setVolumesShown(bool shown)
{
    m_form->setRowVisible(volumes, shown);
}

void CVEditArchiveView::setMultimediaShown(bool images, bool audio)
{
    m_form->setRowVisible(imageChooser, images);
    m_form->setRowVisible(audioChooser, audio);
    m_form->setRowVisible(m_mediaHint, images || audio);
    m_form->setRowVisible(zipBox, images || audio);
}

void CVEditArchiveView::setEncryptShown(bool shown)
{
    m_form->setRowVisible(encryptBox, shown);
}

void CVEditArchiveView::setPasswordsShown(bool shown)
{
    // The window would jump at every other letter if the hint made room for itself.
    QSizePolicy policy = m_hint->sizePolicy();
    policy.setRetainSizeWhenHidden(shown);
    m_hint->setSizePolicy(policy);
    m_form->setRowVisible(passwordField, shown);
    m_form->setRowVisible(confirmationField, shown);
    m_form->setRowVisible(showPasswordBox, shown);
}

void CVEditArchiveView::setRarTextShown(bool shown)
{
    m_area->setVisible(!shown);
    rarText->setVisible(shown);
    rarText->setTextInteractionFlags(shown ? Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard
                                           : Qt::NoTextInteraction);
}

void CVEditArchiveView::setHint(const QString &text, bool isError)
{
    const bool changed = m_hint->text() != text;
    m_hint->setText(text);
    m_hint->setVisible(!text.isEmpty());
    m_hintIsError = isError;
    colour();
    if (changed && !text.isEmpty()) {
        QAccessibleEvent event(m_hint, QAccessible::Alert);
        QAccessible::updateAccessibility(&event);
    }
}

void CVEditArchiveView::showLevel(int level)
{
    const auto distance = [&](int index) { return std::abs(levelChooser->itemData(index).toInt() - level); };
    int nearest = 0;
    for (int i = 1; i < levelChooser->count(); ++i) {
        if (distance(i) < distance(nearest))
            nearest = i;
    }
    levelChooser->setCurrentIndex(nearest);
}

void CVEditArchiveView::setNoneOffered(bool offered)
{
    const int index = levelChooser->findData(0);
    if (offered && index < 0)
        levelChooser->insertItem(0, tr(levels[0].text), levels[0].value);
    else if (!offered && index >= 0)
        levelChooser->removeItem(index);
}

void CVEditArchiveView::setPasswordsReadable(bool readable)
{
    for (QLineEdit *line : {passwordField, confirmationField})
        line->setEchoMode(readable ? QLineEdit::Normal : QLineEdit::Password);
}

void CVEditArchiveView::setSummary(const QString &result, const QString &source)
{
    m_result = result;
    m_source = source;
    const QString text = source.isEmpty() ? result : u"%1  ·  %2"_s.arg(result, source);
    m_summary->setToolTip(text.toHtmlEscaped());
    m_summary->setAccessibleName(text);
    elideSummary();
}

// Each by itself: one long name must not hide what becomes of it.
void CVEditArchiveView::elideSummary()
{
    const QFontMetrics metrics = m_summary->fontMetrics();
    const QString between = m_source.isEmpty() ? QString() : u"  ·  "_s;
    const int room = width() - 2 * CVTheme::margin - metrics.horizontalAdvance(between);
    const int source = std::min(metrics.horizontalAdvance(m_source) + 1,
                                std::max(room / 2, room - metrics.horizontalAdvance(m_result) - 1));
    const QString shownSource = metrics.elidedText(m_source, Qt::ElideMiddle, source);
    m_summary->setText(metrics.elidedText(m_result, Qt::ElideMiddle, room - source) + between + shownSource);
}

void CVEditArchiveView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    elideSummary();
}

int CVEditArchiveView::heightForContents(int width) const
{
    // What has just been shown or hidden is not told upwards before the next turn of the event loop.
    m_form->activate();
    m_form->parentWidget()->updateGeometry();
    m_fields->layout()->activate();
    m_area->updateGeometry();
    return layout()->hasHeightForWidth() ? layout()->totalHeightForWidth(width)
                                         : layout()->totalSizeHint().height();
}

void CVEditArchiveView::orderTabs()
{
    QList<QWidget *> order;
    for (CVFormatButton *button : formatBar->buttons())
        order.append(button);
    order += QList<QWidget *>{nameField,
                              levelChooser,
                              imageChooser,
                              audioChooser,
                              zipBox,
                              volumes->box(),
                              volumes->sizeField()->numberField(),
                              volumes->sizeField()->unitChooser(),
                              encryptBox,
                              passwordField,
                              confirmationField,
                              showPasswordBox};
    for (qsizetype i = 1; i < order.size(); ++i)
        QWidget::setTabOrder(order.at(i - 1), order.at(i));
}

void CVEditArchiveView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        colour();
}

void CVEditArchiveView::colour()
{
    const auto set = [](QLabel *label, const QColor &color) {
        QPalette own = label->palette();
        if (own.color(QPalette::WindowText) == color)
            return;
        own.setColor(QPalette::WindowText, color);
        label->setPalette(own);
    };
    const QColor second = CVTheme::subtitleColor(palette());
    for (QLabel *label : {description, nameSuffix, m_mediaHint, m_summary})
        set(label, second);
    set(m_hint, m_hintIsError ? CVTheme::errorColor(palette()) : second);
}

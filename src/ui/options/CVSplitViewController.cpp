#include "ui/options/CVSplitViewController.h"

#include "platform/desktop/LXFileIcons.h"
#include "ui/base/CVElidedLabel.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVTheme.h"
#include "ui/options/CVChunkSizeField.h"
#include "ui/options/CVFormatButton.h"
#include "util/LXBackground.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QAction>
#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include <algorithm>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr unsigned none = 0;
constexpr unsigned bzip = 1;
constexpr unsigned sevenZip = 2;
constexpr QSize usualSize(460, 215);
constexpr int usualHeightAtFirst = 275;
constexpr int usualIcon = 136;
// More files than anybody wants in one folder.
constexpr quint64 manyParts = 10000;

QLabel *plainLabel(const QString &text = {})
{
    auto *label = new QLabel(text);
    label->setTextFormat(Qt::PlainText);
    return label;
}

void colour(QLabel *label, const QColor &color)
{
    QPalette palette = label->palette();
    if (palette.color(QPalette::WindowText) == color)
        return;
    palette.setColor(QPalette::WindowText, color);
    label->setPalette(palette);
}

} // namespace

CVSplitViewController::CVSplitViewController(CVOptionServices services, CVScreenNavigator &navigator,
                                             QObject *parent)
    : CVViewController(parent)
    , m_services(std::move(services))
    , m_navigator(navigator)
    , m_data(std::make_shared<CVSplitOperationDataBinding>())
{
    buildView();
    addAction(u"forward"_s, tr("&Split"), u"tool/split"_s, Qt::Key_Return, [this] {
        stopObserving();
        if (m_services.start)
            m_services.start();
    });
    QAction *back = addAction(u"back"_s, tr("&Back"), u"tool/back"_s, QKeySequence(Qt::CTRL | Qt::Key_B),
                              [this] { m_navigator.goBack(); });
    back->setShortcuts(back->shortcuts() << QKeySequence(QKeySequence::Back));
    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, Qt::Key_Escape,
              [this] { m_navigator.backToMain(); });
    preloadView();
    stopObserving();
}

CVSplitViewController::~CVSplitViewController()
{
    stopObserving();
}

CVFormatButton *CVSplitViewController::makeButton(int tag, const QString &icon, const QString &name)
{
    auto *button = new CVFormatButton(tag, CVTheme::icon(icon), name, view());
    connect(button, &QAbstractButton::clicked, this, [this, button] { changeCompressionType(button); });
    return button;
}

void CVSplitViewController::buildView()
{
    auto *view = new QWidget;
    setView(view);
    view->installEventFilter(this);
    auto *row = new QHBoxLayout(view);
    row->setContentsMargins(CVTheme::margin, CVTheme::margin, CVTheme::margin, CVTheme::margin);
    row->setSpacing(CVTheme::margin);

    auto *left = new QVBoxLayout;
    left->setSpacing(CVTheme::unit / 4);
    m_icon = new QLabel;
    m_icon->setAlignment(Qt::AlignCenter);
    m_fileName = new CVElidedLabel;
    m_icon->setFixedWidth(CVTheme::scaled(usualIcon));
    m_fileName->setFixedWidth(CVTheme::scaled(usualIcon));
    left->addStretch();
    left->addWidget(m_icon);
    left->addWidget(m_fileName);
    m_fileSizeText = plainLabel();
    m_fileSizeText->setAlignment(Qt::AlignCenter);
    m_fileSizeText->setFont(CVTheme::smallFont());
    left->addWidget(m_fileSizeText);
    left->addStretch();
    row->addLayout(left);

    auto *right = new QVBoxLayout;
    right->setSpacing(CVTheme::spacing);
    auto *heading = new QHBoxLayout;
    heading->setSpacing(0);
    QLabel *title = plainLabel(tr("Split File:"));
    title->setFont(CVTheme::titleFont());
    m_subtitle = plainLabel(tr(" Choose format"));
    m_subtitle->setFont(CVTheme::titleFont());
    heading->addWidget(title);
    heading->addWidget(m_subtitle);
    heading->addStretch();
    right->addLayout(heading);

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(CVTheme::unit / 2);
    m_noneButton = makeButton(none, u"format/none"_s, tr("None"));
    m_bZipButton = makeButton(bzip, u"format/bzip"_s, tr("bzip2"));
    m_sevenZipButton = makeButton(sevenZip, u"format/7zip"_s, tr("7-Zip"));
    for (CVFormatButton *button : {m_noneButton, m_bZipButton, m_sevenZipButton})
        buttons->addWidget(button);
    m_description = plainLabel();
    m_description->setFont(CVTheme::smallFont());
    buttons->addStretch();
    right->addLayout(buttons);
    right->addWidget(m_description);

    auto *size = new QHBoxLayout;
    size->setSpacing(CVTheme::spacing);
    QLabel *sizeLabel = plainLabel(tr("&Parts of:"));
    m_chunkSize = new CVChunkSizeField(tr("Size of a part"), view);
    sizeLabel->setBuddy(m_chunkSize->numberField());
    size->addWidget(sizeLabel);
    size->addWidget(m_chunkSize);
    size->addStretch();
    right->addLayout(size);

    m_checksumBox = new QCheckBox(tr("Add a file of chec&ksums"));
    m_checksumBox->setToolTip(tr("With it, joining the parts finds out which one is damaged."));
    m_checksumBox->installEventFilter(this); // it would move the focus with the arrow keys
    QSizePolicy policy = m_checksumBox->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    m_checksumBox->setSizePolicy(policy);
    right->addWidget(m_checksumBox);
    right->addStretch();
    m_forecast = plainLabel();
    m_forecast->setObjectName(u"forecast"_s);
    m_forecast->setWordWrap(true);
    right->addWidget(m_forecast);
    row->addLayout(right, 1);

    connect(m_chunkSize, &CVChunkSizeField::sizeEdited, this, [this] {
        m_data->splitter()->setChunkSize(m_chunkSize->value());
        m_data->splitter()->setChunkUnits(m_chunkSize->unit());
        refresh();
    });
    connect(m_checksumBox, &QCheckBox::toggled, this,
            [this](bool wanted) { m_data->splitter()->setShouldChecksum(wanted); });
    view->resize(CVTheme::scaled(usualSize.width()), CVTheme::scaled(usualHeightAtFirst));
}

QSize CVSplitViewController::size() const
{
    return QSize(CVTheme::scaled(usualSize.width()), CVTheme::scaled(usualSize.height()))
        .expandedTo(view()->minimumSizeHint());
}

QStringList CVSplitViewController::desiredToolbarItems() const
{
    return {u"forward"_s, u"back"_s, flexibleSpace, u"cancel"_s};
}

void CVSplitViewController::setFile(const QString &path)
{
    m_path = path;
    m_fileSize.reset();
    const QString name = lastComponent(path);
    const int icon = CVTheme::scaled(usualIcon);
    m_icon->setPixmap(
        LXFileIcons::iconForName(name, false).pixmap(QSize(icon, icon), view()->devicePixelRatio()));
    m_icon->setAccessibleName(tr("File"));
    m_fileName->setText(LXDisplay::displayEscaped(name));
    refresh();
    runInBackground([this, path, alive = std::weak_ptr<int>(m_alive)] {
        struct stat facts;
        if (::stat(bytesOfFileName(path).constData(), &facts) != 0 || !S_ISREG(facts.st_mode))
            return;
        LXMainThread::post([this, path, alive, size = static_cast<quint64>(facts.st_size)] {
            if (alive.expired() || m_path != path)
                return;
            m_fileSize = size;
            refresh();
        });
    });
}

// A job that winds down still has the one that it was started with.
void CVSplitViewController::renewData()
{
    const auto old = std::exchange(m_data, std::make_shared<CVSplitOperationDataBinding>());
    m_data->splitter()->setChunkSize(m_chunkSize->value());
    m_data->splitter()->setChunkUnits(m_chunkSize->unit());
    m_data->splitter()->setShouldChecksum(m_checksumBox->isChecked());
    m_data->setCompressionSetting(m_selectedButton ? static_cast<unsigned>(m_selectedButton->identifier())
                                                   : none);
}

void CVSplitViewController::preloadView()
{
    stopObserving();
    if (m_data.use_count() > 1)
        renewData();
    m_chunkSize->setSize(m_data->splitter()->chunkSize(), m_data->splitter()->chunkUnits());
    const QSignalBlocker blocker(m_checksumBox);
    m_checksumBox->setChecked(m_data->splitter()->shouldChecksum());
    select(m_data->compressionSetting());
    action(u"forward"_s)->setText(tr("&Split"));
    observe();
}

void CVSplitViewController::didLoadView()
{
    m_selectedButton->setFocus(Qt::OtherFocusReason);
}

void CVSplitViewController::observe()
{
    m_observers.push_back(m_data->observe(u"compressionSettingDescription"_s,
                                          [this](const QString &) { select(m_data->compressionSetting()); }));
}

void CVSplitViewController::stopObserving()
{
    for (const int id : m_observers)
        m_data->removeObserver(id);
    m_observers.clear();
}

CVFormatButton *CVSplitViewController::buttonForSetting(unsigned setting) const
{
    return setting == sevenZip ? m_sevenZipButton : setting == bzip ? m_bZipButton : m_noneButton;
}

void CVSplitViewController::select(unsigned setting)
{
    CVFormatButton *button = buttonForSetting(setting);
    for (CVFormatButton *other : {m_noneButton, m_bZipButton, m_sevenZipButton})
        other->setSelected(other == button);
    m_selectedButton = button;
    m_checksumBox->setHidden(button == m_sevenZipButton);
    refresh();
}

void CVSplitViewController::changeCompressionType(CVFormatButton *button)
{
    if (button->identifier() <= static_cast<int>(sevenZip))
        m_data->setCompressionSetting(static_cast<unsigned>(button->identifier()));
    select(static_cast<unsigned>(button->identifier()));
    button->setFocus(Qt::OtherFocusReason);
}

bool CVSplitViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::PaletteChange && watched == view())
        refresh();
    const auto *key = event->type() == QEvent::KeyPress ? static_cast<QKeyEvent *>(event) : nullptr;
    if (!key || (key->key() != Qt::Key_Left && key->key() != Qt::Key_Right) ||
        (key->modifiers() & ~Qt::KeypadModifier))
        return CVViewController::eventFilter(watched, event);
    const bool next = (key->key() == Qt::Key_Right) == view()->isLeftToRight();
    const unsigned setting = m_data->compressionSetting();
    unsigned chosen = none;
    if (setting <= sevenZip)
        chosen = next ? std::min(setting + 1, sevenZip) : std::max(setting, 1U) - 1;
    changeCompressionType(buttonForSetting(chosen));
    return true;
}

void CVSplitViewController::refresh()
{
    m_description->setText(m_data->compressionSettingDescription());
    m_forecast->setText(forecast());
    m_fileSizeText->setText(
        m_fileSize ? LXBytesValueTransformer::formatBytes(static_cast<qint64>(*m_fileSize)) : QString());
    const QColor second = CVTheme::subtitleColor(view()->palette());
    colour(m_subtitle, second);
    colour(m_description, second);
    colour(m_fileSizeText, second);
    const quint64 chunk = m_data->splitter()->chunkSizeInBytes();
    const bool alarming = chunk == 0 || (m_fileSize && *m_fileSize / chunk >= manyParts);
    colour(m_forecast, alarming ? CVTheme::errorColor(view()->palette()) : second);
}

QString CVSplitViewController::forecast() const
{
    const quint64 chunk = m_data->splitter()->chunkSizeInBytes();
    if (chunk == 0)
        return tr("Please enter a size above 0");
    if (!m_fileSize)
        return {};
    const quint64 rest = *m_fileSize % chunk;
    const quint64 parts = std::max<quint64>(1, *m_fileSize / chunk + (rest != 0 ? 1 : 0));
    if (parts == 1)
        return tr("Fits into one part");
    const QString count = QLocale().toString(parts);
    if (m_data->compressionSetting() != none)
        return tr("Makes up to about %1 parts").arg(count);
    if (rest == 0)
        return tr("Makes %1 parts of one size").arg(count);
    return tr("Makes %1 parts, the last one of %2")
        .arg(count, LXBytesValueTransformer::formatBytes(static_cast<qint64>(rest)));
}

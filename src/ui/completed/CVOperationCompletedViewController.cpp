#include "ui/completed/CVOperationCompletedViewController.h"

#include "engine/model/CVSettings.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXWorkspace.h"
#include "platform/desktop/LXFileIcons.h"
#include "ui/base/CVElidedLabel.h"
#include "ui/base/CVFilePanels.h"
#include "ui/base/CVFileWell.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVSkippedEntriesView.h"
#include "ui/base/CVTheme.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXDisplay.h"
#include "util/LXFileWrapper.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QCoreApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr int pictureSize = 96;
constexpr int barSteps = 10'000;

void chooseFolder(QWidget *window, std::function<void(std::optional<QString>)> chosen)
{
    CVFilePanels::chooseFolder(
        window, QCoreApplication::translate("CVOperationCompletedViewController", "Choose destination"),
        QCoreApplication::translate("CVOperationCompletedViewController", "Open"), {}, std::move(chosen));
}

} // namespace

CVOperationCompletedViewController::CVOperationCompletedViewController(CVScreenNavigator &navigator,
                                                                       QObject *parent)
    : CVViewController(parent)
    , m_navigator(navigator)
    , m_chooseFolder(chooseFolder)
    , m_well(new CVFileWell)
    , m_name(new CVElidedLabel)
    , m_size(new QLabel)
    , m_message(new QLabel)
    , m_exportRow(new QWidget)
    , m_exportBar(new QProgressBar)
    , m_exportCancel(new QPushButton(tr("&Cancel")))
    , m_skipped(new CVSkippedEntriesView)
{
    m_well->setFieldVisible(true);
    m_well->setDragOutAllowed(true);
    m_well->setAccessibleName(tr("Result"));
    m_well->setAccessibleDescription(tr("Can be dragged to other programs. Space opens it."));
    connect(m_well, &CVFileWell::activated, this, [this] { LXWorkspace::shared()->openFile(m_path); });
    m_size->setAlignment(Qt::AlignCenter);
    m_size->setTextFormat(Qt::PlainText);
    m_message->setTextFormat(Qt::PlainText);
    m_message->setWordWrap(true);
    m_message->setAlignment(Qt::AlignCenter);
    m_exportBar->setAccessibleName(tr("Progress of the export"));
    m_exportBar->setTextVisible(false);
    m_exportCancel->setShortcut(Qt::Key_Escape);
    connect(m_exportCancel, &QPushButton::clicked, &m_exporter, &CVExporter::cancel);
    connect(m_skipped, &CVSkippedEntriesView::expandedChanged, this, [this] {
        if (m_isCurrent)
            Q_EMIT sizeChanged();
    });
    connect(&m_exporter, &CVExporter::madeProgress, this, [this](double done, double total) {
        m_exportBar->setRange(0, barSteps);
        m_exportBar->setValue(total > 0 ? static_cast<int>(std::min(done / total, 1.0) * barSteps) : 0);
    });
    connect(&m_exporter, &CVExporter::ended, this, &CVOperationCompletedViewController::exportEnded);

    auto *exportRow = new QHBoxLayout(m_exportRow);
    exportRow->setContentsMargins(0, 0, 0, 0);
    exportRow->setSpacing(CVTheme::spacing);
    exportRow->addWidget(m_exportBar, 1);
    exportRow->addWidget(m_exportCancel);

    auto *view = new QWidget;
    auto *layout = new QVBoxLayout(view);
    layout->setContentsMargins(3 * CVTheme::unit, CVTheme::margin, 3 * CVTheme::unit, CVTheme::margin);
    layout->setSpacing(CVTheme::spacing);
    layout->addStretch();
    layout->addWidget(m_well, 0, Qt::AlignHCenter);
    layout->addSpacing(CVTheme::spacing / 2);
    layout->addWidget(m_name);
    layout->addWidget(m_size);
    layout->addWidget(m_message);
    layout->addWidget(m_exportRow);
    layout->addStretch();
    layout->addWidget(m_skipped);
    setView(view);
    view->installEventFilter(this);

    addAction(u"done"_s, tr("Done"), u"tool/done"_s, QKeySequence(Qt::Key_Return),
              [this] { m_navigator.backToMain(); });
    addAction(u"export"_s, tr("&Export…"), u"tool/export"_s, QKeySequence(Qt::CTRL | Qt::Key_E),
              [this] { output(); });
    addAction(u"showInFinder"_s, tr("Show in &File Manager"), u"tool/reveal"_s,
              QKeySequence(Qt::CTRL | Qt::Key_F), [this] { showInFinder(); });
    addAction(u"back"_s, tr("&Back"), u"tool/back"_s, QKeySequence(Qt::CTRL | Qt::Key_B), [this] { back(); });
    action(u"showInFinder"_s)->setIconText(tr("Show"));
    action(u"export"_s)->setIconText(tr("Export"));
    applyStyle();
    setExporting(false);
    tell({});
}

CVOperationCompletedViewController::~CVOperationCompletedViewController() = default;

void CVOperationCompletedViewController::applyStyle()
{
    m_name->setFont(CVTheme::titleFont());
    m_size->setFont(CVTheme::smallFont());
    QPalette second = view()->palette();
    second.setColor(QPalette::WindowText, CVTheme::subtitleColor(second));
    m_size->setPalette(second);
    m_size->setMinimumHeight(m_size->fontMetrics().height());
    QPalette error = view()->palette();
    error.setColor(QPalette::WindowText, CVTheme::errorColor(error));
    m_message->setPalette(error);
}

bool CVOperationCompletedViewController::eventFilter(QObject *object, QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
    return CVViewController::eventFilter(object, event);
}

QSize CVOperationCompletedViewController::size() const
{
    QSize size = CVTheme::initialSize().expandedTo(view()->minimumSizeHint());
    if (m_skipped->isExpanded())
        size.setWidth(std::max(size.width(), CVTheme::scaled(560)));
    size.setHeight(std::max(size.height(), view()->layout()->totalHeightForWidth(size.width())));
    return size;
}

QString CVOperationCompletedViewController::title() const
{
    return LXDisplay::displayName(m_path);
}

QStringList CVOperationCompletedViewController::desiredToolbarItems() const
{
    return {u"done"_s, u"export"_s, u"showInFinder"_s, u"back"_s, flexibleSpace};
}

void CVOperationCompletedViewController::willLoadView()
{
    m_isCurrent = true;
}

void CVOperationCompletedViewController::didLoadView()
{
    m_well->setFocus(Qt::OtherFocusReason);
}

void CVOperationCompletedViewController::viewWillBeUnloaded()
{
    m_isCurrent = false;
    m_exporter.cancel();
    m_facts.request_stop();
}

void CVOperationCompletedViewController::showDoneViewWithFile(const QString &path,
                                                              std::vector<CVSkippedInArchive> skipped)
{
    m_skipped->setEntries(std::move(skipped));
    setUpViewWithFile(path);
}

void CVOperationCompletedViewController::setUpViewWithFile(const QString &path)
{
    m_path = path;
    ++m_showing;
    tell({});
    m_well->setPaths({path});
    m_well->setPicture(LXFileIcons::iconForName(title(), false), pictureSize);
    m_name->setText(title());
    m_size->clear();
    m_navigator.loadViewController(*this, false);
    readFacts(path); // now, because a screen that is loaded anew is left first
    if (CVSettings::boolean(CVSettingsKey::sound))
        LXSystemSound::shared()->play(u"Hero"_s);
}

// A folder's size is that of everything in it.
void CVOperationCompletedViewController::readFacts(const QString &path)
{
    m_facts = std::jthread([this, self = QPointer(this), showing = m_showing, path](std::stop_token stop) {
        const LXFileWrapper file(path);
        if (!file.exists())
            return;
        const bool isFolder = file.isDirectory();
        const qint64 bytes = file.fileSizeBytes(stop);
        if (stop.stop_requested())
            return;
        LXMainThread::post([this, self, showing, isFolder, bytes] {
            if (!self || m_showing != showing)
                return;
            m_size->setText(LXBytesValueTransformer::formatBytes(bytes));
            if (isFolder)
                m_well->setPicture(LXFileIcons::iconForName(title(), true), pictureSize);
        });
    });
}

void CVOperationCompletedViewController::output()
{
    if (m_exporter.isRunning())
        return;
    m_chooseFolder(m_navigator.mainWindow(),
                   [this, self = QPointer(this), showing = m_showing](const std::optional<QString> &folder) {
                       // The panel may outlast the screen.
                       if (self && folder && m_isCurrent && m_showing == showing)
                           exportTo(*folder);
                   });
}

void CVOperationCompletedViewController::exportTo(const QString &folder)
{
    tell({});
    m_exportBar->setRange(0, 0);
    m_exporter.start({m_path}, folder);
    setExporting(m_exporter.isRunning());
}

void CVOperationCompletedViewController::exportEnded(const CVExporter::Outcome &outcome)
{
    setExporting(false);
    if (!m_isCurrent)
        return;
    if (!outcome.failures.empty()) {
        const LXError &error = outcome.failures.front();
        tell(error.description + u' ' + error.reason);
    } else if (!outcome.wasCancelled) {
        m_navigator.backToMain();
    }
}

void CVOperationCompletedViewController::setExporting(bool exporting)
{
    m_exportRow->setVisible(exporting);
    for (const QString &identifier : {u"done"_s, u"export"_s, u"showInFinder"_s, u"back"_s})
        action(identifier)->setEnabled(!exporting);
    m_well->setDragOutAllowed(!exporting);
}

void CVOperationCompletedViewController::tell(const QString &message)
{
    m_message->setText(message);
    m_message->setVisible(!message.isEmpty());
    if (m_isCurrent)
        Q_EMIT sizeChanged();
}

void CVOperationCompletedViewController::showInFinder()
{
    LXFileViewer::shared()->reveal({m_path});
}

void CVOperationCompletedViewController::back()
{
    if (CVSettings::boolean(CVSettingsKey::skipArchivePreview))
        m_navigator.backToMain();
    else
        m_navigator.goBack();
}

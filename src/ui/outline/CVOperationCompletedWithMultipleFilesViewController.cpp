#include "ui/outline/CVOperationCompletedWithMultipleFilesViewController.h"

#include "engine/model/CVSettings.h"
#include "platform/LXFileUri.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXWorkspace.h"
#include "ui/base/CVFilePanels.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVSkippedEntriesView.h"
#include "ui/base/CVTheme.h"
#include "util/LXMainThread.h"
#include "util/LXReleaseInBackground.h"
#include "util/path_parts.h"

#include <QAbstractItemView>
#include <QAction>
#include <QCoreApplication>
#include <QDrag>
#include <QLocale>
#include <QMimeData>
#include <QPointer>

#include <algorithm>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

void chooseFolder(QWidget *window, std::function<void(std::optional<QString>)> chosen)
{
    CVFilePanels::chooseFolder(
        window,
        QCoreApplication::translate("CVOperationCompletedWithMultipleFilesViewController",
                                    "Choose destination"),
        QCoreApplication::translate("CVOperationCompletedWithMultipleFilesViewController", "Open"), {},
        std::move(chosen));
}

} // namespace

CVOperationCompletedWithMultipleFilesViewController::CVOperationCompletedWithMultipleFilesViewController(
    CVScreenNavigator &navigator, QObject *parent)
    : CVOutlineViewController({CVSettingsKey::multipleDoneViewWidth, CVSettingsKey::multipleDoneViewHeight},
                              parent)
    , m_navigator(navigator)
    , m_chooseFolder(chooseFolder)
    , m_outputFiles(CVFileNode::create())
    , m_skipped(new CVSkippedEntriesView)
{
    setEmptyText(tr("There is no result."));
    // The usual key shows the results in the file manager here.
    setFindKey(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_F));
    m_skipped->setContentsMargins(CVTheme::margin, CVTheme::spacing / 2, CVTheme::margin,
                                  CVTheme::spacing / 2);
    addBelowFiles(m_skipped);
    addAction(u"done"_s, tr("Done"), u"tool/done"_s, QKeySequence(Qt::Key_Return),
              [this] { m_navigator.backToMain(); });
    addAction(u"export"_s, tr("&Export…"), u"tool/export"_s, QKeySequence(Qt::CTRL | Qt::Key_E), [this] {
        output();
    })->setIconText(tr("Export"));
    addAction(u"showInFinder"_s, tr("Show in &File Manager"), u"tool/reveal"_s,
              QKeySequence(Qt::CTRL | Qt::Key_F), [this] { showInFinder(); })
        ->setIconText(tr("Show"));
    addAction(u"back"_s, tr("&Back"), u"tool/back"_s, QKeySequence(Qt::CTRL | Qt::Key_B), [this] { back(); });
    addAction(u"cancelExport"_s, tr("&Cancel Export"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
              [this] { m_exporter.cancel(); });
    connect(&m_exporter, &CVExporter::ended, this,
            &CVOperationCompletedWithMultipleFilesViewController::exportEnded);
    connect(&m_exporter, &CVExporter::madeProgress, this, [this](double done, double total) {
        const int percent = total > 0 ? static_cast<int>(done * 100 / total) : 0;
        setNotice(tr("Exporting… %1 %").arg(percent), u"tool/export"_s);
    });
    setExporting(false);
}

CVOperationCompletedWithMultipleFilesViewController::~CVOperationCompletedWithMultipleFilesViewController() =
    default;

void CVOperationCompletedWithMultipleFilesViewController::setFiles(
    const QStringList &paths, const std::function<void()> &completionHandler,
    std::vector<CVSkippedInArchive> skipped)
{
    m_skipped->setEntries(std::move(skipped));
    setUpViewWithFiles(paths);
    if (CVSettings::boolean(CVSettingsKey::sound))
        LXSystemSound::shared()->play(u"Hero"_s);
    if (completionHandler)
        completionHandler();
}

void CVOperationCompletedWithMultipleFilesViewController::setUpViewWithFiles(const QStringList &paths)
{
    m_paths = paths;
    setNotice({});
    setExporting(false);
    releaseInBackground(std::exchange(m_outputFiles, CVFileNode::create()));
    for (const QString &path : paths)
        m_outputFiles->appendChild(CVFileNode::create(path));
    showTree(m_outputFiles, CVFileNodeModel::Tree::Live);
    std::thread([paths, showing = ++m_showing, guard = QPointer(this)] {
        auto nodes = std::make_shared<CVFileNode::List>();
        for (const QString &path : paths)
            nodes->push_back(CVFileNode::buildFromFile(path));
        LXMainThread::post([nodes, showing, guard] {
            if (!guard || guard->m_showing != showing) {
                releaseInBackground(nodes);
                return;
            }
            guard->m_outputFiles->removeAllChildren();
            for (auto &node : *nodes)
                guard->m_outputFiles->appendChild(std::move(node));
            guard->updateTree(guard->m_outputFiles, CVFileNodeModel::Tree::Live);
        });
    }).detach();
    Q_EMIT titleChanged();
}

QString CVOperationCompletedWithMultipleFilesViewController::title() const
{
    return m_paths.size() == 1 ? tr("1 result") : tr("%1 results").arg(QLocale().toString(m_paths.size()));
}

QStringList CVOperationCompletedWithMultipleFilesViewController::desiredToolbarItems() const
{
    return {u"done"_s, u"export"_s, u"showInFinder"_s, u"back"_s, flexibleSpace};
}

void CVOperationCompletedWithMultipleFilesViewController::willLoadView()
{
    m_isCurrent = true;
    CVOutlineViewController::willLoadView();
}

void CVOperationCompletedWithMultipleFilesViewController::viewWillBeUnloaded()
{
    m_isCurrent = false;
    m_exporter.cancel();
    CVOutlineViewController::viewWillBeUnloaded();
}

void CVOperationCompletedWithMultipleFilesViewController::openNode(const CVFileNode::Pointer &node)
{
    if (!node->filename().isEmpty())
        LXWorkspace::shared()->openFile(node->filename());
}

void CVOperationCompletedWithMultipleFilesViewController::dragNodes(const CVFileNode::List &nodes)
{
    if (m_exporter.isRunning())
        return;
    QByteArray list;
    for (const auto &node : nodes)
        list += LXFileUri::uriOfPath(node->filename()) + "\r\n";
    auto *data = new QMimeData;
    data->setData(u"text/uri-list"_s, list);
    auto *drag = new QDrag(activeView());
    drag->setMimeData(data);
    drag->exec(Qt::CopyAction);
}

void CVOperationCompletedWithMultipleFilesViewController::output()
{
    if (m_exporter.isRunning())
        return;
    m_chooseFolder(m_navigator.mainWindow(),
                   [self = QPointer(this), showing = m_showing](const std::optional<QString> &folder) {
                       // The panel may outlast the screen.
                       if (self && folder && self->m_isCurrent && self->m_showing == showing)
                           self->exportTo(*folder);
                   });
}

void CVOperationCompletedWithMultipleFilesViewController::exportTo(const QString &folder)
{
    setNotice(tr("Exporting…"), u"tool/export"_s);
    m_exporter.start(m_paths, folder);
    setExporting(m_exporter.isRunning());
}

void CVOperationCompletedWithMultipleFilesViewController::exportEnded(const CVExporter::Outcome &outcome)
{
    setExporting(false);
    setNotice({});
    if (!m_isCurrent)
        return;
    if (outcome.failures.empty() && !outcome.wasCancelled) {
        m_navigator.backToMain();
        return;
    }
    // What was moved is shown where it went.
    const auto nameOf = [](const QString &path) { return lastComponent(path); };
    QStringList paths = m_paths;
    for (const QString &moved : outcome.moved) {
        const auto old = std::ranges::find(paths, nameOf(moved), nameOf);
        if (old != paths.end())
            *old = moved;
    }
    setUpViewWithFiles(paths);
    if (!outcome.failures.empty()) {
        const LXError &error = outcome.failures.front();
        setNotice(error.description + u' ' + error.reason, u"tool/warning"_s);
    }
}

void CVOperationCompletedWithMultipleFilesViewController::setExporting(bool exporting)
{
    for (const QString &identifier : {u"done"_s, u"export"_s, u"showInFinder"_s, u"back"_s})
        action(identifier)->setEnabled(!exporting);
    action(u"cancelExport"_s)->setEnabled(exporting);
}

void CVOperationCompletedWithMultipleFilesViewController::showInFinder()
{
    QStringList chosen;
    constexpr int mostShown = 100;
    for (const auto &node : selectedNodes(mostShown))
        chosen.append(node->filename());
    if (chosen.isEmpty() && !m_paths.isEmpty())
        chosen.append(m_paths.constFirst());
    if (!chosen.isEmpty())
        LXFileViewer::shared()->reveal(chosen);
}

void CVOperationCompletedWithMultipleFilesViewController::back()
{
    if (CVSettings::boolean(CVSettingsKey::skipArchivePreview))
        m_navigator.backToMain();
    else
        m_navigator.goBack();
}

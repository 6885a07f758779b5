#include "ui/outline/CVArchivePreviewController.h"

#include "archives/CVArchive.h"
#include "engine/model/CVSettings.h"
#include "platform/desktop/LXFileIcons.h"
#include "ui/base/CVFilePanels.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVTheme.h"
#include "ui/outline/CVEntryMimeData.h"
#include "ui/outline/CVFileKinds.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVQuickLookPanel.h"
#include "util/LXDisplay.h"
#include "util/LXReleaseInBackground.h"

#include <QAbstractItemView>
#include <QAction>
#include <QDrag>
#include <QEvent>
#include <QLocale>
#include <QSet>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

// File managers copy after the drop, some of them slowly.
constexpr int keptAfterDrop = 10 * 60 * 1000;

} // namespace

CVArchivePreviewController::CVArchivePreviewController(CVArchivePreviewServices services,
                                                       CVScreenNavigator &navigator, QObject *parent)
    : CVOutlineViewController({CVSettingsKey::multipleViewWidth, CVSettingsKey::multipleViewHeight}, parent)
    , m_services(std::move(services))
    , m_navigator(navigator)
    , m_previewedFileTree(CVFileNode::create())
{
    setEmptyText(tr("This archive is empty."));
    addAction(u"extract"_s, tr("&Extract"), u"tool/extract"_s, QKeySequence(Qt::Key_Return),
              [this] { m_services.extractArchive(); });
    addAction(u"convert"_s, tr("&Convert…"), u"tool/convert"_s, QKeySequence(Qt::CTRL | Qt::Key_C),
              [this] { m_navigator.showConvertArchiveView(); });
    addAction(u"split"_s, tr("&Split…"), u"tool/split"_s, QKeySequence(Qt::CTRL | Qt::Key_S),
              [this] { m_services.showSplitFile(); });
    addAction(u"archive"_s, tr("&Archive…"), u"tool/archive"_s, QKeySequence(Qt::CTRL | Qt::Key_A),
              [this] { m_navigator.showCreateArchiveView(); });
    addAction(u"open"_s, tr("&Open\tCtrl+Down"), u"tool/open"_s, {}, [this] {
        if (const auto node = currentNode())
            openNode(node);
    });
    addAction(u"quickLook"_s, tr("Quick &Look\tSpace"), u"tool/preview"_s, {}, [this] {
        if (const auto node = currentNode())
            previewNode(node);
    });
    addAction(u"extractSelection"_s, tr("Extract Selection &To…"), u"tool/save"_s,
              QKeySequence(Qt::CTRL | Qt::Key_E), [this] { extractSelection(); });
    addAction(u"cancel"_s, tr("Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
              [this] { m_navigator.backToMain(); });
    view()->installEventFilter(this);
    refreshActions();
}

CVArchivePreviewController::~CVArchivePreviewController()
{
    delete m_quickLook;
    if (view())
        view()->removeEventFilter(this);
    letGo();
}

void CVArchivePreviewController::setupDisplayWithArchives(const Archives &archives)
{
    letGo();
    setupFileTreeWithArchives(archives);
    m_title = archives.size() == 1
                  ? LXDisplay::displayName(archives.front()->sourcePath)
                  : tr("Preview: %1 files").arg(QLocale().toString(static_cast<qulonglong>(archives.size())));
    setEmptyText(archives.size() == 1 ? tr("This archive is empty.") : tr("There is nothing to be shown."));
    setNotice(archives.size() == 1 && m_previewedFileTree->isEncryptedArchive()
                  ? tr("This archive is encrypted.")
                  : QString(),
              u"tool/lock"_s);
    showTree(m_previewedFileTree, CVFileNodeModel::Tree::Frozen);
    refreshActions();
    Q_EMIT titleChanged();
}

void CVArchivePreviewController::setupFileTreeWithArchives(const Archives &archives)
{
    m_archives = archives;
    m_singlePreviewedArchive = QString();
    if (archives.size() == 1 && archives.front()->filePreviewsNode()) {
        // Its own tree: moving a million children under another root would take its time.
        m_previewedFileTree = archives.front()->filePreviewsNode();
        m_singlePreviewedArchive = archives.front()->sourcePath;
        return;
    }
    m_previewedFileTree = CVFileNode::create();
    for (const auto &archive : archives) {
        CVFileNode::Pointer node = archive->filePreviewsNode();
        if (!node)
            node = CVFileNode::create();
        node->setFilename(archive->sourcePath);
        m_previewedFileTree->appendChild(std::move(node));
    }
}

void CVArchivePreviewController::clear()
{
    delete m_quickLook;
    m_isLetGoWhenHidden = view()->isVisible();
    if (!m_isLetGoWhenHidden)
        letGo();
}

bool CVArchivePreviewController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == view() && event->type() == QEvent::Hide && std::exchange(m_isLetGoWhenHidden, false))
        letGo();
    return CVOutlineViewController::eventFilter(watched, event);
}

void CVArchivePreviewController::letGo()
{
    m_isLetGoWhenHidden = false;
    if (view()) {
        showTree(nullptr, CVFileNodeModel::Tree::Frozen);
        setNotice({});
    }
    const bool hasSeveral = m_singlePreviewedArchive.isNull();
    if (hasSeveral) {
        // They go back to their archives as the roots that they were.
        for (const auto &node : m_previewedFileTree->mutableChildrenArray())
            node->setFilename({});
        m_previewedFileTree->removeAllChildren();
    }
    releaseInBackground(std::exchange(m_previewedFileTree, CVFileNode::create()));
    releaseInBackground(std::make_shared<Archives>(std::exchange(m_archives, {})));
    m_singlePreviewedArchive = QString();
}

CVFileNode::Pointer CVArchivePreviewController::rootForFileNode(const CVFileNode::Pointer &node) const
{
    CVFileNode::Pointer top = node;
    for (auto above = node->parent(); above && above != m_previewedFileTree; above = above->parent())
        top = above;
    return top;
}

QString CVArchivePreviewController::archivePathOf(const CVFileNode::Pointer &node) const
{
    return m_singlePreviewedArchive.isNull() ? rootForFileNode(node)->filename() : m_singlePreviewedArchive;
}

CVArchivePreviewController::DraggedEntries
CVArchivePreviewController::entriesForDrag(const CVFileNode::List &nodes) const
{
    DraggedEntries dragged;
    CVFileNode::Pointer archive;
    QSet<const CVFileNode *> taken;
    for (const auto &node : nodes)
        taken.insert(node.get());
    for (const auto &node : nodes) {
        bool isInTaken = false;
        for (auto above = node->parent(); above && !isInTaken; above = above->parent())
            isInTaken = taken.contains(above.get());
        if (isInTaken)
            continue;
        if (m_singlePreviewedArchive.isNull()) {
            const auto top = rootForFileNode(node);
            if (!archive)
                archive = top;
            if (top != archive)
                continue;
        }
        if (node == archive) {
            // The archive itself stands for all that is at its top.
            for (const auto &entry : node->mutableChildrenArray())
                dragged.paths.append(entry->filename());
        } else {
            dragged.paths.append(node->filename());
        }
    }
    dragged.archivePath = archive ? archive->filename() : m_singlePreviewedArchive;
    return dragged;
}

QStringList CVArchivePreviewController::desiredToolbarItems() const
{
    if (m_services.numberOfInputFiles() == 1)
        return {u"extract"_s, u"convert"_s, u"split"_s, u"cancel"_s, flexibleSpace};
    return {u"extract"_s, u"archive"_s, u"cancel"_s, flexibleSpace};
}

void CVArchivePreviewController::refreshToolbar(CVToolbar &toolbar)
{
    refreshActions();
    CVOutlineViewController::refreshToolbar(toolbar);
}

void CVArchivePreviewController::refreshActions()
{
    const bool isSingle = m_services.numberOfInputFiles() == 1;
    action(u"archive"_s)->setEnabled(!isSingle);
    action(u"convert"_s)->setEnabled(isSingle);
    action(u"split"_s)->setEnabled(isSingle);
    selectionDidChange();
}

void CVArchivePreviewController::selectionDidChange()
{
    const auto node = currentNode();
    const bool isEntry = hasSelection() && node;
    action(u"open"_s)->setEnabled(isEntry && node->isPreview());
    action(u"quickLook"_s)->setEnabled(isEntry && node->isPreview());
    action(u"extractSelection"_s)->setEnabled(isEntry);
}

QList<QAction *> CVArchivePreviewController::nodeActions()
{
    return {action(u"open"_s), action(u"quickLook"_s), nullptr, action(u"extractSelection"_s)};
}

void CVArchivePreviewController::viewWillBeUnloaded()
{
    delete m_quickLook;
    CVOutlineViewController::viewWillBeUnloaded();
}

void CVArchivePreviewController::openNode(const CVFileNode::Pointer &node)
{
    if (node->isPreview() && !node->filename().isEmpty())
        m_services.extractThenOpenFile(node->filename(), archivePathOf(node));
}

void CVArchivePreviewController::previewNode(const CVFileNode::Pointer &node)
{
    if (!node || !node->isPreview())
        return;
    if (!m_quickLook) {
        m_quickLook = new CVQuickLookPanel(m_services, m_navigator.mainWindow());
        m_quickLook->setAttribute(Qt::WA_DeleteOnClose);
        connect(m_quickLook, &CVQuickLookPanel::moveRequested, this, [this](int by) {
            if (!moveCurrent(by))
                return;
            const auto next = currentNode();
            if (next && next->isPreview())
                m_quickLook->showEntry(*next, next->filename(), archivePathOf(next));
        });
    }
    m_quickLook->showEntry(*node, node->filename(), archivePathOf(node));
    m_quickLook->show();
    m_quickLook->raise();
    m_quickLook->activateWindow();
}

void CVArchivePreviewController::dragNodes(const CVFileNode::List &nodes)
{
    const DraggedEntries entries = entriesForDrag(nodes);
    if (entries.paths.isEmpty())
        return;
    auto extraction = CVPrivateExtraction::start(m_services, entries.paths, entries.archivePath, this);
    connect(extraction.get(), &CVPrivateExtraction::finished, this, [this, dragged = extraction.get()] {
        if (!dragged->problem().isEmpty())
            setNotice(dragged->problem(), u"tool/info"_s);
    });
    auto *drag = new QDrag(activeView());
    drag->setMimeData(new CVEntryMimeData(extraction, m_navigator.mainWindow()));
    const int icon = CVTheme::scaled(4 * CVTheme::unit);
    drag->setPixmap(
        LXFileIcons::iconForName(fileNodeName(*nodes.front()).toString(), isFolderNode(*nodes.front()))
            .pixmap(QSize(icon, icon), view()->devicePixelRatioF()));
    const std::weak_ptr<CVPrivateExtraction> started = extraction;
    m_dragged.push_back(std::move(extraction));
    const QPointer guard(this);
    const Qt::DropAction result = drag->exec(Qt::CopyAction);
    if (!guard)
        return;
    const auto forget = [this, started] {
        std::erase_if(m_dragged, [&](const auto &held) { return held == started.lock(); });
    };
    if (result == Qt::IgnoreAction)
        forget();
    else
        QTimer::singleShot(keptAfterDrop, this, forget);
}

void CVArchivePreviewController::extractSelection()
{
    const CVFileNode::List nodes = selectedNodes(mostAtOnce + 1);
    if (static_cast<int>(nodes.size()) > mostAtOnce) {
        tellTooMany();
        return;
    }
    const DraggedEntries entries = entriesForDrag(nodes);
    if (entries.paths.isEmpty())
        return;
    CVFilePanels::chooseFolder(m_navigator.mainWindow(), tr("Choose destination"), tr("Extract"), {},
                               [guard = QPointer(this), entries](const std::optional<QString> &folder) {
                                   if (guard && folder)
                                       guard->m_services.extractSelection(entries.paths, entries.archivePath,
                                                                          *folder);
                               });
}

#include "ui/outline/CVOutlineViewController.h"

#include "engine/model/CVSettings.h"
#include "filetree/file_node_stack.h"
#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileKinds.h"
#include "ui/outline/CVFileListView.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"
#include "util/LXReleaseInBackground.h"

#include <QItemSelectionModel>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMenu>
#include <QPointer>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

// Selections of more rows than that are not carried over when rows are replaced.
constexpr int mostKept = 500;
constexpr int leastStored = 200;
constexpr int mostStored = 10000;

} // namespace

CVOutlineViewController::CVOutlineViewController(SizeKeys sizeKeys, QObject *parent)
    : CVViewController(parent)
    , m_sizeKeys(std::move(sizeKeys))
    , m_listModel(new CVFileNodeModel(this))
    , m_gridModel(new CVFileNodeModel(this))
{
    buildView();
    for (CVFileNodeModel *model : {m_listModel, m_gridModel}) {
        connect(model, &CVFileNodeModel::busyChanged, this, &CVOutlineViewController::refreshTexts);
        connect(model, &CVFileNodeModel::totalCountChanged, this, &CVOutlineViewController::refreshTexts);
        connect(model, &CVFileNodeModel::modelAboutToBeReset, this, &CVOutlineViewController::keepSelection);
        connect(model, &CVFileNodeModel::modelReset, this, &CVOutlineViewController::bringBackSelection);
        connect(model, &CVFileNodeModel::rowsInserted, this, &CVOutlineViewController::refreshTexts);
        connect(model, &CVFileNodeModel::rowsRemoved, this, &CVOutlineViewController::refreshTexts);
    }
    followBundleSetting();
    m_bundleObserver = CVSettings::observe(CVSettingsKey::inspectApplicationBundle,
                                           [guard = QPointer(this)](const QString &) {
                                               LXMainThread::post([guard] {
                                                   if (guard)
                                                       guard->followBundleSetting();
                                               });
                                           });
}

CVOutlineViewController::~CVOutlineViewController()
{
    CVSettings::removeObserver(m_bundleObserver);
    releaseInBackground(std::move(m_root));
}

void CVOutlineViewController::followBundleSetting()
{
    const bool asFiles = !CVSettings::boolean(CVSettingsKey::inspectApplicationBundle);
    m_listModel->setBundlesAsFiles(asFiles);
    m_gridModel->setBundlesAsFiles(asFiles);
}

QSize CVOutlineViewController::size() const
{
    const auto stored = [](const QString &key) {
        return static_cast<int>(std::clamp<qint64>(CVSettings::integer(key), leastStored, mostStored));
    };
    return QSize(stored(m_sizeKeys.width), stored(m_sizeKeys.height)).expandedTo(CVViewController::size());
}

void CVOutlineViewController::willLoadView()
{
    m_wasLoaded = false;
    refreshButtons();
    refreshTexts();
}

void CVOutlineViewController::didLoadView()
{
    m_wasLoaded = true;
    activeView()->setFocus(Qt::OtherFocusReason);
}

void CVOutlineViewController::viewWillBeUnloaded()
{
    // Before the slide has ended, the size may still be on its way.
    if (!std::exchange(m_wasLoaded, false) || !view() || view()->size() == size())
        return;
    CVSettings::setValue(m_sizeKeys.width, view()->width());
    CVSettings::setValue(m_sizeKeys.height, view()->height());
}

CVFileNodeModel &CVOutlineViewController::activeModel() const
{
    return m_mode == GridMode ? *m_gridModel : *m_listModel;
}

QAbstractItemView *CVOutlineViewController::activeView() const
{
    return m_mode == GridMode ? static_cast<QAbstractItemView *>(m_grid) : m_list;
}

void CVOutlineViewController::showTree(const CVFileNode::Pointer &root, CVFileNodeModel::Tree tree)
{
    m_searchTimer->stop();
    {
        const QSignalBlocker quiet(m_search);
        m_search->clear();
    }
    // Nothing of the tree before may be held here when it goes: taking it down is not for this thread.
    m_list->clearSelection();
    m_grid->clearSelection();
    m_kept.clear();
    m_forwardStack.clear();
    releaseInBackground(std::exchange(m_root, root));
    releaseInBackground(std::exchange(m_currentViewingNode, root));
    m_tree = tree;
    m_listModel->setSearchText({});
    m_gridModel->setSearchText({});
    m_gridModel->setRoot(nullptr, CVFileNodeModel::Tree::Frozen);
    m_listModel->setRoot(root, tree);
    m_mode = ListMode;
    m_stack->setCurrentWidget(m_list);
    m_list->setFolderColumnShown(false);
    refreshButtons();
    refreshTexts();
}

void CVOutlineViewController::updateTree(const CVFileNode::Pointer &root, CVFileNodeModel::Tree tree)
{
    if (root != m_root) {
        showTree(root, tree);
        return;
    }
    m_listModel->setRoot(root, tree);
    CVFileNode::Pointer above = m_currentViewingNode;
    while (above && above != m_root)
        above = above->parent();
    if (!above) {
        m_currentViewingNode = m_root;
        m_forwardStack.clear();
    }
    if (m_mode == GridMode)
        showFolder(m_currentViewingNode);
    refreshButtons();
    refreshTexts();
}

void CVOutlineViewController::switchView(int tag)
{
    m_mode = tag == GridMode ? GridMode : ListMode;
    m_stack->setCurrentWidget(activeView());
    if (m_mode == GridMode) {
        showFolder(m_currentViewingNode);
        m_gridModel->sort(static_cast<int>(m_listModel->order().column),
                          m_listModel->order().isDescending ? Qt::DescendingOrder : Qt::AscendingOrder);
    }
    startSearch();
    refreshButtons();
    refreshTexts();
    if (m_wasLoaded)
        activeView()->setFocus(Qt::OtherFocusReason);
}

void CVOutlineViewController::showFolder(const CVFileNode::Pointer &folder)
{
    m_kept.clear();
    m_currentViewingNode = folder;
    m_gridModel->setRoot(folder, folder == m_root ? m_tree : CVFileNodeModel::Tree::Frozen);
    refreshButtons();
    refreshTexts();
}

void CVOutlineViewController::goUp()
{
    if (m_mode != GridMode || !m_currentViewingNode || m_currentViewingNode == m_root)
        return;
    const CVFileNode::Pointer left = m_currentViewingNode;
    const CVFileNode::Pointer above = left->parent();
    pushFileNode(m_forwardStack, left);
    showFolder(above ? above : m_root);
    if (const int row = m_gridModel->rowOf(left.get()); row >= 0)
        m_grid->setCurrentIndex(m_gridModel->index(row, 0));
}

void CVOutlineViewController::goForward()
{
    if (m_mode != GridMode)
        return;
    if (const CVFileNode::Pointer next = popFileNode(m_forwardStack))
        showFolder(next);
}

void CVOutlineViewController::browse(const CVFileNode::Pointer &folder)
{
    m_forwardStack.clear();
    if (!m_search->text().isEmpty())
        m_search->clear();
    m_searchTimer->stop();
    m_gridModel->setSearchText({});
    showFolder(folder);
}

bool CVOutlineViewController::canBrowse(const CVFileNode &node) const
{
    if (node.isPreview())
        return node.isPreviewableFolder() || !node.mutableChildrenArray().empty();
    const bool isBundle = !CVSettings::boolean(CVSettingsKey::inspectApplicationBundle) && node.isPackage();
    return isExpandableNode(node) && !isBundle;
}

void CVOutlineViewController::open(const QModelIndex &index)
{
    const CVFileNode::Pointer node = activeModel().node(index.row());
    if (!node)
        return;
    if (m_mode == GridMode && canBrowse(*node))
        browse(node);
    else
        openNode(node);
}

void CVOutlineViewController::startSearch()
{
    const QString text = m_search->text().trimmed();
    m_list->setFolderColumnShown(!text.isEmpty() && m_mode == ListMode);
    activeModel().setSearchText(text);
    refreshTexts();
}

CVFileNode::List CVOutlineViewController::selectedNodes(int most) const
{
    CVFileNode::List nodes;
    QItemSelection selection = activeView()->selectionModel()->selection();
    std::ranges::sort(selection, {}, &QItemSelectionRange::top);
    for (const QItemSelectionRange &range : selection) {
        if (range.left() > 0)
            continue;
        for (int row = range.top(); row <= range.bottom() && static_cast<int>(nodes.size()) < most; ++row)
            nodes.push_back(activeModel().node(row));
    }
    return nodes;
}

bool CVOutlineViewController::hasSelection() const
{
    return activeView()->selectionModel()->hasSelection();
}

CVFileNode::Pointer CVOutlineViewController::currentNode() const
{
    return activeModel().node(activeView()->currentIndex().row());
}

bool CVOutlineViewController::moveCurrent(int by)
{
    const int row = activeView()->currentIndex().row() + by;
    if (row < 0 || row >= activeModel().rowCount())
        return false;
    activeView()->setCurrentIndex(activeModel().index(row, 0));
    return true;
}

void CVOutlineViewController::keepSelection()
{
    if (sender() != &activeModel() || !m_kept.empty())
        return;
    m_kept = selectedNodes(mostKept + 1);
    if (static_cast<int>(m_kept.size()) > mostKept)
        m_kept.clear();
}

void CVOutlineViewController::bringBackSelection()
{
    if (sender() != &activeModel() || activeModel().isBusy() || m_kept.empty())
        return refreshTexts();
    QItemSelection selection;
    int first = -1;
    const CVFileNode::List kept = std::exchange(m_kept, {});
    for (const auto &node : kept) {
        const int row = activeModel().rowOf(node.get());
        if (row < 0)
            continue;
        first = first < 0 ? row : first;
        selection.select(activeModel().index(row, 0), activeModel().index(row, 3));
    }
    if (first >= 0) {
        QItemSelectionModel *model = activeView()->selectionModel();
        model->setCurrentIndex(activeModel().index(first, 0), QItemSelectionModel::NoUpdate);
        model->select(selection, QItemSelectionModel::ClearAndSelect);
        activeView()->scrollTo(activeModel().index(first, 0));
    }
    refreshTexts();
}

void CVOutlineViewController::showContextMenu(const QPoint &point)
{
    const QList<QAction *> actions = nodeActions();
    if (actions.isEmpty() || !activeView()->indexAt(point).isValid())
        return;
    auto *menu = new QMenu(view());
    menu->setAttribute(Qt::WA_DeleteOnClose);
    for (QAction *action : actions) {
        if (action)
            menu->addAction(action);
        else
            menu->addSeparator();
    }
    menu->popup(activeView()->viewport()->mapToGlobal(point));
}

bool CVOutlineViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Resize && watched == m_stack)
        m_message->setGeometry(
            m_stack->rect().adjusted(CVTheme::margin, CVTheme::margin, -CVTheme::margin, -CVTheme::margin));
    if (event->type() != QEvent::ShortcutOverride && event->type() != QEvent::KeyPress)
        return CVViewController::eventFilter(watched, event);
    auto *key = static_cast<QKeyEvent *>(event);
    const bool isOverride = event->type() == QEvent::ShortcutOverride;
    if (watched == m_search) {
        const bool endsSearch = key->key() == Qt::Key_Escape && !m_search->text().isEmpty();
        const bool goesToFiles = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter ||
                                 (key->key() == Qt::Key_Down && !isOverride);
        if (!endsSearch && !goesToFiles)
            return CVViewController::eventFilter(watched, event);
        if (isOverride) {
            key->accept();
        } else if (endsSearch) {
            m_search->clear();
        } else {
            if (m_searchTimer->isActive()) {
                m_searchTimer->stop();
                startSearch();
            }
            activeView()->setFocus(Qt::OtherFocusReason);
        }
        return true;
    }
    // In the files these are the files', whatever they mean to the window.
    if (isOverride && (watched == m_list || watched == m_grid) && key->modifiers() == Qt::ControlModifier &&
        (key->key() == Qt::Key_A || key->key() == Qt::Key_O || key->key() == Qt::Key_Down)) {
        key->accept();
        return true;
    }
    return CVViewController::eventFilter(watched, event);
}

void CVOutlineViewController::setNotice(const QString &text, const QString &icon)
{
    m_noticeText = text;
    m_noticeLabel->setText(text);
    const int size = CVFileListView::iconSize();
    m_noticeIcon->setVisible(!icon.isEmpty());
    if (!icon.isEmpty())
        m_noticeIcon->setPixmap(
            CVTheme::icon(icon).pixmap(QSize(size, size), m_noticeIcon->devicePixelRatioF()));
    m_notice->setVisible(!text.isEmpty());
}

void CVOutlineViewController::refreshButtons()
{
    const bool isGrid = m_mode == GridMode;
    m_listButton->setChecked(!isGrid);
    m_gridButton->setChecked(isGrid);
    m_backButton->setVisible(isGrid);
    m_forwardButton->setVisible(isGrid);
    m_location->setVisible(isGrid);
    m_backButton->setEnabled(isGrid && m_currentViewingNode && m_currentViewingNode != m_root);
    m_forwardButton->setEnabled(isGrid && !m_forwardStack.empty());
    m_location->setText(m_currentViewingNode && m_currentViewingNode != m_root
                            ? LXDisplay::displayEscaped(fileNodeName(*m_currentViewingNode))
                            : QString());
}

QString CVOutlineViewController::statusText() const
{
    const CVFileNodeModel &model = activeModel();
    const QLocale locale;
    if (model.isSearching())
        return model.isBusy() ? tr("Searching…") : tr("%1 found").arg(locale.toString(model.rowCount()));
    if (model.isBusy())
        return tr("Sorting…");
    qint64 selected = 0;
    for (const QItemSelectionRange &range : activeView()->selectionModel()->selection())
        selected += range.left() == 0 ? range.height() : 0;
    // What is on the disk is counted as it is opened.
    const qint64 total = (m_mode == ListMode ? model.totalCount() : std::nullopt).value_or(model.rowCount());
    const QString shown = locale.toString(total);
    if (selected > 0)
        return tr("%1 of %2 selected").arg(locale.toString(selected), shown);
    return total == 1 ? tr("1 item") : tr("%1 items").arg(shown);
}

void CVOutlineViewController::refreshTexts()
{
    const CVFileNodeModel &model = activeModel();
    QString message;
    if (model.rowCount() == 0) {
        if (model.isBusy())
            message = model.isSearching() ? tr("Searching…") : tr("Reading the list of files…");
        else if (model.isSearching())
            message = tr("Nothing found for “%1”.").arg(LXDisplay::displayEscaped(model.searchText()));
        else
            message = m_mode == GridMode && m_currentViewingNode != m_root ? tr("This folder is empty.")
                                                                           : m_emptyText;
    }
    m_message->setText(message);
    m_message->setVisible(!message.isEmpty());
    m_status->setText(statusText());
}

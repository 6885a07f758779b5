#include "ui/outline/CVFileOptionsViewController.h"

#include "engine/model/CVSettings.h"
#include "platform/LXFileUri.h"
#include "platform/LXWorkspace.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVToolbar.h"
#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileListView.h"
#include "util/LXDisplay.h"

#include <QAction>
#include <QDropEvent>
#include <QLocale>
#include <QMimeData>

using namespace Qt::StringLiterals;

namespace {

QStringList localFiles(const QMimeData &data)
{
    QStringList paths;
    for (const QByteArray &line : data.data(u"text/uri-list"_s).split('\n')) {
        const QByteArray uri = line.trimmed();
        if (uri.isEmpty() || uri.startsWith('#'))
            continue;
        if (const auto path = LXFileUri::pathOfUri(QString::fromUtf8(uri)))
            paths.append(*path);
    }
    return paths;
}

} // namespace

CVFileOptionsViewController::CVFileOptionsViewController(CVFileOptionsServices services,
                                                         CVScreenNavigator &navigator, QObject *parent)
    : CVOutlineViewController({CVSettingsKey::multipleViewWidth, CVSettingsKey::multipleViewHeight}, parent)
    , m_services(std::move(services))
    , m_navigator(navigator)
{
    setEmptyText(tr("Drop files here."));
    const auto key = [](int letter) { return QKeySequence(Qt::CTRL | letter); };
    addAction(u"extract"_s, tr("&Extract"), u"tool/extract"_s, key(Qt::Key_E),
              [this] { m_services.extractArchive(); });
    addAction(u"combine"_s, tr("Co&mbine"), u"tool/combine"_s, key(Qt::Key_M),
              [this] { m_services.combineFiles(); });
    addAction(u"archive"_s, tr("&Archive…"), u"tool/archive"_s, key(Qt::Key_A),
              [this] { m_navigator.showCreateArchiveView(); });
    addAction(u"convert"_s, tr("&Convert…"), u"tool/convert"_s, key(Qt::Key_C),
              [this] { m_navigator.showConvertArchiveView(); });
    addAction(u"split"_s, tr("&Split…"), u"tool/split"_s, key(Qt::Key_S),
              [this] { m_services.showSplitFile(); });
    addAction(u"add"_s, tr("A&dd Files…"), u"tool/add"_s, key(Qt::Key_Plus), [this] {
        m_services.addFiles();
    })->setIconText(tr("Add"));
    addAction(u"remove"_s, tr("&Remove"), u"tool/remove"_s, QKeySequence(QKeySequence::Delete),
              [this] { removeSelection(); });
    addAction(u"cancel"_s, tr("Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
              [this] { m_navigator.backToMain(); });
    view()->setAcceptDrops(true);
    view()->installEventFilter(this);
    refreshActions();
}

void CVFileOptionsViewController::setupDisplay()
{
    if (m_isRemoving)
        return;
    updateTree(m_services.inputFiles(), CVFileNodeModel::Tree::Live);
    refreshActions();
    Q_EMIT toolbarChanged();
    Q_EMIT titleChanged();
}

void CVFileOptionsViewController::showOptions()
{
    const bool isPlain = !m_services.isArchiveSet() && !m_services.isSplitFileSet();
    if (isPlain && CVSettings::boolean(CVSettingsKey::skipOptionsView) == !m_services.isShiftKeyHeld()) {
        m_navigator.showCreateArchiveView();
        return;
    }
    setupDisplay();
    m_navigator.loadViewController(*this, false);
}

QString CVFileOptionsViewController::title() const
{
    const CVFileNode::List &files = m_services.inputFiles()->mutableChildrenArray();
    return files.size() == 1 ? LXDisplay::displayName(files.front()->filename())
                             : tr("%1 files").arg(QLocale().toString(static_cast<qulonglong>(files.size())));
}

QString CVFileOptionsViewController::mainAction() const
{
    if (m_services.isSplitFileSet())
        return u"combine"_s;
    return m_services.isArchiveSet() ? u"extract"_s : u"archive"_s;
}

QStringList CVFileOptionsViewController::desiredToolbarItems() const
{
    QStringList items{mainAction()};
    for (const QString &identifier : {u"extract"_s, u"combine"_s, u"archive"_s, u"convert"_s, u"split"_s}) {
        if (!items.contains(identifier) && action(identifier)->isEnabled())
            items.append(identifier);
    }
    return items << flexibleSpace << u"add"_s << u"remove"_s << u"cancel"_s;
}

void CVFileOptionsViewController::refreshToolbar(CVToolbar &toolbar)
{
    refreshActions();
    CVOutlineViewController::refreshToolbar(toolbar);
}

void CVFileOptionsViewController::refreshActions()
{
    const CVFileNode::List &files = m_services.inputFiles()->mutableChildrenArray();
    const bool isArchives = !files.empty() && m_services.isArchiveSet();
    action(u"extract"_s)->setEnabled(isArchives);
    action(u"convert"_s)->setEnabled(isArchives && files.size() == 1);
    action(u"combine"_s)->setEnabled(!files.empty() && m_services.isSplitFileSet());
    action(u"archive"_s)->setEnabled(!files.empty());
    action(u"split"_s)->setEnabled(files.size() == 1 && !files.front()->isDirectory());
    // Return does what is most likely wanted, whichever that is.
    const QKeySequence proceed(Qt::Key_Return);
    for (const QString &identifier : {u"extract"_s, u"combine"_s, u"archive"_s}) {
        QList<QKeySequence> keys = action(identifier)->shortcuts();
        keys.removeAll(proceed);
        keys.removeAll(QKeySequence(Qt::Key_Enter));
        if (identifier == mainAction())
            keys = QList<QKeySequence>{proceed, QKeySequence(Qt::Key_Enter)} + keys;
        action(identifier)->setShortcuts(keys);
    }
    selectionDidChange();
}

void CVFileOptionsViewController::selectionDidChange()
{
    action(u"remove"_s)->setEnabled(hasSelection());
}

QList<QAction *> CVFileOptionsViewController::nodeActions()
{
    return {action(u"remove"_s)};
}

void CVFileOptionsViewController::openNode(const CVFileNode::Pointer &node)
{
    if (!node->filename().isEmpty())
        LXWorkspace::shared()->openFile(node->filename());
}

void CVFileOptionsViewController::removeSelection()
{
    constexpr int mostRemoved = 10000;
    const CVFileNode::List nodes = selectedNodes(mostRemoved);
    if (nodes.empty())
        return;
    const int row = activeView()->currentIndex().row();
    listModel().stopWork();
    gridModel().stopWork();
    m_isRemoving = true;
    for (const auto &node : nodes)
        m_services.removeFileNode(node);
    m_isRemoving = false;
    if (m_services.inputFiles()->mutableChildrenArray().empty()) {
        updateTree(m_services.inputFiles(), CVFileNodeModel::Tree::Live);
        m_navigator.backToMain();
        return;
    }
    setupDisplay();
    const int next = std::min(row, activeModel().rowCount() - 1);
    if (next >= 0)
        activeView()->setCurrentIndex(activeModel().index(next, 0));
}

bool CVFileOptionsViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == view() && (event->type() == QEvent::DragEnter || event->type() == QEvent::DragMove ||
                              event->type() == QEvent::Drop)) {
        auto *drop = static_cast<QDropEvent *>(event);
        if (!drop->mimeData()->hasFormat(u"text/uri-list"_s) || !(drop->possibleActions() & Qt::CopyAction))
            return false;
        drop->setDropAction(Qt::CopyAction);
        drop->accept();
        if (event->type() == QEvent::Drop) {
            if (const QStringList paths = localFiles(*drop->mimeData()); !paths.isEmpty())
                m_services.tryToAddFiles(paths);
        }
        return true;
    }
    return CVOutlineViewController::eventFilter(watched, event);
}

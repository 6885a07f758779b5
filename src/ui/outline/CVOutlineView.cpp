#include "ui/outline/CVOutlineViewController.h"

#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileListView.h"

#include <QButtonGroup>
#include <QFrame>
#include <QHBoxLayout>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QShortcut>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

// Milliseconds for the next key before a search begins.
constexpr int typingPause = 120;

QToolButton *barButton(QWidget *parent, const QString &icon, const QString &name, const QString &tip)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(name);
    button->setIcon(CVTheme::icon(icon));
    button->setIconSize(QSize(CVFileListView::iconSize(), CVFileListView::iconSize()));
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::TabFocus);
    button->setToolTip(tip);
    button->setAccessibleName(tip);
    return button;
}

} // namespace

void CVOutlineViewController::buildView()
{
    auto *view = new QWidget;
    auto *column = new QVBoxLayout(view);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    auto *bar = new QWidget(view);
    auto *row = new QHBoxLayout(bar);
    row->setContentsMargins(CVTheme::spacing, CVTheme::spacing, CVTheme::spacing, CVTheme::spacing);
    row->setSpacing(CVTheme::spacing / 2);
    m_listButton = barButton(bar, u"tool/list"_s, u"listButton"_s, tr("Show as a list"));
    m_gridButton = barButton(bar, u"tool/grid"_s, u"gridButton"_s, tr("Show as icons"));
    m_backButton = barButton(bar, u"tool/back"_s, u"backButton"_s, tr("To the enclosing folder"));
    m_forwardButton = barButton(bar, u"tool/forward"_s, u"forwardButton"_s, tr("Forward"));
    auto *modes = new QButtonGroup(this);
    int mode = ListMode;
    for (QToolButton *button : {m_listButton, m_gridButton}) {
        button->setCheckable(true);
        modes->addButton(button, mode++);
    }
    m_listButton->setShortcut(QKeySequence(u"Ctrl+1"_s));
    m_gridButton->setShortcut(QKeySequence(u"Ctrl+2"_s));
    m_location = new QLabel(bar);
    m_location->setTextFormat(Qt::PlainText);
    m_location->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_search = new QLineEdit(bar);
    m_search->setObjectName(u"searchField"_s);
    m_search->setPlaceholderText(tr("Search"));
    m_search->setAccessibleName(tr("Search for names"));
    m_search->setClearButtonEnabled(true);
    m_search->setMaximumWidth(CVTheme::scaled(26 * CVTheme::unit));
    m_search->addAction(CVTheme::icon(u"tool/search"_s), QLineEdit::LeadingPosition);
    for (QWidget *control : QList<QWidget *>{m_listButton, m_gridButton, m_backButton, m_forwardButton})
        row->addWidget(control);
    row->addWidget(m_location, 1);
    row->addStretch();
    row->addWidget(m_search);

    m_notice = new QWidget(view);
    auto *notice = new QHBoxLayout(m_notice);
    notice->setContentsMargins(CVTheme::margin, 0, CVTheme::margin, CVTheme::spacing);
    m_noticeIcon = new QLabel(m_notice);
    m_noticeLabel = new QLabel(m_notice);
    m_noticeLabel->setObjectName(u"notice"_s);
    m_noticeLabel->setTextFormat(Qt::PlainText);
    m_noticeLabel->setWordWrap(true);
    m_noticeLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    notice->addWidget(m_noticeIcon, 0, Qt::AlignTop);
    notice->addWidget(m_noticeLabel, 1);
    m_notice->hide();

    m_stack = new QStackedWidget(view);
    m_list = new CVFileListView(*m_listModel, m_stack);
    m_list->setAccessibleName(tr("Files"));
    m_grid = new CVFileGridView(*m_gridModel, m_stack);
    m_grid->setAccessibleName(tr("Files as icons"));
    m_stack->addWidget(m_list);
    m_stack->addWidget(m_grid);
    m_message = new QLabel(m_stack);
    m_message->setObjectName(u"message"_s);
    m_message->setTextFormat(Qt::PlainText);
    m_message->setAlignment(Qt::AlignCenter);
    m_message->setWordWrap(true);
    m_message->setFont(CVTheme::titleFont());
    m_message->setForegroundRole(QPalette::PlaceholderText);
    m_message->setAttribute(Qt::WA_TransparentForMouseEvents);
    m_message->hide();
    auto *line = new QFrame(view);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setForegroundRole(QPalette::Mid);

    m_status = new QLabel(view);
    m_status->setObjectName(u"status"_s);
    m_status->setTextFormat(Qt::PlainText);
    m_status->setFont(CVTheme::smallFont());
    m_status->setContentsMargins(CVTheme::margin, CVTheme::spacing / 2, CVTheme::margin,
                                 CVTheme::spacing / 2);
    m_status->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);

    column->addWidget(bar);
    column->addWidget(m_notice);
    column->addWidget(m_stack, 1);
    column->addWidget(line);
    column->addWidget(m_status);

    m_searchTimer = new QTimer(this);
    m_searchTimer->setSingleShot(true);
    m_searchTimer->setInterval(typingPause);
    connect(m_searchTimer, &QTimer::timeout, this, &CVOutlineViewController::startSearch);
    connect(m_search, &QLineEdit::textChanged, m_searchTimer, qOverload<>(&QTimer::start));
    connect(modes, &QButtonGroup::idClicked, this, &CVOutlineViewController::switchView);
    connect(m_backButton, &QToolButton::clicked, this, &CVOutlineViewController::goUp);
    connect(m_forwardButton, &QToolButton::clicked, this, &CVOutlineViewController::goForward);
    connect(m_list, &CVFileListView::openRequested, this, &CVOutlineViewController::open);
    connect(m_grid, &CVFileGridView::openRequested, this, &CVOutlineViewController::open);
    connect(m_grid, &CVFileGridView::upRequested, this, &CVOutlineViewController::goUp);
    const auto preview = [this](const QModelIndex &index) { previewNode(activeModel().node(index.row())); };
    connect(m_list, &CVFileListView::previewRequested, this, preview);
    connect(m_grid, &CVFileGridView::previewRequested, this, preview);
    const auto drag = [this] {
        // Collecting more would take its time before anything is seen to move.
        if (const CVFileNode::List nodes = selectedNodes(mostAtOnce + 1);
            static_cast<int>(nodes.size()) > mostAtOnce)
            tellTooMany();
        else
            dragNodes(nodes);
    };
    connect(m_list, &CVFileListView::dragRequested, this, drag);
    connect(m_grid, &CVFileGridView::dragRequested, this, drag);
    for (QAbstractItemView *files :
         {static_cast<QAbstractItemView *>(m_list), static_cast<QAbstractItemView *>(m_grid)}) {
        files->installEventFilter(this);
        files->setContextMenuPolicy(Qt::CustomContextMenu);
        connect(files, &QWidget::customContextMenuRequested, this, &CVOutlineViewController::showContextMenu);
        connect(files->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
            refreshTexts();
            selectionDidChange();
        });
    }
    m_find = new QShortcut(QKeySequence::Find, view);
    connect(m_find, &QShortcut::activated, m_search, [this] { m_search->setFocus(Qt::ShortcutFocusReason); });
    m_search->installEventFilter(this);
    m_stack->installEventFilter(this);
    setView(view);
}

void CVOutlineViewController::tellTooMany()
{
    setNotice(tr("No more than %1 items can be taken at once.").arg(QLocale().toString(mostAtOnce)),
              u"tool/info"_s);
}

void CVOutlineViewController::addBelowFiles(QWidget *widget)
{
    auto *column = static_cast<QVBoxLayout *>(view()->layout());
    column->insertWidget(column->indexOf(m_stack) + 1, widget);
}

void CVOutlineViewController::setFindKey(const QKeySequence &key)
{
    m_find->setKey(key);
}

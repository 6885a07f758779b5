#include "ui/base/CVSkippedEntriesView.h"

#include "ui/base/CVTheme.h"
#include "util/LXDisplay.h"

#include <QAbstractTableModel>
#include <QEvent>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QToolButton>
#include <QTreeView>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/// A hostile archive can refuse to give anything a million times.
constexpr int rowsAtOnce = 500;
constexpr int linesShown = 6;

} // namespace

/// One row an entry, made as the list gets there.
class CVSkippedEntriesView::Model final : public QAbstractTableModel
{
public:
    enum Column { Name, Reason, Archive, Columns };

    using QAbstractTableModel::QAbstractTableModel;

    void setEntries(std::vector<CVSkippedInArchive> archives)
    {
        beginResetModel();
        m_archives = std::move(archives);
        m_ends.clear();
        std::size_t sum = 0;
        for (const CVSkippedInArchive &archive : m_archives)
            m_ends.push_back(sum += archive.entries.size());
        m_shown = std::min(total(), rowsAtOnce);
        endResetModel();
    }

    int total() const
    {
        return m_ends.empty() ? 0 : static_cast<int>(std::min<std::size_t>(m_ends.back(), INT_MAX));
    }
    const std::vector<CVSkippedInArchive> &archives() const { return m_archives; }

    int rowCount(const QModelIndex &parent = {}) const override { return parent.isValid() ? 0 : m_shown; }
    int columnCount(const QModelIndex &parent = {}) const override { return parent.isValid() ? 0 : Columns; }
    bool canFetchMore(const QModelIndex &parent) const override
    {
        return !parent.isValid() && m_shown < total();
    }
    void fetchMore(const QModelIndex &) override
    {
        const int more = std::min(rowsAtOnce, total() - m_shown);
        beginInsertRows({}, m_shown, m_shown + more - 1);
        m_shown += more;
        endInsertRows();
    }

    QVariant headerData(int section, Qt::Orientation orientation, int role) const override
    {
        if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
            return {};
        return section == Name     ? CVSkippedEntriesView::tr("Left out")
               : section == Reason ? CVSkippedEntriesView::tr("Why")
                                   : CVSkippedEntriesView::tr("Archive");
    }

    QVariant data(const QModelIndex &index, int role) const override
    {
        const bool isTip = role == Qt::ToolTipRole;
        if (!index.isValid() || (role != Qt::DisplayRole && !isTip))
            return {};
        const auto row = static_cast<std::size_t>(index.row());
        const auto end = std::ranges::upper_bound(m_ends, row);
        const CVSkippedInArchive &archive = m_archives[static_cast<std::size_t>(end - m_ends.begin())];
        const CVSkippedEntry &entry = archive.entries[row - (*end - archive.entries.size())];
        const QString text = index.column() == Name     ? LXDisplay::displayEscaped(entry.name)
                             : index.column() == Reason ? LXDisplay::displayEscaped(entry.reason)
                                                        : LXDisplay::displayName(archive.archivePath);
        // A tool tip would take markup in a name for its own.
        return isTip ? u"<span>%1</span>"_s.arg(text.toHtmlEscaped()) : text;
    }

private:
    std::vector<CVSkippedInArchive> m_archives;
    std::vector<std::size_t> m_ends; ///< rows up to the end of each archive
    int m_shown = 0;
};

CVSkippedEntriesView::CVSkippedEntriesView(QWidget *parent)
    : QWidget(parent)
    , m_model(new Model(this))
    , m_picture(new QLabel)
    , m_text(new QLabel)
    , m_toggle(new QToolButton)
    , m_list(new QTreeView)
{
    m_text->setTextFormat(Qt::PlainText);
    m_text->setWordWrap(true);
    m_toggle->setText(tr("&Details"));
    m_toggle->setAccessibleName(tr("Show what was left out"));
    m_toggle->setCheckable(true);
    m_toggle->setAutoRaise(true);
    m_toggle->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(m_toggle, &QToolButton::toggled, this, &CVSkippedEntriesView::setExpanded);
    m_list->setModel(m_model);
    m_list->setAccessibleName(tr("Entries that were left out"));
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setAlternatingRowColors(true);
    m_list->setTextElideMode(Qt::ElideMiddle);
    m_list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_list->setTabKeyNavigation(false);
    m_list->header()->setStretchLastSection(true);
    m_list->hide();

    auto *layout = new QGridLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setHorizontalSpacing(CVTheme::spacing);
    layout->setVerticalSpacing(CVTheme::spacing / 2);
    layout->addWidget(m_picture, 0, 0);
    layout->addWidget(m_text, 0, 1);
    layout->addWidget(m_toggle, 0, 2);
    layout->addWidget(m_list, 1, 0, 1, 3);
    layout->setColumnStretch(1, 1);
    applyStyle();
    setEntries({});
}

void CVSkippedEntriesView::applyStyle()
{
    const int side = CVTheme::scaled(2 * CVTheme::unit);
    m_picture->setPixmap(
        CVTheme::icon(u"tool/warning"_s).pixmap(QSize(side, side), m_picture->devicePixelRatioF()));
    m_toggle->setIcon(CVTheme::icon(isExpanded() ? u"tool/up"_s : u"tool/down"_s));
    m_list->setFixedHeight(m_list->header()->sizeHint().height() + 2 * m_list->frameWidth() +
                           linesShown * (m_list->fontMetrics().height() + CVTheme::unit / 2));
}

void CVSkippedEntriesView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
}

void CVSkippedEntriesView::setEntries(std::vector<CVSkippedInArchive> archives)
{
    m_model->setEntries(std::move(archives));
    const int total = m_model->total();
    const bool isOneArchive = m_model->archives().size() == 1;
    const QString archive =
        isOneArchive ? LXDisplay::displayName(m_model->archives().front().archivePath) : QString();
    if (total == 1)
        m_text->setText(isOneArchive ? tr("One entry of “%1” was left out.").arg(archive)
                                     : tr("One entry was left out."));
    else
        m_text->setText(
            isOneArchive
                ? tr("%1 entries of “%2” were left out.").arg(QString::number(total), archive)
                : tr("%1 entries of %2 archives were left out.").arg(total).arg(m_model->archives().size()));
    m_list->setColumnHidden(Model::Archive, isOneArchive);
    m_list->setColumnWidth(Model::Name, CVTheme::scaled(180));
    m_list->setColumnWidth(Model::Reason, CVTheme::scaled(200));
    setExpanded(false);
    setVisible(total > 0);
}

bool CVSkippedEntriesView::isExpanded() const
{
    return !m_list->isHidden();
}

void CVSkippedEntriesView::setExpanded(bool expanded)
{
    m_toggle->setChecked(expanded);
    if (expanded == isExpanded())
        return;
    m_list->setVisible(expanded);
    m_toggle->setIcon(CVTheme::icon(expanded ? u"tool/up"_s : u"tool/down"_s));
    updateGeometry();
    Q_EMIT expandedChanged();
}

QSize CVSkippedEntriesView::sizeHint() const
{
    return {0, QWidget::sizeHint().height()};
}

#include "ui/base/CVFilePanels.h"

#include "platform/desktop/LXFileIcons.h"
#include "ui/base/CVTheme.h"

#include <QAbstractFileIconProvider>
#include <QApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QHeaderView>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>
#include <QStandardPaths>
#include <QToolButton>
#include <QTreeView>

#include <array>
#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr QSize panelSize(760, 480);
constexpr int sidebarWidth = 140;
constexpr std::array columnWidths{80, 90, 140}; // size, type, date
constexpr std::array<std::pair<const char *, const char *>, 5> navigationIcons{
    {{"backButton", "tool/back"},
     {"forwardButton", "tool/forward"},
     {"toParentButton", "tool/up"},
     {"listModeButton", "tool/grid"},
     {"detailModeButton", "tool/list"}}};
constexpr int typeColumn = 2;

/// Answers with nothing if nobody has answered when its last owner goes.
template <typename Value> class OneAnswer
{
public:
    explicit OneAnswer(std::function<void(std::optional<Value>)> done)
        : m_done(std::move(done))
    {}
    ~OneAnswer() { give(std::nullopt); }
    OneAnswer(const OneAnswer &) = delete;
    OneAnswer &operator=(const OneAnswer &) = delete;

    void give(std::optional<Value> value)
    {
        if (const auto done = std::exchange(m_done, {}))
            done(std::move(value));
    }

private:
    std::function<void(std::optional<Value>)> m_done;
};

/// By names alone. Qt's own provider opens every file of a folder, on the main thread, to see of which type
/// it is.
class IconsByName final : public QAbstractFileIconProvider
{
public:
    QIcon icon(IconType type) const override
    {
        return type == Folder || type == Desktop ? LXFileIcons::iconForName({}, true)
                                                 : QAbstractFileIconProvider::icon(type);
    }
    QIcon icon(const QFileInfo &info) const override
    {
        // Icons are remembered by suffix; names without one would all be looked up.
        static const QIcon plain = LXFileIcons::iconForName(u"file"_s, false);
        return !info.isDir() && info.suffix().isEmpty()
                   ? plain
                   : LXFileIcons::iconForName(info.fileName(), info.isDir());
    }
    QString type(const QFileInfo &info) const override { return info.suffix(); }
};

/// Desktops' own panels choose files or folders; this one takes both.
class FilesAndFoldersPanel final : public QFileDialog
{
public:
    using QFileDialog::QFileDialog;

    QStringList chosen() const { return m_chosen; }

protected:
    // With a folder selected, the base class would go into it; a double click still does.
    void accept() override
    {
        const auto *name = findChild<QLineEdit *>(u"fileNameEdit"_s);
        const QStringList selected = selectedFiles();
        if (name && name->hasFocus() && selected.size() == 1 && QFileInfo(selected.first()).isDir()) {
            QFileDialog::accept();
            return;
        }
        for (const QString &path : selected) {
            if (!QFileInfo::exists(path)) {
                QFileDialog::accept(); // says so
                return;
            }
        }
        if (selected.isEmpty())
            return;
        m_chosen = selected;
        QDialog::accept();
    }

private:
    QStringList m_chosen;
};

/// Qt's own panel is small, cuts its columns and knows two places.
void furnish(QFileDialog *panel)
{
    QList<QUrl> places;
    for (const auto place : {QStandardPaths::HomeLocation, QStandardPaths::DesktopLocation,
                             QStandardPaths::DocumentsLocation, QStandardPaths::DownloadLocation}) {
        const QUrl url = QUrl::fromLocalFile(QStandardPaths::writableLocation(place));
        if (QFileInfo(url.toLocalFile()).isDir() && !places.contains(url))
            places.append(url);
    }
    places.append(QUrl::fromLocalFile(u"/"_s));
    panel->setSidebarUrls(places);
    panel->setViewMode(QFileDialog::Detail);
    static IconsByName icons;
    panel->setIconProvider(&icons);
    panel->resize(CVTheme::scaled(panelSize.width()), CVTheme::scaled(panelSize.height()));
    // Without an icon theme these would be the only glossy pictures in the program.
    for (auto *buttonBox : panel->findChildren<QDialogButtonBox *>()) {
        for (QAbstractButton *button : buttonBox->buttons())
            button->setIcon({});
    }
    for (const auto &[name, icon] : navigationIcons) {
        if (auto *button = panel->findChild<QToolButton *>(QLatin1StringView(name)))
            button->setIcon(CVTheme::icon(QLatin1StringView(icon)));
    }
    if (auto *newFolder = panel->findChild<QToolButton *>(u"newFolderButton"_s))
        newFolder->hide(); // what is chosen here is there already
    if (auto *splitter = panel->findChild<QSplitter *>(u"splitter"_s)) {
        const int wide = CVTheme::scaled(sidebarWidth);
        splitter->setSizes({wide, CVTheme::scaled(panelSize.width()) - wide});
    }
    if (auto *list = panel->findChild<QTreeView *>(u"treeView"_s)) {
        // Not by their contents: that would measure every file of a large folder.
        QHeaderView *header = list->header();
        header->setStretchLastSection(false);
        header->setSectionResizeMode(0, QHeaderView::Stretch);
        for (int i = 1; i < header->count() && i <= static_cast<int>(columnWidths.size()); ++i)
            header->resizeSection(i, CVTheme::scaled(columnWidths.at(static_cast<std::size_t>(i) - 1)));
        list->setUniformRowHeights(true);
        list->hideColumn(typeColumn);
    }
}

} // namespace

void CVFilePanels::chooseFiles(QWidget *window, const QString &title, const QString &button, FilesDone done)
{
    auto *panel = new FilesAndFoldersPanel(window, title);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setObjectName(u"filePanel"_s);
    panel->setOptions(QFileDialog::DontUseNativeDialog | QFileDialog::ReadOnly |
                      QFileDialog::DontUseCustomDirectoryIcons);
    panel->setFileMode(QFileDialog::ExistingFiles);
    panel->setLabelText(QFileDialog::Accept, button);
    furnish(panel);
    // Where files were chosen last; at first where the program was started, which a desktop does at the root.
    static QString folder;
    if (folder.isEmpty())
        folder = QDir::currentPath() == "/"_L1 ? QDir::homePath() : QDir::currentPath();
    panel->setDirectory(folder);
    const auto answer = std::make_shared<OneAnswer<QStringList>>(std::move(done));
    QObject::connect(panel, &QDialog::finished, panel, [panel, answer](int result) {
        if (result == QDialog::Accepted)
            folder = panel->directory().path();
        answer->give(result == QDialog::Accepted ? std::optional(panel->chosen()) : std::nullopt);
    });
    panel->open();
}

void CVFilePanels::chooseFolder(QWidget *window, const QString &title, const QString &button,
                                const QString &startIn, FolderDone done)
{
    auto *panel = new QFileDialog(window, title, startIn);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setObjectName(u"folderPanel"_s);
    panel->setFileMode(QFileDialog::Directory);
    panel->setOption(QFileDialog::ShowDirsOnly);
    if (!button.isEmpty())
        panel->setLabelText(QFileDialog::Accept, button);
    const auto answer = std::make_shared<OneAnswer<QString>>(std::move(done));
    QObject::connect(panel, &QDialog::finished, panel, [panel, answer](int result) {
        const QStringList chosen = panel->selectedFiles();
        answer->give(result == QDialog::Accepted && !chosen.isEmpty() ? std::optional(chosen.first())
                                                                      : std::nullopt);
    });
    panel->open();
}

QWidget *CVPanelServices::window(QObject *wanted) const
{
    if (auto *widget = qobject_cast<QWidget *>(wanted))
        return widget;
    if (QWidget *active = QApplication::activeWindow(); active && !active->isModal())
        return active;
    return m_mainWindow();
}

void CVPanelServices::chooseDestination(const QString &title, const QString &button,
                                        CVFilePanels::FolderDone done)
{
    CVFilePanels::chooseFolder(window(nullptr), title, button, {}, std::move(done));
}

void CVPanelServices::choose(const LXFolderChooserRequest &request, CVFilePanels::FolderDone done)
{
    CVFilePanels::chooseFolder(window(request.window), request.title, request.button, request.directory,
                               [accepts = request.accepts, done = std::move(done)](auto folder) {
                                   if (folder && accepts && !accepts(*folder))
                                       folder.reset();
                                   done(std::move(folder));
                               });
}

void CVPanelServices::show(const LXAlertRequest &request, std::function<void(Answer)> done)
{
    auto *box = new QMessageBox(window(request.window));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setTextFormat(Qt::PlainText);
    box->setText(request.message);
    box->setInformativeText(request.informativeText);
    QList<QPushButton *> buttons;
    for (const QString &text : request.buttons)
        buttons.append(box->addButton(text, QMessageBox::ActionRole));
    if (!buttons.isEmpty()) {
        box->setDefaultButton(buttons.first());
        box->setEscapeButton(buttons.last());
    }
    if (request.showsSuppressionButton)
        box->setCheckBox(new QCheckBox(QCoreApplication::translate("CVFilePanels", "&Do not ask again")));
    const int refusal = static_cast<int>(buttons.size()) - 1;
    const auto answer = std::make_shared<OneAnswer<Answer>>([refusal, done = std::move(done)](auto given) {
        done(given.value_or(Answer{refusal, false}));
    });
    QObject::connect(box, &QDialog::finished, box, [box, buttons, answer](int) {
        const auto pressed = buttons.indexOf(qobject_cast<QPushButton *>(box->clickedButton()));
        if (pressed >= 0)
            answer->give(Answer{static_cast<int>(pressed), box->checkBox() && box->checkBox()->isChecked()});
    });
    box->open();
}

#pragma once

#include "engine/model/CVDestinationChooser.h"
#include "sandbox/LXSandboxServices.h"

#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <functional>
#include <optional>

/// Panels as sheets on a window: they block that window alone and return at once. `done` is called exactly
/// once, with nothing when the panel was cancelled or its window went. Main thread.
namespace CVFilePanels {

using FilesDone = std::function<void(std::optional<QStringList> paths)>;
using FolderDone = std::function<void(std::optional<QString> folder)>;

/// Files and folders, several at once. The button's text may have a mnemonic.
void chooseFiles(QWidget *window, const QString &title, const QString &button, FilesDone done);

/// One folder, which can be made on the way.
void chooseFolder(QWidget *window, const QString &title, const QString &button, const QString &startIn,
                  FolderDone done);

} // namespace CVFilePanels

/// Panels for those who ask without knowing a window: the jobs and the file authoriser. They show on the
/// window in front, else on the one that `mainWindow` gives.
class CVPanelServices final : public CVDestinationChooser, public LXFolderChooser, public LXAlertPresenter
{
public:
    explicit CVPanelServices(std::function<QWidget *()> mainWindow)
        : m_mainWindow(std::move(mainWindow))
    {}

    void chooseDestination(const QString &title, const QString &button,
                           CVFilePanels::FolderDone done) override;
    void choose(const LXFolderChooserRequest &request, CVFilePanels::FolderDone done) override;
    void show(const LXAlertRequest &request, std::function<void(Answer)> done) override;

private:
    QWidget *window(QObject *wanted) const;

    const std::function<QWidget *()> m_mainWindow;
};

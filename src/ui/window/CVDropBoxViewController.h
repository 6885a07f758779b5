#pragma once

#include "engine/control/CVScreens.h"
#include "ui/base/CVViewController.h"

#include <QStringList>

#include <functional>

class CVDropBoxView;

/// The first screen. Main thread.
class CVDropBoxViewController final : public CVViewController, public CVDropBoxScreen
{
    Q_OBJECT

public:
    explicit CVDropBoxViewController(QObject *parent = nullptr);

    /// Dropped or pasted; never empty.
    void setHasNewFiles(std::function<void(QStringList paths)> hasNewFiles)
    {
        m_hasNewFiles = std::move(hasNewFiles);
    }
    /// The person wants a panel.
    void setOpenFile(std::function<void()> openFile) { m_openFile = std::move(openFile); }

    QStringList desiredToolbarItems() const override;
    void willLoadView() override;
    void reset() override;

private:
    void paste();

    CVDropBoxView *m_dropBox;
    std::function<void(QStringList)> m_hasNewFiles;
    std::function<void()> m_openFile;
};

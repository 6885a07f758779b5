#pragma once

#include "engine/control/CVScreens.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "ui/base/CVViewController.h"
#include "ui/options/CVOptionServices.h"

#include <memory>
#include <optional>
#include <vector>

class CVChunkSizeField;
class CVElidedLabel;
class CVFormatButton;
class CVScreenNavigator;
class QCheckBox;
class QLabel;

/// How a file is to be cut: into parts of which size, compressed or not, with or without checksums.
class CVSplitViewController final : public CVViewController, public CVSplitScreen
{
    Q_OBJECT

public:
    /// Of the services only start() is used. The navigator is borrowed.
    CVSplitViewController(CVOptionServices services, CVScreenNavigator &navigator, QObject *parent = nullptr);
    ~CVSplitViewController() override;

    std::shared_ptr<CVSplitOperationDataBinding> splitOperationData() override { return m_data; }
    /// The file that is shown and counted. Its size is looked up elsewhere, as it may lie on a slow disk.
    void setFile(const QString &path);

    QSize size() const override;
    QString title() const override { return tr("Split File"); }
    QStringList desiredToolbarItems() const override;
    void willLoadView() override { preloadView(); }
    void didLoadView() override;
    void viewWillBeUnloaded() override { stopObserving(); }
    bool eventFilter(QObject *watched, QEvent *event) override;

    void changeCompressionType(CVFormatButton *button);
    CVFormatButton *selectedButton() const { return m_selectedButton; }
    CVFormatButton *noneButton() const { return m_noneButton; }
    CVFormatButton *bZipButton() const { return m_bZipButton; }
    CVFormatButton *sevenZipButton() const { return m_sevenZipButton; }
    QCheckBox *checksumBox() const { return m_checksumBox; }
    CVChunkSizeField *chunkSizeField() const { return m_chunkSize; }
    /// What will come of it, in words.
    QString forecast() const;

private:
    void buildView();
    CVFormatButton *makeButton(int tag, const QString &icon, const QString &name);
    void preloadView();
    void renewData();
    void observe();
    void stopObserving();
    void select(unsigned setting);
    void refresh();
    CVFormatButton *buttonForSetting(unsigned setting) const;

    const CVOptionServices m_services;
    CVScreenNavigator &m_navigator;
    std::shared_ptr<CVSplitOperationDataBinding> m_data;
    std::vector<int> m_observers;
    QString m_path;
    std::optional<quint64> m_fileSize; ///< bytes; nothing as long as it is not known

    QLabel *m_icon = nullptr;
    CVElidedLabel *m_fileName = nullptr;
    QLabel *m_fileSizeText = nullptr;
    QLabel *m_subtitle = nullptr;
    CVFormatButton *m_noneButton = nullptr;
    CVFormatButton *m_bZipButton = nullptr;
    CVFormatButton *m_sevenZipButton = nullptr;
    CVFormatButton *m_selectedButton = nullptr;
    QLabel *m_description = nullptr;
    CVChunkSizeField *m_chunkSize = nullptr;
    QCheckBox *m_checksumBox = nullptr;
    QLabel *m_forecast = nullptr;
    std::shared_ptr<int> m_alive = std::make_shared<int>(); ///< for what comes back from other threads
};

#pragma once

#include "engine/control/CVScreens.h"
#include "ui/options/CVEditArchiveController.h"

/// How a new archive is to be made.
class CVCreateArchiveViewController final : public CVEditArchiveController, public CVCreateArchiveScreen
{
    Q_OBJECT

public:
    CVCreateArchiveViewController(CVOptionServices services, CVScreenNavigator &navigator,
                                  QObject *parent = nullptr);

    std::shared_ptr<CVCreateOperationDataBinding> operationDataBinding() override;
    void setNoneHidden(bool hidden) override { hideNone(hidden); }
    QString title() const override { return tr("Create Archive"); }

protected:
    QString finishButtonTitle() const override { return tr("C&reate"); }
    QString finishIcon() const override { return QStringLiteral("tool/create"); }
    std::shared_ptr<CVEditArchiveOperationDataBinding> makeBinding() const override;
    /// One item gives its name, several of one folder that of the folder, where it says something.
    QString suggestedName(const CVFileNode &files) const override;
    QString sourceDescription(const CVFileNode &files) const override;
};

#pragma once

#include "engine/control/CVScreens.h"
#include "ui/options/CVEditArchiveController.h"

/// Into what an archive is to be converted.
class CVConvertArchiveViewController final : public CVEditArchiveController, public CVConvertArchiveScreen
{
    Q_OBJECT

public:
    CVConvertArchiveViewController(CVOptionServices services, CVScreenNavigator &navigator,
                                   QObject *parent = nullptr);

    std::shared_ptr<CVConvertOperationDataBinding> operationDataBinding() override;
    void setNoneHidden(bool hidden) override { hideNone(hidden); }
    QString title() const override { return tr("Convert Archive"); }

protected:
    QString finishButtonTitle() const override { return tr("Con&vert"); }
    QString finishIcon() const override { return QStringLiteral("tool/convert"); }
    std::shared_ptr<CVEditArchiveOperationDataBinding> makeBinding() const override;
    void chooseFormat(const QString &format) override { binding()->setArchiveTypeValue(format); }
    /// A conversion leaves pictures as they are.
    bool offersImages() const override { return false; }
    QString suggestedName(const CVFileNode &files) const override;
    QString nameConflict(const QString &name) const override;
    QString sourceDescription(const CVFileNode &files) const override;
};

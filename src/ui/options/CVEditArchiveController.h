#pragma once

#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "ui/base/CVViewController.h"
#include "ui/options/CVFormatButtonBarView.h"
#include "ui/options/CVOptionServices.h"

#include <QPointer>

#include <memory>
#include <vector>

class CVEditArchiveView;
class CVFormatButton;
class CVScreenNavigator;

/// The screen on which the format of an archive and what goes with it are chosen; what is common to making
/// a new one and to converting one. It holds no settings of its own: every control shows a value of the
/// binding, and follows it.
///
/// A job keeps the binding that it was started with; the screen goes on with a new one that holds the same.
class CVEditArchiveController : public CVViewController, public CVFormatButtonBarDelegate
{
    Q_OBJECT

public:
    /// The navigator is borrowed.
    CVEditArchiveController(CVOptionServices services, CVScreenNavigator &navigator,
                            QObject *parent = nullptr);
    ~CVEditArchiveController() override;

    QStringList desiredToolbarItems() const override;
    QSize size() const override;
    void willLoadView() override;
    void didLoadView() override;
    void viewWillBeUnloaded() override;
    bool eventFilter(QObject *watched, QEvent *event) override;

    /// Selects the button and its format.
    void changeArchiveType(CVFormatButton *button) override;
    CVEditArchiveView *editView() const;
    CVFormatButton *selectedButton() const { return m_selectedButton; }
    /// The tag of the button that was selected before; -1 for none.
    int previousFormat() const { return m_previousFormat; }

protected:
    /// The verb of the action that goes on.
    virtual QString finishButtonTitle() const = 0;
    virtual QString finishIcon() const = 0;
    virtual std::shared_ptr<CVEditArchiveOperationDataBinding> makeBinding() const = 0;
    virtual void chooseFormat(const QString &format) { m_binding->setArchiveType(format); }
    virtual bool offersImages() const { return true; }
    /// The name to begin with, for a binding that knows its source.
    virtual QString suggestedName(const CVFileNode &files) const = 0;
    /// Why the archive may not have that file name, although it is a good one; null where it may.
    virtual QString nameConflict(const QString & /*name*/) const { return {}; }
    /// "12 items" and the like; may be empty.
    virtual QString sourceDescription(const CVFileNode &files) const = 0;

    /// To be called by the constructors of subclasses.
    void setUp();
    const std::shared_ptr<CVEditArchiveOperationDataBinding> &binding() const { return m_binding; }
    void hideNone(bool hidden);

private:
    void connectControls();
    void observeBinding();
    void stopObserving();
    void renewBinding();
    void takeInputs();

    bool offersRar() const;
    void setupFormatButtons();
    void selectButtonOfBinding();
    void select(CVFormatButton *button);
    void setNewHeight();

    void refreshAll();
    void refreshVisibility();
    void refreshName();
    void refreshLevel();
    void refreshMedia();
    void refreshVolumes();
    void refreshPasswords();
    void refreshFinish();
    QString outputName() const;
    QString nameProblem() const;
    bool canWriteVolumes() const;
    void volumesEdited();
    void finish();
    void fileWellHasNewFiles(const QStringList &paths);

    const CVOptionServices m_services;
    CVScreenNavigator &m_navigator;
    QPointer<CVEditArchiveView> m_view; // goes before or after this
    std::shared_ptr<CVEditArchiveOperationDataBinding> m_binding;
    CVFormatButton *m_selectedButton = nullptr;
    int m_previousFormat = -1;
    int m_currentHeight = 0;
    bool m_isLoaded = false;
    std::weak_ptr<CVFileNode> m_firstInput; ///< tells whether the inputs are still the same
    std::size_t m_inputCount = 0;
    std::vector<int> m_bindingObservers;
    std::vector<int> m_settingObservers;
    std::shared_ptr<int> m_alive = std::make_shared<int>(); ///< for calls posted from other threads
};

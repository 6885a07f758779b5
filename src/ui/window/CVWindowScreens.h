#pragma once

#include "engine/control/CVOperationController.h"
#include "ui/window/CVNavigationController.h"

#include <QObject>

#include <functional>
#include <memory>

class CVDropBoxViewController;
class CVFileAnalysisViewController;

/// The screens of one window, and which of them is wired to what. The drop box is there from the start;
/// the others are made when the first picture has been painted, for they would only delay it. Main thread.
class CVWindowScreens final : public QObject
{
    Q_OBJECT

public:
    /// Both are borrowed and outlive this.
    CVWindowScreens(CVOperationController &controller, CVNavigationController &navigation,
                    QObject *parent = nullptr);
    ~CVWindowScreens() override;

    /// Once.
    void setupViewControllers();
    /// No screen reaches the controller any more.
    void windowWillClose();

private:
    void setupOptionScreens();
    void setupPreview();
    void setupResultScreens();
    void resetPreviewedArchives();
    /// What a button does, until the window closes.
    std::function<void()> whileOpen(std::function<void(CVOperationController &)> call);

    CVOperationController *m_controller;
    CVNavigationController *m_navigation;
    CVNavigationController::Screens m_forNavigation;
    CVOperationController::Screens m_forController;
    CVDropBoxViewController *m_dropBox = nullptr;
    CVFileAnalysisViewController *m_fileAnalysis = nullptr;
};

#include "ui/window/CVWindowScreens.h"

#include "archives/CVArchive.h"
#include "ui/completed/CVOperationCompletedViewController.h"
#include "ui/options/CVConvertArchiveViewController.h"
#include "ui/options/CVCreateArchiveViewController.h"
#include "ui/options/CVSplitViewController.h"
#include "ui/outline/CVArchivePreviewController.h"
#include "ui/outline/CVFileOptionsViewController.h"
#include "ui/outline/CVOperationCompletedWithMultipleFilesViewController.h"
#include "ui/outline/CVQuickLookPanel.h"
#include "ui/progress/CVAlertViewController.h"
#include "ui/progress/CVPasswordViewController.h"
#include "ui/progress/CVProgressController.h"
#include "ui/window/CVDropBoxViewController.h"
#include "ui/window/CVFileAnalysisViewController.h"
#include "util/LXReleaseInBackground.h"

CVWindowScreens::CVWindowScreens(CVOperationController &controller, CVNavigationController &navigation,
                                 QObject *parent)
    : QObject(parent)
    , m_controller(&controller)
    , m_navigation(&navigation)
    , m_dropBox(new CVDropBoxViewController(this))
{
    m_dropBox->setHasNewFiles([this](const QStringList &paths) {
        if (m_controller)
            m_controller->controllerHasNewFiles(paths);
    });
    m_dropBox->setOpenFile(whileOpen([](CVOperationController &open) { open.openFile(); }));
    m_forNavigation.dropBox = m_dropBox;
    m_forController.dropBox = m_dropBox;
    m_forNavigation.resetDropBox = [this] { m_dropBox->reset(); };
    m_forNavigation.resetPreviewedArchives = [this] { resetPreviewedArchives(); };
    m_navigation->setScreens(m_forNavigation);
}

CVWindowScreens::~CVWindowScreens() = default;

void CVWindowScreens::setupViewControllers()
{
    m_fileAnalysis = new CVFileAnalysisViewController(this);
    m_fileAnalysis->setCancelled(whileOpen([](CVOperationController &open) { open.stopOperation(); }));
    m_forNavigation.fileAnalysis = m_fileAnalysis;
    m_forController.fileAnalysis = m_fileAnalysis;

    auto *progress = new CVProgressController(this);
    progress->setFilesDropped([this](const QStringList &paths) {
        if (m_controller)
            m_controller->controllerHasNewFilesDuringOperation(paths);
    });
    m_forNavigation.progress = progress;
    m_forController.progress = progress;
    auto *password = new CVPasswordViewController(*m_navigation, this);
    m_forNavigation.password = password;
    m_forController.password = password;
    auto *alert = new CVAlertViewController(this);
    m_forNavigation.alert = alert;
    m_forController.alert = alert;

    setupOptionScreens();
    setupPreview();
    setupResultScreens();

    m_navigation->setScreens(m_forNavigation);
    m_controller->setScreens(m_forController);
}

void CVWindowScreens::resetPreviewedArchives()
{
    if (!m_controller)
        return;
    CVFileTreeController &tree = m_controller->fileTreeController();
    disposeElsewhere(tree.previewedArchives());
    tree.resetPreviewedArchives();
}

void CVWindowScreens::setupOptionScreens()
{
    CVOptionServices services;
    services.inputFiles = [this] { return m_controller ? m_controller->inputFiles() : CVFileNode::create(); };
    services.bindingDelegate = m_controller->weak_from_this();

    CVFileOptionsServices choices;
    choices.inputFiles = services.inputFiles;
    choices.isArchiveSet = [this] { return m_controller && m_controller->isArchiveSet(); };
    choices.isSplitFileSet = [this] { return m_controller && m_controller->isSplitFileSet(); };
    choices.isShiftKeyHeld = [this] {
        return m_controller && m_navigation->controllerIsShiftKeyHeld(*m_controller);
    };
    choices.extractArchive = whileOpen([](CVOperationController &open) { open.extractArchive(); });
    choices.showSplitFile = whileOpen([](CVOperationController &open) { open.showSplitFile(); });
    choices.combineFiles = whileOpen([](CVOperationController &open) { open.combineFiles(); });
    choices.addFiles = whileOpen([](CVOperationController &open) { open.addFiles(); });
    choices.tryToAddFiles = [this](const QStringList &paths) {
        if (m_controller)
            m_controller->tryToAddFiles(paths);
    };
    choices.removeFileNode = [this](const CVFileNode::Pointer &node) {
        if (m_controller)
            m_controller->removeFileNode(node);
    };
    auto *options = new CVFileOptionsViewController(std::move(choices), *m_navigation, this);
    m_forNavigation.options = options;
    m_forController.options = options;

    services.start = whileOpen([](CVOperationController &controller) { controller.createArchive(); });
    auto *create = new CVCreateArchiveViewController(services, *m_navigation, this);
    m_forNavigation.create = create;
    m_forController.create = create;

    services.start = whileOpen([](CVOperationController &controller) { controller.convertArchive(); });
    auto *convert = new CVConvertArchiveViewController(services, *m_navigation, this);
    m_forNavigation.convert = convert;
    m_forController.convert = convert;

    services.start = whileOpen([](CVOperationController &controller) { controller.splitFile(); });
    auto *split = new CVSplitViewController(services, *m_navigation, this);
    m_forNavigation.split = split;
    m_forNavigation.setSplitFile = [split](const QString &path) { split->setFile(path); };
    m_forController.split = split;
}

void CVWindowScreens::setupPreview()
{
    CVArchivePreviewServices services;
    services.numberOfInputFiles = [this] {
        return m_controller ? static_cast<int>(m_controller->inputFiles()->mutableChildrenArray().size()) : 0;
    };
    services.extractArchive = whileOpen([](CVOperationController &open) { open.extractArchive(); });
    services.showSplitFile = whileOpen([](CVOperationController &open) { open.showSplitFile(); });
    services.extractThenOpenFile = [this](const QString &entryPath, const QString &archivePath) {
        if (m_controller)
            m_controller->extractThenOpenFile(entryPath, archivePath);
    };
    services.extractFiles = [this](const QStringList &entryPaths, const QString &archivePath,
                                   const QString &destination, auto ended) -> std::function<void()> {
        if (m_controller)
            return m_controller->extractFiles(entryPaths, archivePath, destination, std::move(ended),
                                              CVOperationController::Purpose::Look);
        ended({});
        return [] {};
    };
    services.extractSelection = [this](const QStringList &entryPaths, const QString &archivePath,
                                       const QString &destination) {
        if (m_controller)
            m_controller->extractFiles(entryPaths, archivePath, destination, {});
    };
    auto *preview = new CVArchivePreviewController(std::move(services), *m_navigation, this);
    m_forNavigation.preview = preview;
    m_forNavigation.setupPreview = [preview](const CVFileTreeController::Archives &archives) {
        preview->setupDisplayWithArchives(archives);
    };
    m_forNavigation.resetPreviewedArchives = [this, preview] {
        resetPreviewedArchives();
        preview->clear();
    };
}

void CVWindowScreens::setupResultScreens()
{
    auto *done = new CVOperationCompletedViewController(*m_navigation, this);
    m_forNavigation.done = done;
    m_forNavigation.showDone = [this, done](const QString &path) {
        if (m_controller)
            done->showDoneViewWithFile(path, m_controller->skippedEntries());
    };
    auto *multipleDone = new CVOperationCompletedWithMultipleFilesViewController(*m_navigation, this);
    m_forNavigation.multipleDone = multipleDone;
    m_forNavigation.setMultipleDoneFiles = [this, multipleDone](const QStringList &paths,
                                                                const std::function<void()> &whenSet) {
        if (m_controller)
            multipleDone->setFiles(paths, whenSet, m_controller->skippedEntries());
    };
}

std::function<void()> CVWindowScreens::whileOpen(std::function<void(CVOperationController &)> call)
{
    return [this, call = std::move(call)] {
        if (m_controller)
            call(*m_controller);
    };
}

void CVWindowScreens::windowWillClose()
{
    // Large trees would hold up the last moments of the window.
    m_forNavigation.resetPreviewedArchives();
    m_controller = nullptr;
}

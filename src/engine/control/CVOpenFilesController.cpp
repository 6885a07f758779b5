#include "engine/control/CVOpenFilesController.h"

#include "archives/CVArchive.h"
#include "archives/archive_string.h"
#include "engine/control/CVNavigationDelegate.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/model/CVSettings.h"
#include "filetree/CVFileTreeBuilder.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"
#include "util/LXReleaseInBackground.h"

#include <QSet>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

using namespace CVControl;

namespace {

// The animation outlasts the slide to the next screen.
constexpr std::chrono::milliseconds progressAfterglow{1000};

} // namespace

CVOpenFilesController::CVOpenFilesController(CVOperationController &delegate)
    : m_delegate(delegate)
{
    m_stopProgress.setSingleShot(true);
    QObject::connect(&m_stopProgress, &QTimer::timeout, &m_stopProgress,
                     [this] { m_delegate.d->stopProgress(); });
}

CVOpenFilesController::~CVOpenFilesController()
{
    close();
}

void CVOpenFilesController::close()
{
    m_isClosed = true;
    m_stop.request_stop();
    m_stopLooking.request_stop();
    m_stopProgress.stop();
    m_batches.clear();
    m_waiting.clear();
    m_isDeciding = false;
}

bool CVOpenFilesController::isExtractable(const QString &path)
{
    return CVArchive::isExtractableExtension(archivePathExtension(path));
}

void CVOpenFilesController::openFiles(const QStringList &paths)
{
    const bool inPlace = !m_isLaunchComplete && CVSettings::boolean(CVSettingsKey::openInPlace) &&
                         std::ranges::all_of(paths, isExtractable);
    route(paths, inPlace);
}

void CVOpenFilesController::openFile()
{
    m_delegate.d->navigate([this](CVNavigationDelegate &navigation) {
        navigation.controllerNeedsFilePanel(
            m_delegate, CVNavigationDelegate::FilePanel::Open,
            [this, alive = m_delegate.weak_from_this()](const std::optional<QStringList> &paths) {
                if (alive.lock() && paths)
                    route(*paths, false);
            });
    });
}

void CVOpenFilesController::addFiles()
{
    m_delegate.d->navigate([this](CVNavigationDelegate &navigation) {
        navigation.controllerNeedsFilePanel(
            m_delegate, CVNavigationDelegate::FilePanel::AddFiles,
            [this, alive = m_delegate.weak_from_this()](const std::optional<QStringList> &paths) {
                if (alive.lock() && paths)
                    tryToAddFiles(*paths);
            });
    });
}

void CVOpenFilesController::route(const QStringList &paths, bool inPlace)
{
    const auto &d = m_delegate.d;
    if (m_isClosed || !d->navigation)
        return;
    const bool isHidden = m_isLaunchComplete && !d->navigation->controllerWindowIsVisible(m_delegate);
    if ((d->isWorking && !isJobEnding()) || isHidden)
        return openWindowForArchives(paths);
    add({.paths = paths, .isInPlace = inPlace, .goesBackToMain = true});
}

void CVOpenFilesController::hasNewFiles(const QStringList &paths)
{
    m_delegate.d->navigate(
        [this](CVNavigationDelegate &navigation) { navigation.controllerNeedsToActivateApp(m_delegate); });
    add({.paths = paths});
}

void CVOpenFilesController::openWindowForArchives(const QStringList &paths)
{
    QStringList archives;
    std::ranges::copy_if(paths, std::back_inserter(archives), isExtractable);
    if (archives.isEmpty())
        return;
    m_delegate.d->navigate([&](CVNavigationDelegate &navigation) {
        navigation.controllerNeedsToOpenWindowAndExtractArchives(m_delegate, archives);
    });
}

void CVOpenFilesController::add(Batch batch)
{
    if (m_isClosed || batch.paths.isEmpty() || !m_delegate.d->navigation)
        return;
    batch.skipOptions = CVSettings::boolean(CVSettingsKey::skipOptionsView);
    batch.skipPreview = CVSettings::boolean(CVSettingsKey::skipArchivePreview);
    if (m_delegate.d->navigation->controllerIsShiftKeyHeld(m_delegate)) {
        batch.skipOptions = !batch.skipOptions;
        batch.forceChoice = !m_isLaunchComplete && batch.isInPlace;
        if (!batch.forceChoice)
            batch.skipPreview = !batch.skipPreview;
    }
    m_batches.push_back(std::move(batch));
    takeNextBatch();
}

void CVOpenFilesController::setLaunchComplete()
{
    m_isLaunchComplete = true;
    takeNextBatch();
}

void CVOpenFilesController::takeNextBatch()
{
    // A job that starts while it is decided about keeps this one from the next round.
    while (m_isLaunchComplete && !m_isDeciding && !m_isClosed && !m_batches.empty()) {
        if (isJobEnding())
            return; // its end comes back here
        const Batch batch = std::move(m_batches.front());
        m_batches.pop_front();
        if (m_delegate.d->isWorking)
            openWindowForArchives(batch.paths);
        else
            start(batch);
    }
}

bool CVOpenFilesController::isJobEnding() const
{
    const auto job = m_delegate.d->currentJob();
    return job && job->isForeground && job->operation->isCancelled();
}

void CVOpenFilesController::start(const Batch &batch)
{
    m_isDeciding = true;
    m_decidesInPlace = batch.isInPlace && !batch.forceChoice;
    if (batch.goesBackToMain) {
        m_delegate.d->navigate([this](CVNavigationDelegate &navigation) {
            navigation.controllerNeedsToGoBackToMainView(m_delegate);
        });
    }
    m_stopProgress.stop();
    m_delegate.d->startProgress();
    if (CVFileAnalysisScreen *const analysis = m_delegate.d->screens.fileAnalysis)
        analysis->setProgressMessage(tr("Analyzing files"));
    m_stopLooking = std::stop_source();
    m_isLooking = true;
    look(batch.paths, m_stopLooking.get_token(), [this, batch](const Found &found) {
        m_isLooking = false;
        decide(batch, found);
        m_isDeciding = false;
        m_decidesInPlace = false;
        takeNextBatch();
    });
}

bool CVOpenFilesController::abandon()
{
    if (!m_isLooking || m_isClosed)
        return false;
    m_stopLooking.request_stop();
    m_isLooking = false;
    m_isDeciding = false;
    m_decidesInPlace = false;
    m_delegate.d->navigate([this](CVNavigationDelegate &navigation) {
        navigation.controllerNeedsToGoBackToMainView(m_delegate);
    });
    stopProgressLater();
    takeNextBatch();
    return true;
}

void CVOpenFilesController::decide(const Batch &batch, const Found &found)
{
    const auto &d = m_delegate.d;
    if (d->isWorking) // a job that was started from a menu
        return openWindowForArchives(batch.paths);
    replaceTree(found);
    // A folder may be called like an archive.
    const bool inPlace = batch.isInPlace && !hasFolder();
    if (batch.forceChoice || !inPlace) {
        if (hasFolder() && batch.skipOptions) {
            d->navigate([this](CVNavigationDelegate &navigation) {
                navigation.controllerNeedsToLoadCreateView(m_delegate);
            });
            return stopProgressLater();
        }
        if (!found.isPreviewable) {
            if (d->screens.options)
                d->screens.options->showOptions();
            return stopProgressLater();
        }
        if (!batch.skipPreview) {
            if (d->screens.options)
                d->screens.options->setupDisplay();
            return d->runPreview();
        }
    }
    d->extract(inPlace && !batch.forceChoice);
    stopProgressLater();
}

void CVOpenFilesController::stopProgressLater()
{
    if (!m_isClosed)
        m_stopProgress.start(progressAfterglow);
}

void CVOpenFilesController::look(const QStringList &paths, std::stop_token stop,
                                 std::function<void(Found)> then)
{
    // Not on the queue: its places may all be taken by jobs that run for hours.
    std::thread([this, alive = m_delegate.weak_from_this(), stop = std::move(stop), paths,
                 then = std::move(then)] {
        const auto root = CVFileNode::create();
        CVFileTreeBuilder::addFiles(paths, *root, stop);
        auto found = std::make_shared<Found>();
        found->nodes = root->mutableChildrenArray();
        for (const auto &node : found->nodes) {
            if (stop.stop_requested())
                return;
            const QString &path = node->filename();
            const unsigned kind = kindByName(path) | (node->isDirectory() ? Folder : 0U);
            found->kinds.insert(path, kind);
            found->isPreviewable = found->isPreviewable && kind == Archive &&
                                   CVArchive::archiveForPreviewing(path)->canPreview();
        }
        root->removeAllChildren();
        LXMainThread::post([this, alive, stop, found, then] {
            if (alive.lock() && !stop.stop_requested())
                then(std::move(*found));
        });
    }).detach();
}

void CVOpenFilesController::replaceTree(const Found &found)
{
    CVFileTreeController &tree = m_delegate.d->tree;
    CVFileNode::List before = tree.inputFiles()->mutableChildrenArray();
    tree.reset();
    disposeElsewhere(std::move(before));
    m_delegate.d->setPreviewedArchives({});
    m_kinds.clear();
    addToTree(found);
}

void CVOpenFilesController::addToTree(const Found &found)
{
    const auto &root = m_delegate.d->tree.inputFiles();
    QSet<QString> known;
    for (const auto &node : root->mutableChildrenArray())
        known.insert(node->filename());
    for (const auto &node : found.nodes) {
        if (!known.contains(node->filename()))
            root->appendChild(node);
    }
    m_kinds.insert(found.kinds);
}

void CVOpenFilesController::tryToAddFiles(const QStringList &paths)
{
    if (paths.isEmpty() || m_isClosed || m_delegate.d->isWorking) // a job reads the tree
        return;
    ++m_additions;
    look(paths, m_stop.get_token(), [this](const Found &found) {
        addToTree(found);
        if (m_delegate.d->screens.options)
            m_delegate.d->screens.options->setupDisplay();
        if (--m_additions > 0)
            return;
        for (const auto &waiting : std::exchange(m_waiting, {}))
            waiting();
    });
}

void CVOpenFilesController::whenTreeIsComplete(std::function<void()> f)
{
    if (m_additions > 0)
        m_waiting.push_back(std::move(f));
    else
        f();
}

void CVOpenFilesController::addAndExtractArchives(const QStringList &paths)
{
    if (paths.isEmpty() || m_isClosed)
        return;
    m_isDeciding = true;
    look(paths, m_stop.get_token(), [this, paths](const Found &found) {
        const auto &d = m_delegate.d;
        replaceTree(found);
        d->extract(false);
        if (d->screens.progress) {
            d->screens.progress->setJob(tr("Opening “%1”").arg(LXDisplay::displayName(paths.first())));
            d->screens.progress->setProgressImage(paths.first(), false);
        }
        m_isDeciding = false;
        takeNextBatch();
    });
}

bool CVOpenFilesController::extractInPlace() const
{
    return m_decidesInPlace ||
           std::ranges::any_of(m_batches, [](const Batch &b) { return b.isInPlace && !b.forceChoice; });
}

unsigned CVOpenFilesController::kindByName(const QString &path)
{
    return (isExtractable(path) ? Archive : 0U) | (isSplitFile(path) ? SplitFile : 0U);
}

unsigned CVOpenFilesController::kindOf(const CVFileNode::Pointer &node) const
{
    const auto found = m_kinds.constFind(node->filename());
    return found != m_kinds.cend() ? *found : kindByName(node->filename());
}

bool CVOpenFilesController::hasFolder() const
{
    const auto nodes = m_delegate.d->tree.children();
    return std::ranges::any_of(nodes, [this](const auto &node) { return (kindOf(node) & Folder) != 0; });
}

bool CVOpenFilesController::isArchiveSet() const
{
    const auto nodes = m_delegate.d->tree.children();
    return std::ranges::all_of(
        nodes, [this](const auto &node) { return (kindOf(node) & (Folder | Archive)) == Archive; });
}

bool CVOpenFilesController::isSplitFileSet() const
{
    const auto nodes = m_delegate.d->tree.children();
    return !nodes.empty() && std::ranges::all_of(nodes, [this](const auto &node) {
        return (kindOf(node) & (Folder | SplitFile)) == SplitFile;
    });
}

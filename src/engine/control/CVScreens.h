#pragma once

#include "engine/model/CVBatchPosition.h"
#include "util/LXProgressRate.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

class CVCreateOperationDataBinding;
class CVConvertOperationDataBinding;
class CVSplitOperationDataBinding;

/// What the controller of a window needs of its screens, as far as it needs it. Nothing here draws.
///
/// Thread: the main thread, unless a function says "any thread". Ownership: the window owns its screens
/// and its controller; the controller borrows the screens and is told when they go.

/// A screen as the navigation passes it around: the identity of a CVViewController.
class CVScreen
{
public:
    CVScreen() = default;
    virtual ~CVScreen() = default;
    CVScreen(const CVScreen &) = delete;
    CVScreen &operator=(const CVScreen &) = delete;
};

class CVProgressScreen
{
public:
    virtual ~CVProgressScreen() = default;

    /// Any thread, returns at once; a total of 0 gives an empty bar.
    virtual void setProgress(double done, double total) = 0;
    /// Any thread, before the numbers: what they count. reset() brings back shares.
    virtual void setProgressUnit(LXProgressUnit) {}
    /// Any thread. Of a job with several archives; reset() ends it.
    virtual void setBatchPosition(const CVBatchPosition &) {}
    /// Any thread.
    virtual void setIndeterminate() = 0;
    /// Any thread. The line that says what is being done, as plain text.
    virtual void setJob(const QString &text) = 0;
    /// Any thread. Icon of the kind of file that the name stands for.
    virtual void setProgressImage(const QString &filename, bool showMultiples) = 0;
    /// What the cancel button does; replaces what it did before. Any thread.
    virtual void setCancelButton(std::function<void()> action) = 0;
    /// Indeterminate and without text.
    virtual void reset() = 0;
    /// Whether files dropped on the screen are taken (archives open a window of their own).
    virtual void setAcceptsDrops(bool accepts) = 0;
};

class CVFileAnalysisScreen
{
public:
    virtual ~CVFileAnalysisScreen() = default;
    virtual void startAnimating() = 0;
    virtual void stopAnimating() = 0;
    /// Any thread.
    virtual void setProgressMessage(const QString &text) = 0;
};

class CVAlertScreen
{
public:
    virtual ~CVAlertScreen() = default;

    virtual CVScreen *screen() = 0;
    /// Plain texts.
    virtual void prepareAlert(bool withCancelButton, const QString &message, const QString &informativeText,
                              const QString &defaultButtonLabel) = 0;
    /// To be called before the screen is shown. `ended` is called exactly once: with 1 for the default
    /// button, with 0 for cancel or stop().
    virtual void run(std::function<void(int result)> ended) = 0;
    /// Ends a running alert as cancelled; otherwise nothing.
    virtual void stop() = 0;
};

/// Told how a prompt ended, before the waiting job goes on.
class CVPasswordDelegate
{
public:
    virtual ~CVPasswordDelegate() = default;
    virtual void passwordPromptFinishedWasCancelled(bool cancelled) = 0;
};

class CVPasswordScreen
{
public:
    virtual ~CVPasswordScreen() = default;

    virtual CVScreen *screen() = 0;
    virtual void setPasswordDelegate(CVPasswordDelegate *delegate) = 0;
    virtual void setInformativeText(const QString &text) = 0;
    /// Any thread, before the prompt: the password that was given last did not fit, and is kept to be mended.
    virtual void setLastTryFailed(bool) {}
    /// Worker thread: shows the prompt and waits for the answer. Nothing when it was cancelled, when
    /// `stop` was requested or when the screen was stopped. The delegate hears of the end exactly once,
    /// on the main thread; after `stop` it does not hear of it (whoever stopped it goes back itself).
    virtual std::optional<QString> promptForPassword(std::stop_token stop) = 0;
};

/// The create screen or the convert screen.
template <typename Binding> class CVEditArchiveScreen
{
public:
    virtual ~CVEditArchiveScreen() = default;
    /// Never null. The job takes the one that is current when it starts.
    virtual std::shared_ptr<Binding> operationDataBinding() = 0;
    /// The choice of no compression is not offered.
    virtual void setNoneHidden(bool hidden) = 0;
};
using CVCreateArchiveScreen = CVEditArchiveScreen<CVCreateOperationDataBinding>;
using CVConvertArchiveScreen = CVEditArchiveScreen<CVConvertOperationDataBinding>;

class CVSplitScreen
{
public:
    virtual ~CVSplitScreen() = default;
    virtual std::shared_ptr<CVSplitOperationDataBinding> splitOperationData() = 0;
};

/// The screen with the files that were dropped.
class CVFileOptionsScreen
{
public:
    virtual ~CVFileOptionsScreen() = default;
    /// Shows what the window's tree of input files holds now.
    virtual void setupDisplay() = 0;
    /// Shows itself, or goes on to the create screen where nothing is to be chosen.
    virtual void showOptions() = 0;
};

class CVDropBoxScreen
{
public:
    virtual ~CVDropBoxScreen() = default;
    virtual void reset() = 0;
};

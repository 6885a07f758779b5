#include "engine/model/CVOperation.h"

#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "sandbox/CVFileAuthenticator.h"

#include <QCoreApplication>

#include <exception>

CVOperation::~CVOperation() = default;

QString CVOperation::taskDescription() const
{
    return QCoreApplication::translate("CVOperation", "Command");
}

void CVOperation::cancel()
{
    if (m_stop.request_stop())
        tell(m_onCancelled);
}

void CVOperation::finish()
{
    if (!m_finished.exchange(true))
        tell(m_onFinished);
}

void CVOperation::run()
{
    if (isCancelled()) {
        if (endOnce())
            delegate()->operationWasCancelled(this);
        finish();
        return;
    }
    try {
        main();
    } catch (const std::exception &e) { // no memory, no thread
        if (endOnce())
            delegate()->operationFailedWithError(
                this, {.domain = QStringLiteral("CorvaneErrorDomain"),
                       .code = CVFileError::outOfResources,
                       .description =
                           QCoreApplication::translate("CVOperation", "The task could not be completed."),
                       .reason = QCoreApplication::translate("CVOperation",
                                                             "The computer refused what it needs: %1")
                                     .arg(QString::fromLocal8Bit(e.what())),
                       .suggestion = QCoreApplication::translate("CVOperation",
                                                                 "Close other programs and try again.")});
    }
    if (!endsAfterMain())
        finish();
}

int CVOperation::observe(Observers &observers, Observer observer)
{
    {
        const std::lock_guard lock(m_mutex);
        const int id = m_nextObserver++;
        if (!observers.told) {
            observers.waiting.emplace(id, std::move(observer));
            return id;
        }
    }
    observer(*this);
    return 0;
}

void CVOperation::tell(Observers &observers)
{
    // An observer may drop the last owner of this job.
    const auto self = weak_from_this().lock();
    std::map<int, Observer> waiting;
    {
        const std::lock_guard lock(m_mutex);
        observers.told = true;
        waiting.swap(observers.waiting);
    }
    for (auto &[id, observer] : waiting)
        observer(*this);
}

int CVOperation::observeFinished(Observer observer)
{
    return observe(m_onFinished, std::move(observer));
}

int CVOperation::observeCancelled(Observer observer)
{
    return observe(m_onCancelled, std::move(observer));
}

void CVOperation::removeObserver(int id)
{
    const std::lock_guard lock(m_mutex);
    m_onFinished.waiting.erase(id);
    m_onCancelled.waiting.erase(id);
}

std::shared_ptr<CVOperationDelegate> CVOperation::delegate() const
{
    static const auto nobody = std::make_shared<CVOperationDelegate>();
    const std::lock_guard lock(m_mutex);
    if (auto delegate = m_delegate.lock())
        return delegate;
    return nobody;
}

void CVOperation::setDelegate(std::weak_ptr<CVOperationDelegate> delegate)
{
    const std::lock_guard lock(m_mutex);
    m_delegate = std::move(delegate);
}

std::shared_ptr<LXSandboxFileAuthenticator> CVOperation::fileAuthenticator() const
{
    const std::lock_guard lock(m_mutex);
    return m_fileAuthenticator;
}

void CVOperation::setFileAuthenticator(std::shared_ptr<LXSandboxFileAuthenticator> authenticator)
{
    const std::lock_guard lock(m_mutex);
    m_fileAuthenticator = std::move(authenticator);
}

bool CVOperation::destinationSetToAskMe() const
{
    return CVSettings::integer(CVSettingsKey::extractDestination) ==
           static_cast<int>(CVExtractDestination::AskMe);
}

void CVOperation::runAuthorizedHandler(const QStringList &paths, AuthorizedHandler handler)
{
    auto authenticator = fileAuthenticator();
    if (!authenticator)
        authenticator = CVFileAuthenticator::fileAuthenticator();
    QObject *window = delegate()->operationNeedsWindowForSandboxDialog(this);
    authenticator->authorizeItemsAtURLsWithSingleURL(paths, CVFileAuthenticator::message(), window,
                                                     std::move(handler));
}

void CVOperation::runAuthorizedHandlerToDestination(const QString &destination, const QStringList &paths,
                                                    AuthorizedHandler handler)
{
    if (destinationSetToAskMe())
        handler(true, destination);
    else
        runAuthorizedHandler(paths, std::move(handler));
}

void CVOperation::startSecurelyAccessing(const QString &path)
{
    if (const auto authenticator = fileAuthenticator(); authenticator && !destinationSetToAskMe())
        authenticator->startAccessing(path);
}

void CVOperation::stopSecurelyAccessing(const QString &path)
{
    if (const auto authenticator = fileAuthenticator(); authenticator && !destinationSetToAskMe())
        authenticator->stopAccessing(path);
}

#pragma once

#include "engine/ControllerRecorders.h"
#include "util/LXMainThread.h"
#include "util/LXPendingAnswer.h"

#include <QFile>
#include <QFileInfo>
#include <QObject>
#include <QTimer>

#include <functional>
#include <mutex>
#include <optional>
#include <utility>

// The screens of a RecordedWindow and the desktop around it. Each writes down what it is asked to do and
// answers as the window says.

using namespace Qt::StringLiterals;

class Named final : public CVScreen
{
public:
    explicit Named(QString givenName)
        : name(std::move(givenName))
    {}
    const QString name;
};

class ProgressRecorder final : public CVProgressScreen
{
public:
    explicit ProgressRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    void setProgress(double, double) override
    {
        ++m_window.progressCalls;
        m_window.onProgress();
    }
    void setIndeterminate() override {}
    void setJob(const QString &) override {}
    void setProgressImage(const QString &, bool) override {}
    void setCancelButton(std::function<void()> action) override
    {
        const std::lock_guard lock(m_mutex);
        m_cancel = std::move(action);
    }
    void reset() override {}
    void setAcceptsDrops(bool) override {}
    void pressCancel()
    {
        std::function<void()> action;
        {
            const std::lock_guard lock(m_mutex);
            action = m_cancel;
        }
        action();
    }

private:
    RecordedWindow &m_window;
    std::mutex m_mutex;
    std::function<void()> m_cancel;
};

class AnalysisRecorder final : public CVFileAnalysisScreen
{
public:
    void startAnimating() override { isAnimating = true; }
    void stopAnimating() override { isAnimating = false; }
    void setProgressMessage(const QString &) override {}
    bool isAnimating = false;
};

class AlertRecorder final : public CVAlertScreen
{
public:
    explicit AlertRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    CVScreen *screen() override { return &m_screen; }
    void prepareAlert(bool withCancelButton, const QString &message, const QString &informativeText,
                      const QString &defaultButtonLabel) override
    {
        m_message = message;
        m_window.informativeText = informativeText;
        m_window.log.note(
            u"alert %1 %2%3"_s.arg(message, defaultButtonLabel, withCancelButton ? u"/Cancel"_s : QString()));
    }
    void run(std::function<void(int)> ended) override
    {
        m_ended = std::move(ended);
        const auto answer = m_window.answerAlert ? m_window.answerAlert(m_message) : 1;
        if (answer)
            QTimer::singleShot(0, &m_context, [this, answer] { end(*answer); });
    }
    void stop() override { end(0); }
    bool isRunning() const { return m_ended != nullptr; }

private:
    void end(int result)
    {
        if (const auto ended = std::exchange(m_ended, {}))
            ended(result);
    }
    RecordedWindow &m_window;
    Named m_screen{u"alert"_s};
    QString m_message;
    std::function<void(int)> m_ended;
    QObject m_context;
};

class PasswordRecorder final : public CVPasswordScreen
{
public:
    explicit PasswordRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    CVScreen *screen() override { return &m_screen; }
    void setPasswordDelegate(CVPasswordDelegate *delegate) override { m_delegate = delegate; }
    void setInformativeText(const QString &text) override { m_window.log.note(u"password? "_s + text); }
    std::optional<QString> promptForPassword(std::stop_token stop) override
    {
        const auto pending = std::make_shared<LXPendingAnswer<std::optional<QString>>>();
        if (!m_window.letsPasswordStand) {
            LXMainThread::post([this, pending, stop] {
                if (stop.stop_requested())
                    return;
                const auto answer = m_window.answerPassword ? m_window.answerPassword() : std::nullopt;
                m_delegate->passwordPromptFinishedWasCancelled(!answer);
                pending->give(answer);
            });
        }
        return pending->wait(stop).value_or(std::nullopt);
    }

private:
    RecordedWindow &m_window;
    Named m_screen{u"password"_s};
    CVPasswordDelegate *m_delegate = nullptr;
};

template <typename Binding> class EditRecorder final : public CVEditArchiveScreen<Binding>
{
public:
    EditRecorder(RecordedWindow &window, std::shared_ptr<Binding> &data)
        : m_window(window)
        , m_data(data)
    {}
    std::shared_ptr<Binding> operationDataBinding() override { return m_data; }
    void setNoneHidden(bool hidden) override { m_window.noneHidden = hidden; }

private:
    RecordedWindow &m_window;
    std::shared_ptr<Binding> &m_data;
};

class SplitRecorder final : public CVSplitScreen
{
public:
    explicit SplitRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    std::shared_ptr<CVSplitOperationDataBinding> splitOperationData() override { return m_window.splitData; }

private:
    RecordedWindow &m_window;
};

class DropBoxRecorder final : public CVDropBoxScreen
{
public:
    void reset() override {}
};

class OptionsRecorder final : public CVFileOptionsScreen
{
public:
    explicit OptionsRecorder(RecordedWindow &window)
        : m_window(window)
    {}
    void setupDisplay() override { m_window.log.note(u"options set up"_s); }
    void showOptions() override
    {
        m_window.optionsShown.clear();
        for (const auto &node : m_window.controller->inputFiles()->children())
            m_window.optionsShown.append(node->target());
        m_window.log.note(u"options"_s);
    }

private:
    RecordedWindow &m_window;
};

class NotificationRecorder final : public LXUserNotifications
{
public:
    explicit NotificationRecorder(WindowLog &log)
        : m_log(log)
    {}
    void post(const QString &title, const QString &text) override
    {
        m_log.note(u"told “%1”: %2"_s.arg(title, text));
    }

private:
    WindowLog &m_log;
};

class ViewerRecorder final : public LXFileViewer
{
public:
    explicit ViewerRecorder(WindowLog &log)
        : m_log(log)
    {}
    void reveal(const QStringList &paths) override
    {
        QStringList names;
        for (const QString &path : paths)
            names.append(QFileInfo(path).fileName());
        m_log.note(u"revealed "_s + names.join(u' '));
    }

private:
    WindowLog &m_log;
};

class WorkspaceRecorder final : public LXWorkspace
{
public:
    explicit WorkspaceRecorder(WindowLog &log)
        : m_log(log)
    {}
    bool openFile(const QString &path) override
    {
        QFile file(path);
        m_log.note(u"opened %1: %2"_s.arg(QFileInfo(path).fileName(), file.open(QIODevice::ReadOnly)
                                                                          ? QString::fromUtf8(file.readAll())
                                                                          : u"not there"_s));
        return true;
    }

private:
    WindowLog &m_log;
};

class SoundRecorder final : public LXSystemSound
{
public:
    explicit SoundRecorder(WindowLog &log)
        : m_log(log)
    {}
    void play(const QString &) override { m_log.note(u"sound"_s); }

private:
    WindowLog &m_log;
};

#pragma once

#include "util/LXResult.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

class QObject;

/// A chooser for one folder, as it is asked for. Delegates may change the texts before it is shown.
struct LXFolderChooserRequest
{
    QString directory = {}; ///< where it starts
    QString title = {};
    QString button = {};
    /// Whether the folder may be chosen: the chooser enables and accepts nothing else.
    std::function<bool(const QString &folder)> accepts = {};
    QObject *window = nullptr; ///< null: the application's main window
};

/// Shows it. Called on the main thread; calls done once, on the main thread, with nothing when cancelled.
class LXFolderChooser
{
public:
    virtual ~LXFolderChooser() = default;
    virtual void choose(const LXFolderChooserRequest &request,
                        std::function<void(std::optional<QString> folder)> done) = 0;
};

struct LXAlertRequest
{
    QString message = {};
    QString informativeText = {};
    QStringList buttons = {}; ///< the first is the default
    bool showsSuppressionButton = false;
    QObject *window = nullptr;
};

/// As the chooser; `button` is the index of the button pressed.
class LXAlertPresenter
{
public:
    struct Answer
    {
        int button = 0;
        bool suppress = false;
    };
    virtual ~LXAlertPresenter() = default;
    virtual void show(const LXAlertRequest &request, std::function<void(Answer)> done) = 0;
};

/// Persistent tokens that reopen access to a folder. Any thread.
class LXFolderBookmarks
{
public:
    struct Resolved
    {
        QString path;
        bool stale = false; ///< the token does not lead to what it was made for any more
    };
    virtual ~LXFolderBookmarks() = default;
    virtual LXResult<QByteArray> create(const QString &folder) = 0;
    virtual LXResult<Resolved> resolve(const QByteArray &token) = 0;
    virtual bool startAccessing(const QString &folder) = 0;
    virtual void stopAccessing(const QString &folder) = 0;
};

/// Tokens made of the path and of what tells this folder from another one put in its place later.
/// Access itself needs nothing here.
class LXPathBookmarks final : public LXFolderBookmarks
{
public:
    LXResult<QByteArray> create(const QString &folder) override;
    LXResult<Resolved> resolve(const QByteArray &token) override;
    bool startAccessing(const QString &) override { return true; }
    void stopAccessing(const QString &) override {}
};

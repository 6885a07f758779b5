#pragma once

#include "engine/model/CVRarToolStatus.h"
#include "engine/model/CVSettings.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVTheme.h"
#include "ui/options/CVConvertArchiveViewController.h"
#include "ui/options/CVCreateArchiveViewController.h"
#include "ui/options/CVEditArchiveView.h"
#include "ui/options/CVFormatButton.h"
#include "ui/options/CVFormats.h"
#include "ui/options/CVSplitViewController.h"
#include "ui/options/CVVolumeRow.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QLabel>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>

#include <functional>
#include <memory>

// What the tests of the option screens share.
namespace OptionScreens {

using namespace Qt::StringLiterals;

struct Navigator final : CVScreenNavigator
{
    void loadViewController(CVViewController &, bool) override {}
    void goBack() override { went.append(u"back"_s); }
    void backToMain() override { went.append(u"main"_s); }
    void goForwardToMain() override {}
    void showCreateArchiveView() override {}
    void showConvertArchiveView() override {}
    void resizeBackToViewController(CVViewController &) override {}
    QWidget *mainWindow() override { return nullptr; }
    QStringList went;
};

/// Reacts to a change of format as the controller of a window does.
struct Controller final : CVOperationDataBindingDelegate
{
    void operationDataDidChangeArchiveType(CVEditArchiveOperationDataBinding &, const QString &type) override
    {
        setNoneHidden(type == "tar.gz"_L1 || type == "tar.bz2"_L1);
    }
    std::function<void(bool)> setNoneHidden = [](bool) {};
};

struct RarTool final : CVRarToolStatus
{
    bool isRarInstalled() const override { return true; }
};

/// A screen in a window of its own, with its keys.
template <typename Screen> struct Shown
{
    explicit Shown(const QStringList &paths = {u"/home/ann/Photos/a.jpg"_s})
        : controller(std::make_shared<Controller>())
    {
        for (const QString &path : paths)
            files->appendChild(CVFileNode::create(path));
        services.bindingDelegate = controller;
        services.inputFiles = [this] { return files; };
        services.start = [this] { ++started; };
    }

    void show()
    {
        screen = std::make_unique<Screen>(services, navigator);
        if constexpr (std::is_base_of_v<CVEditArchiveController, Screen>)
            controller->setNoneHidden = [this](bool hidden) { screen->setNoneHidden(hidden); };
        window = std::make_unique<QWidget>();
        auto *layout = new QVBoxLayout(window.get());
        layout->addWidget(screen->view());
        for (const char *action : {"forward", "back", "cancel"})
            window->addAction(screen->action(QString::fromLatin1(action)));
        screen->willLoadView();
        window->resize(screen->size() + QSize(40, 40));
        window->show();
        screen->didLoadView();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
    }

    void key(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        QWidget *focus = window->focusWidget();
        QTest::keyClick(focus ? focus : window.get(), key, modifiers);
    }
    QAction *finish() const { return screen->action(u"forward"_s); }
    QString hint() const
    {
        const auto *label = window->findChild<QLabel *>(u"hint"_s);
        return label->isVisible() ? label->text() : QString();
    }
    QString summary() const { return window->findChild<QLabel *>(u"summary"_s)->accessibleName(); }

    std::shared_ptr<Controller> controller;
    CVFileNode::Pointer files = CVFileNode::create();
    Navigator navigator;
    CVOptionServices services;
    int started = 0;
    std::unique_ptr<QWidget> window; ///< takes the view along, so it goes first
    std::unique_ptr<Screen> screen;

    ~Shown()
    {
        window.reset();
        screen.reset();
    }
};

using Create = Shown<CVCreateArchiveViewController>;
using Convert = Shown<CVConvertArchiveViewController>;
using Split = Shown<CVSplitViewController>;

/// Letters of any alphabet, as a keyboard has them.
inline void type(QWidget *field, const QString &text)
{
    for (const QChar letter : text)
        QTest::sendKeyEvent(QTest::Click, field, Qt::Key_unknown, QString(letter), Qt::NoModifier);
}

/// Settings of its own for every test function.
class Test : public QObject
{
    Q_OBJECT

protected:
    QString filePath(const QString &name) const { return m_dir->filePath(name); }

private Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        CVTheme::setReducedMotion(true);
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        CVSettings::setStore(std::make_shared<LXSettingsStore>(filePath(u"settings"_s)));
    }
    void cleanup()
    {
        CVSettings::setStore(nullptr);
        CVRarToolStatus::setShared(nullptr);
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

} // namespace OptionScreens

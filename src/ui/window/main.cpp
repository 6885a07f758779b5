#include "platform/desktop/LXApplicationBus.h"
#include "platform/desktop/LXDesktopServices.h"
#include "ui/base/CVTheme.h"
#include "ui/window/CVAppController.h"
#include "ui/window/CVTerminationSignals.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QApplication>
#include <QStandardPaths>
#include <QVersionNumber>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <langinfo.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1StringView applicationId("org.corvane.Corvane");

int versionNumber()
{
    const QVersionNumber version = QVersionNumber::fromString(QLatin1StringView(CORVANE_VERSION));
    return (version.majorVersion() * 100 + version.minorVersion()) * 100 + version.microVersion();
}

/// Of the program that this one replaces, where who packages it names one.
QString earlierSettings()
{
    const QString file = QStringLiteral(CORVANE_EARLIER_SETTINGS);
    return file.isEmpty()
               ? file
               : QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + u'/' + file;
}

// File names are UTF-8 on every desktop of today; in the C locale Qt and the readers would otherwise
// take them for ASCII.
void useUtf8Locale()
{
    std::setlocale(LC_ALL, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0) {
        ::setenv("LC_ALL", "C.UTF-8", 1);
        std::setlocale(LC_ALL, "");
    }
}

// By bytes: the name of the current folder need not be text.
QString absolutePath(QByteArray path)
{
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    while (path.startsWith("./"))
        path.remove(0, 2);
    if (path.startsWith('/'))
        return fileNameFromBytes(path);
    const std::unique_ptr<char, decltype(&std::free)> folder(::getcwd(nullptr, 0), &std::free);
    return folder ? fileNameFromBytes(QByteArray(folder.get())) + u'/' + fileNameFromBytes(path) : QString();
}

QStringList filesOf(int argc, char **argv)
{
    QStringList files;
    bool areOnlyFiles = false;
    for (int i = 1; i < argc; ++i) {
        if (!areOnlyFiles && std::strcmp(argv[i], "--") == 0) {
            areOnlyFiles = true;
            continue;
        }
        if (const QString path = absolutePath(argv[i]); argv[i][0] != '\0' && !path.isEmpty())
            files.append(path);
    }
    return files;
}

int run(int argc, char **argv)
{
    useUtf8Locale();
    std::signal(SIGPIPE, SIG_IGN);

    QGuiApplication::setHighDpiScaleFactorRoundingPolicy(Qt::HighDpiScaleFactorRoundingPolicy::PassThrough);
    QGuiApplication::setDesktopFileName(applicationId);
    // Every word is a file; Qt would take "-style" for itself.
    int wordsForQt = 1;
    const QApplication application(wordsForQt, argv);
    QApplication::setApplicationName(u"corvane"_s);
    QApplication::setApplicationDisplayName(u"Corvane"_s);
    QApplication::setApplicationVersion(QStringLiteral(CORVANE_VERSION));
    QApplication::setQuitOnLastWindowClosed(false);
    const QStringList files = filesOf(argc, argv);

    auto bus = std::make_unique<LXApplicationBus>(applicationId);
    if (bus->claim() == LXApplicationBus::Second &&
        (files.isEmpty() ? bus->sendActivate() : bus->sendOpen(files)))
        return 0;

    LXMainThread::install();
    LXDesktopServices::install();
    QApplication::setWindowIcon(CVTheme::icon(u"app/corvane"_s));

    CVAppController controller;
    controller.setApplicationBus(std::move(bus));
    QObject::connect(&controller, &CVAppController::terminated, &application, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    const CVTerminationSignals signalsToTerminate([&controller] { controller.terminate(); });

    controller.setVersion(versionNumber(), earlierSettings());
    controller.start(files);
    return QApplication::exec();
}

} // namespace

int main(int argc, char **argv)
{
    const int status = run(argc, argv);
    // Threads that nobody waits for, because they only free memory or ask the desktop something, may be in
    // the middle of it; the end of a process would take its variables from under them.
    std::fflush(nullptr);
    std::_Exit(status);
}

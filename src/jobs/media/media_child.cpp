// corvane-media: converts the files that it is told on its standard input, one a line, and answers there.
// It works in the folder that it was started in and is meant to be confined to it.

#include "jobs/media/CVAudioFileConverter.h"
#include "jobs/media/CVImageFileConverter.h"
#include "jobs/media/media_line.h"

#include <QGuiApplication>

#include <cstdio>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>

namespace {

constexpr rlim_t secondsForAnImage = 15 * 60;
constexpr rlim_t secondsForSound = 6 * 60 * 60;

/// From now on; beyond, the kernel ends us.
void limitProcessorTime(rlim_t seconds)
{
    rusage used{};
    rlimit bound{};
    if (::getrusage(RUSAGE_SELF, &used) != 0 || ::getrlimit(RLIMIT_CPU, &bound) != 0)
        return;
    bound.rlim_cur = static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) + seconds;
    ::setrlimit(RLIMIT_CPU, &bound);
}

void say(const QList<QByteArray> &fields)
{
    const QByteArray line = mediaLine(fields);
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stdout);
    std::fflush(stdout);
}

void handle(const QList<QByteArray> &job)
{
    if (job.size() != 6) {
        say({"failed", "The job was not understood."});
        return;
    }
    const int type = job[1].toInt();
    CVMediaReplacement file(CVMediaReplacement::openFolder(AT_FDCWD, job[2]), {job[3], job[4], job[5]});
    QString reason;
    if (job[0] == "sound") {
        limitProcessorTime(secondsForSound);
        CVAudioFileConverter converter;
        converter.setProgress([] { say({"working"}); });
        if (!converter.manipulateAudioFile(file, type))
            reason = converter.failureReason();
    } else {
        limitProcessorTime(secondsForAnImage);
        CVImageFileConverter converter;
        if (!converter.manipulateImageFile(file, type))
            reason = converter.failureReason();
    }
    if (reason.isEmpty())
        say({"done"});
    else
        say({"failed", reason.left(1000).toUtf8()});
}

} // namespace

int main(int argc, char *argv[])
{
    // The PDF writer wants one; it opens no display with the platform that the environment names.
    const QGuiApplication application(argc, argv);
    std::string line;
    while (std::getline(std::cin, line))
        handle(fieldsOfMediaLine(QByteArray::fromStdString(line)));
    return 0;
}

#include "ui/support/LargeArchiveTour.h"
#include "ui/support/WindowDriver.h"

#include <QApplication>
#include <QCommandLineParser>

#include <cstdio>

using namespace Qt::StringLiterals;

int main(int argc, char **argv)
{
    const QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(u"A large archive in the real window."_s);
    parser.addHelpOption();
    parser.addOption({u"files"_s, u"How many; a million without it."_s, u"N"_s, u"1000000"_s});
    parser.addOption({u"flat"_s, u"All of them at the top instead of in folders."_s});
    parser.process(app);

    WindowDriver driver(WindowDriver::Motion::Full);
    LargeArchiveTour tour(driver,
                          parser.isSet(u"flat"_s) ? ManyEntries::Shape::Flat : ManyEntries::Shape::Folders,
                          parser.value(u"files"_s).toInt());
    const bool isDone = tour.run();
    std::fputs(qPrintable(tour.report()), stdout);
    if (!isDone)
        std::fprintf(stderr, "%s\n", qPrintable(tour.problem()));
    return isDone ? 0 : 1;
}

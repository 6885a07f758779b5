#include "monkey/Monkey.h"

#include <QApplication>
#include <QCommandLineParser>

#include <random>

using namespace Qt::StringLiterals;

int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(u"Random actions against the real window."_s);
    parser.addHelpOption();
    parser.addOption({u"seconds"_s, u"How long; 60 without it."_s, u"N"_s, u"60"_s});
    parser.addOption({u"seed"_s, u"Which actions; a new one each time without it."_s, u"S"_s});
    parser.addOption(
        {u"patience"_s, u"Seconds that the main thread may stand still; 30 without it."_s, u"N"_s, u"30"_s});
    parser.process(app);
    const unsigned seed =
        parser.isSet(u"seed"_s) ? parser.value(u"seed"_s).toUInt() : std::random_device{}() % 100'000;
    Monkey monkey(seed, std::chrono::seconds(parser.value(u"patience"_s).toInt()));
    return monkey.run(std::chrono::seconds(parser.value(u"seconds"_s).toInt())) ? 0 : 1;
}

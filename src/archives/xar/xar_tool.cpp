#include "archives/reading/CVSafeWriter.h"
#include "archives/xar/CVXarEngine.h"
#include "archives/xar/CVXarListing.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QSet>

#include <cstdio>
#include <cstring>

#include <sys/stat.h>

namespace {

constexpr int failed = 1;
constexpr int badUsage = 2;

constexpr const char *usage =
    "usage: xar -t [-v] -f ARCHIVE [NAME...]      list\n"
    "       xar -x [-v] -f ARCHIVE [NAME...]      extract to the current folder\n"
    "       xar -c [-v] -f ARCHIVE FILE...        create\n"
    "--distribution is accepted and changes nothing. What follows the archive are names, whatever they\n"
    "begin with. A folder's name stands for everything beneath it. In what is printed, characters that do\n"
    "not fit into a line and bytes that are no text are written as \\xNN, a backslash as \\\\.\n";

struct Arguments
{
    char action = 0;
    bool verbose = false;
    QByteArray archive;
    std::vector<QByteArray> names;
};

bool parse(int count, char **given, Arguments &arguments)
{
    for (int i = 1; i < count; ++i) {
        const char *argument = given[i];
        if (std::strcmp(argument, "--distribution") == 0)
            continue;
        if (*argument++ != '-' || *argument == 0)
            return false;
        for (; *argument; ++argument) {
            switch (*argument) {
            case 'c':
            case 't':
            case 'x':
                if (arguments.action)
                    return false;
                arguments.action = *argument;
                break;
            case 'v':
                arguments.verbose = true;
                break;
            case 'f':
                if (argument[1])
                    arguments.archive = argument + 1;
                else if (i + 1 < count)
                    arguments.archive = given[++i];
                arguments.names.assign(given + i + 1, given + count);
                return arguments.action && !arguments.archive.isEmpty() &&
                       (arguments.action != 'c' || !arguments.names.empty());
            default:
                return false;
            }
        }
    }
    return false;
}

void complain(const QString &text)
{
    std::fprintf(stderr, "xar: %s\n", LXDisplay::displayEscaped(text).toUtf8().constData());
}

void complain(const LXError &error)
{
    complain(error.reason.isEmpty() ? error.description : error.description + u' ' + error.reason);
}

void print(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stdout);
    std::fputc('\n', stdout);
}

QByteArray withoutDots(const QByteArray &path)
{
    QByteArrayList parts = path.split('/');
    parts.removeIf([](const QByteArray &part) { return part.isEmpty() || part == "."; });
    return parts.join('/');
}

/// The entries that are named, or beneath one that is. False when a name fits none.
bool choose(const CVXarEngine &engine, const Arguments &arguments, std::vector<int> &chosen)
{
    QSet<QByteArray> names, missing;
    for (const QByteArray &name : arguments.names)
        names.insert(withoutDots(name));
    missing = names;
    const int count = static_cast<int>(engine.entries().size());
    for (int i = 0; i < count; ++i) {
        bool isWanted = names.isEmpty() || names.contains(QByteArray());
        if (!isWanted) {
            const QByteArray path = withoutDots(engine.entries()[static_cast<std::size_t>(i)].name);
            for (qsizetype end = 0; end >= 0 && !isWanted;) {
                end = path.indexOf('/', end + 1);
                const QByteArray leading = end < 0 ? path : path.left(end);
                isWanted = names.contains(leading);
                if (isWanted)
                    missing.remove(leading);
            }
        }
        if (isWanted)
            chosen.push_back(i);
    }
    missing.remove(QByteArray());
    for (const QByteArray &name : std::as_const(missing))
        complain(QStringLiteral("“%1” is not in the archive.").arg(fileNameFromBytes(name)));
    return missing.isEmpty();
}

int list(const CVXarEngine &engine, const Arguments &arguments)
{
    std::vector<int> chosen;
    const bool found = choose(engine, arguments, chosen);
    for (const int i : chosen) {
        const QByteArray &path = engine.entries()[static_cast<std::size_t>(i)].name;
        print(arguments.verbose ? CVXarListing::line(engine.file(i), path) : CVXarListing::escaped(path));
    }
    return found ? 0 : failed;
}

int extract(CVXarEngine &engine, const Arguments &arguments)
{
    CVDestination destination(".");
    if (!destination.isOpen()) {
        complain(QString::fromLocal8Bit(std::strerror(errno)));
        return failed;
    }
    std::vector<int> chosen;
    bool good = choose(engine, arguments, chosen);
    struct stat archive
    {};
    ::stat(arguments.archive.constData(), &archive);

    CVSafeWriter::Callbacks callbacks;
    callbacks.decode = [](const QByteArray &raw, CVNameEncoding) { return fileNameFromBytes(raw); };
    callbacks.progress = [](qint64) {};
    callbacks.entryDidFail = [](int, XADErrorCode) { return XADAction::Skip; };
    callbacks.shouldStop = [] { return false; };
    // Nobody can be asked here.
    callbacks.mayExceedLimit = [](const QString &) { return false; };
    CVSafeWriter::Options options;
    options.archiveBytes = archive.st_size;
    options.ownsContents = destination.isEmpty();
    CVSafeWriter writer(destination, engine, callbacks, options);
    if (arguments.verbose)
        engine.delivered = [&engine](int i) {
            print(CVXarListing::escaped(engine.entries()[static_cast<std::size_t>(i)].name));
            std::fflush(stdout);
        };
    engine.extract(chosen, chosen.size() == engine.entries().size(), writer);
    writer.finishTree();
    for (const CVSkippedEntry &skipped : writer.takeSkipped()) {
        complain(skipped.name + QStringLiteral(": ") + skipped.reason);
        good = false;
    }
    if (writer.outcome() != XADErrorCode::None) {
        complain(writer.outcomeText());
        good = false;
    }
    return good ? 0 : failed;
}

int create(const Arguments &arguments)
{
    auto opened = xar_open(arguments.archive, xar_mode::write);
    if (!opened) {
        complain(opened.error());
        return failed;
    }
    xar_t archive = std::move(opened).value();
    for (const QByteArray &given : arguments.names) {
        // The folders above are only kept where they are given as relative ones.
        QByteArray path = given;
        while (path.size() > 1 && path.endsWith('/'))
            path.chop(1);
        const QByteArray name = lastComponent(path);
        if (arguments.verbose)
            print(CVXarListing::escaped(name));
        xar_file_t entry = nullptr;
        const bool isContents = name == "." || name == ".." || name.isEmpty();
        if (!isContents && !(entry = xar_add_frompath(*archive, nullptr, name, path)))
            break;
        if ((isContents || entry->type == xar_file::Type::directory) &&
            !xar_add_beneath(*archive, entry, path, [] { return true; }))
            break;
    }
    if (const auto result = xar_close(*archive); !result) {
        complain(result.error());
        return failed;
    }
    return 0;
}

} // namespace

/// Lists, extracts and makes XAR archives. What it extracts is subject to the same rules as everything that
/// the program extracts.
int main(int argc, char **argv)
{
    Arguments arguments;
    if (!parse(argc, argv, arguments)) {
        std::fputs(usage, stderr);
        return badUsage;
    }
    int result = 0;
    if (arguments.action == 'c') {
        result = create(arguments);
    } else {
        auto opened = xar_open(arguments.archive, xar_mode::read);
        if (!opened) {
            complain(opened.error());
            return failed;
        }
        const auto engine = CVXarEngine::create(std::move(opened).value());
        if (!engine) {
            complain(QStringLiteral("The paths in the archive are too long."));
            return failed;
        }
        result = arguments.action == 't' ? list(*engine, arguments) : extract(*engine, arguments);
    }
    if (std::fflush(stdout) != 0)
        result = failed;
    return result;
}

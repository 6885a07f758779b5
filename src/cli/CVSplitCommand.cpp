#include "cli/CVSplitCommand.h"

#include "archives/archive_string.h"
#include "cli/CVPackCommand.h"
#include "cli/CVTerminal.h"
#include "cli/CVTerminalDelegate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "split/split_names.h"
#include "util/path_parts.h"

#include <QHash>

using namespace Qt::StringLiterals;

namespace {

constexpr int usageStatus = 2;

} // namespace

CVSplitCommand::~CVSplitCommand() = default;

int CVSplitCommand::split(const CVTerminalArguments &arguments, CVPackCommand &packing)
{
    const QString &given = arguments.paths.first();
    const QString path = absolute(given);
    const QString reason = reasonNotToRead(path);
    if (!reason.isEmpty()) {
        m_terminal.message(u"%1: %2"_s.arg(given, reason));
        if (reason == u"is a folder")
            m_terminal.detail(u"“corvane create --volume” packs a folder into parts."_s);
        return usageStatus;
    }
    const auto data = std::make_shared<CVSplitOperationDataBinding>();
    data->splitter()->setChunkSize(arguments.split.size);
    data->splitter()->setChunkUnits(arguments.split.unit);
    data->splitter()->setShouldChecksum(arguments.split.checksum);
    data->setCompressionSetting(arguments.split.compression);
    if (!chooseDestination(arguments.destination))
        return 1;
    const auto delegate = std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, QStringList{path});
    run(CVOperationFactory::splitFileOperationWithDataBinding(data), delegate);
    if (const auto volume = delegate->multiPartArchive()) {
        CVTerminalArguments archive = arguments;
        archive.pack.format = volume->format;
        archive.pack.volumeBytes = volume->chunkSize;
        archive.pack.name = lastComponent(path); // whole, as parts of other kinds are called
        return packing.create(archive);
    }
    printResults(delegate->resultPaths());
    if (m_delivered == 0)
        dropUnusedDestination();
    return status();
}

std::vector<QStringList> CVSplitCommand::sets(const QStringList &given)
{
    std::vector<QStringList> found;
    QHash<QString, std::size_t> places; // by folder and name of the set
    for (const QString &word : given) {
        const QString path = absolute(word);
        if (!isSplitFile(path)) {
            m_terminal.message(u"%1 is no part of a file that was split"_s.arg(word));
            ++m_failed;
            continue;
        }
        const QString set = path.left(path.lastIndexOf(u'/') + 1) + splitSetName(path);
        const auto place = places.constFind(set);
        if (place != places.constEnd()) {
            found[*place].append(path);
        } else {
            places.insert(set, found.size());
            found.push_back({path});
        }
    }
    return found;
}

int CVSplitCommand::combine(const CVTerminalArguments &arguments)
{
    const std::vector<QStringList> all = sets(arguments.paths);
    if (all.empty())
        return usageStatus;
    if (!chooseDestination(arguments.destination))
        return 1;
    for (const QStringList &parts : all) {
        const auto delegate = std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, parts);
        run(CVOperationFactory::combineOperation(), delegate);
        printResults(delegate->resultPaths());
        if (m_interrupted || m_cancelled)
            break;
    }
    if (m_delivered == 0)
        dropUnusedDestination();
    return status();
}

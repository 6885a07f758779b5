#include "cli/CVPackCommand.h"

#include "archives/CVArchive.h"
#include "archives/archive_string.h"
#include "cli/CVTerminal.h"
#include "cli/CVTerminalDelegate.h"
#include "cli/CVTerminalPasswords.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QEventLoop>
#include <QHash>

#include <cerrno>
#include <thread>

#include <fts.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int usageStatus = 2;

/// What is at the path, the link itself where it is one; nothing with errno set.
std::optional<struct stat> itemAt(const QString &path)
{
    struct stat status = {};
    if (::lstat(bytesOfFileName(path).constData(), &status) != 0)
        return std::nullopt;
    return status;
}

bool isFolder(const QString &path)
{
    const auto item = itemAt(path);
    return item && S_ISDIR(item->st_mode);
}

/// Of the regular files there and beneath it.
double bytesBelow(const QString &path)
{
    QByteArray root = bytesOfFileName(path);
    char *const roots[] = {root.data(), nullptr};
    FTS *const walk = ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
    double bytes = 0;
    while (const FTSENT *entry = walk ? ::fts_read(walk) : nullptr) {
        if (entry->fts_info == FTS_F)
            bytes += static_cast<double>(entry->fts_statp->st_size);
    }
    if (walk)
        ::fts_close(walk);
    return bytes;
}

bool isSameItem(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

CVPackCommand::~CVPackCommand() = default;

int CVPackCommand::wrongUse(const QString &text)
{
    m_terminal.message(text);
    m_wrongUse = true;
    return usageStatus;
}

bool CVPackCommand::areFilesToPack(const QStringList &paths)
{
    for (const QString &given : paths) {
        const auto item = itemAt(absolute(given));
        const bool archive =
            item && !S_ISDIR(item->st_mode) && CVArchive::isExtractableExtension(archivePathExtension(given));
        if (!item || archive)
            return false;
    }
    return true;
}

std::optional<QStringList> CVPackCommand::filesToPack(const QStringList &given)
{
    QStringList paths;
    QHash<QString, QString> names; // in the archive, with what is given that way
    for (const QString &word : given) {
        QString path = word;
        while (path.size() > 1 && path.endsWith(u'/'))
            path.chop(1);
        const QString name = lastComponent(path);
        // Where it is only known from where one stands, its own name is asked for.
        path = name == u"." || name == u".." ? absolute(path + u'/') : absolute(path);
        while (path.size() > 1 && path.endsWith(u'/'))
            path.chop(1);
        if (path == u"/") {
            wrongUse(u"the folder of everything cannot be packed: name what is in it"_s);
            return std::nullopt;
        }
        if (!itemAt(path)) {
            wrongUse(u"%1: %2"_s.arg(word, systemText(errno)));
            return std::nullopt;
        }
        if (paths.contains(path))
            continue;
        const QString inArchive = lastComponent(path);
        if (names.contains(inArchive)) {
            wrongUse(u"“%1” and “%2” would be one entry of the archive: pack a folder that holds both"_s.arg(
                names.value(inArchive), word));
            return std::nullopt;
        }
        names.insert(inArchive, word);
        paths.append(path);
    }
    return paths;
}

int CVPackCommand::create(const CVTerminalArguments &arguments)
{
    const auto paths = filesToPack(arguments.paths);
    if (!paths)
        return usageStatus;
    double bytes = 0;
    if (arguments.pack.volumeBytes) {
        for (const QString &path : *paths)
            bytes += bytesBelow(path);
    }
    return pack(arguments.pack, arguments, *paths, bytes, false);
}

int CVPackCommand::open(const CVTerminalArguments &arguments)
{
    const QString setting = CVSettings::string(CVSettingsKey::createArchiveFormat);
    const auto format = CVPackOptions::formatNamed(setting);
    if (!format) {
        m_terminal.message(
            u"the settings say that new archives are of the format “%1”, which cannot be written "
            "here"_s.arg(setting));
        m_terminal.detail(u"Use “corvane create --format”."_s);
        return 1;
    }
    CVPackOptions options;
    options.format = *format;
    options.encrypt = CVSettings::boolean(CVSettingsKey::shouldEncrypt) &&
                      CVArchive::archiveForCreating(u"x."_s + *format)->canEncrypt();
    const auto paths = filesToPack(arguments.paths);
    return paths ? pack(options, arguments, *paths, 0, false) : usageStatus;
}

int CVPackCommand::convert(const CVTerminalArguments &arguments)
{
    const QString &given = arguments.paths.first();
    const QString path = absolute(given);
    const QString reason = reasonNotToOpen(path);
    if (!reason.isEmpty())
        return wrongUse(reason == u"is a folder" ? u"%1 is a folder: “corvane create” packs it"_s.arg(given)
                                                 : u"%1: %2"_s.arg(given, reason));
    if (arguments.pack.images.value_or(0) != 0)
        m_terminal.note(u"“--images” has no effect: conversions leave images as they are"_s);
    return pack(arguments.pack, arguments, {path}, static_cast<double>(itemAt(path)->st_size), true);
}

void CVPackCommand::overrideSettings(const CVPackOptions &options)
{
    // Before there is a binding, which would take a later change for one to be stored.
    using namespace CVSettingsKey;
    CVSettings::overrideForThisRun(createArchiveFormat, options.format);
    CVSettings::overrideForThisRun(convertArchiveFormat, options.format);
    CVSettings::overrideForThisRun(CVSettingsKey::shouldEncrypt, options.encrypt);
    if (options.level)
        CVSettings::overrideForThisRun(compressionLevelSetting, *options.level);
    else if (CVSettings::integer(compressionLevelSetting) == 0 &&
             (options.format == u"tar.gz" || options.format == u"tar.bz2"))
        CVSettings::overrideForThisRun(compressionLevelSetting, 1);
    if (options.images)
        CVSettings::overrideForThisRun(imagePreCompressionFormat, *options.images);
    if (options.audio)
        CVSettings::overrideForThisRun(audioPreCompressionFormat, *options.audio);
}

bool CVPackCommand::isInTheWay(const QString &newArchive, const QStringList &inputs)
{
    const auto folder = itemAt(newArchive.left(newArchive.lastIndexOf(u'/') + 1) + u'.');
    for (const QString &input : inputs) {
        const auto its = itemAt(input.left(input.lastIndexOf(u'/') + 1) + u'.');
        if (folder && its && isSameItem(*folder, *its) && lastComponent(newArchive) == lastComponent(input)) {
            wrongUse(u"the new archive would take the place of “%1”, which it is made from: choose another "
                     "“--name” or “--to”"_s.arg(input));
            return true;
        }
    }
    return false;
}

bool CVPackCommand::prepareBinding(CVEditArchiveOperationDataBinding &data, const CVPackOptions &options,
                                   const QStringList &paths, bool converting)
{
    const QString &first = paths.first();
    if (options.name) {
        data.setArchiveName(*options.name);
    } else if (paths.size() == 1) {
        data.setSourcePath(first);
        data.setArchiveName(converting && isMultipartArchive(first)
                                ? lastComponent(stringByDeletingArchivePathExtension(first))
                            // What looks like an extension of a folder is a part of its name.
                            : !converting && isFolder(first) ? lastComponent(first)
                                                             : data.smartArchiveName());
    }
    data.setSourcePath(first);
    data.setChunkSize(options.volumeBytes.value_or(0));
    if (const auto problem = CVPackOptions::nameProblem(data.outputArchiveName())) {
        wrongUse(*problem);
        return false;
    }
    const auto folder = CVOperationHelper().defaultDestinationFolderForSourcePath(first);
    return !folder || !isInTheWay(*folder + u'/' + data.outputArchiveName(), paths);
}

bool CVPackCommand::choosePassword(CVEditArchiveOperationDataBinding &data, const CVPackOptions &options)
{
    if (!options.encrypt)
        return true;
    const auto check = [&options](const QString &password) {
        return CVPackOptions::passwordProblem(options.format, password);
    };
    // Not on this thread, whose event loop has to hear of Ctrl-C.
    std::optional<QString> answer;
    QEventLoop loop;
    std::thread asking([&, name = data.outputArchiveName()] {
        answer = m_passwords.forNewArchive(name, check);
        LXMainThread::post([&loop] { loop.quit(); });
    });
    loop.exec();
    asking.join();
    if (!answer) {
        if (m_passwords.lack() == CVTerminalPasswords::Lack::Unfit)
            m_wrongUse = true;
        return false;
    }
    data.setPassword(*answer);
    data.setPasswordConfirmation(*answer);
    return true;
}

int CVPackCommand::pack(const CVPackOptions &options, const CVTerminalArguments &arguments,
                        const QStringList &paths, double bytes, bool converting)
{
    if (options.volumeBytes) {
        if (const auto problem = CVPackOptions::volumeProblem(*options.volumeBytes, bytes))
            return wrongUse(*problem);
    }
    overrideSettings(options);
    if (!chooseDestination(arguments.destination))
        return 1;
    std::shared_ptr<CVOperation> operation;
    std::shared_ptr<CVEditArchiveOperationDataBinding> data;
    if (converting) {
        const auto binding = std::make_shared<CVConvertOperationDataBinding>();
        data = binding;
        operation = CVOperationFactory::convertOperationWithDataBinding(binding);
    } else {
        const auto binding = std::make_shared<CVCreateOperationDataBinding>();
        data = binding;
        operation = CVOperationFactory::createOperationWithDataBinding(binding);
    }
    if (!prepareBinding(*data, options, paths, converting) || !choosePassword(*data, options)) {
        dropUnusedDestination();
        return m_wrongUse ? usageStatus : m_interrupted ? 130 : 3;
    }
    if (options.format == u"tar.xz")
        m_terminal.note(u"note: tar.xz is written without compression"_s);
    const auto delegate = std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, paths);
    delegate->setPacking({.replaces = options.replace, .lacksCount = converting});
    run(operation, delegate);
    printResults(delegate->resultPaths());
    if (m_delivered == 0)
        dropUnusedDestination();
    return status();
}

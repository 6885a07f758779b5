#include "split/CVFileCombiner.h"

#include "archives/archive_string.h"
#include "split/CVFileWriter.h"
#include "split/LXChecksum.h"
#include "split/LXPropertyList.h"
#include "split/block_copy.h"
#include "split/part_set.h"
#include "split/split_exceptions.h"
#include "split/split_names.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QSet>

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcCombiner, "corvane.split.combiner", QtInfoMsg)

constexpr std::size_t blockBytes = 1 << 20;
// A megabyte can decompress to a terabyte: the less at a time, the more often somebody hears of it.
constexpr std::size_t compressedBlockBytes = 64 << 10;
// A list of names and sums: a thousand parts take some hundred kilobytes.
constexpr qint64 longestChecksumFile = 64 << 20;

QString text(const char *key)
{
    return QCoreApplication::translate("CVFileCombiner", key);
}

LXError engineError(int code, const char *why)
{
    LX_DEBUG(lcCombiner, "Caught exception %s, will try to handle", why);
    return LXError{.domain = QLatin1StringView(CVFileCombiner::errorDomain),
                   .code = code,
                   .description = {},
                   .reason = QString::fromUtf8(why),
                   .suggestion = {}};
}

/// Names that a set cannot have made: of no file.
bool isNoName(const QString &name)
{
    return name.isEmpty() || name == u"." || name == u"..";
}

} // namespace

CVFileCombiner::CVFileCombiner() = default;
CVFileCombiner::~CVFileCombiner() = default;

QString CVFileCombiner::combineFileName() const
{
    return m_destinationPath + u'/' + splitSetName(m_files.value(0));
}

LXResult<void> CVFileCombiner::combine()
{
    const auto failed = [this](int code, const char *why) {
        cleanUp();
        return engineError(code, why);
    };
    try {
        actualCombine();
        return {};
    } catch (const Bzip2Exception &e) {
        return failed(0, e.what());
    } catch (const LXFileHandleException &e) {
        return failed(e.isDiskFull() ? 1 : 2, e.what());
    } catch (const FileCombinerIOException &e) {
        return failed(2, e.what());
    } catch (const std::exception &e) {
        LX_WARNING(lcCombiner, "Can't handle exception, will re-raise %s", e.what());
        throw;
    }
}

void CVFileCombiner::actualCombine()
{
    if (m_files.isEmpty())
        throw LXAssertionException("No input files found");
    m_bytesWritten = 0;
    m_totalBytes = 0;

    const auto parts = verifiedParts();
    if (!parts && !m_isCancelled)
        return fail(parts.error());
    if (!m_isCancelled) {
        const LXResult<void> joined = concatenateFiles(parts.value(), combineFileName());
        if (!joined && !m_isCancelled)
            return fail(joined.error());
    }
    LXMainThread::wait([this] {
        if (m_isCancelled)
            combineCancelled();
        else if (m_delegate)
            m_delegate->combineHasCompleted(*this);
    });
}

LXResult<std::vector<SplitPart>> CVFileCombiner::verifiedParts()
{
    const QString &first = m_files.first();
    if (isCheckSumSplitFile(first) && m_files.size() == 1)
        return splitSetError("Combine failed", text("Cannot combine a single checksum file."));
    const QString name = splitSetName(first);
    QStringList paths = isNoName(name) ? QStringList() : partsOfSplitSet(m_files, name);
    // A raw and a compressed set of one file may lie side by side: the one that was asked for counts.
    if (!isCheckSumSplitFile(first)) {
        const bool compressed = isCompressedPart(first);
        paths.removeIf([compressed](const QString &path) { return isCompressedPart(path) != compressed; });
    }
    paths.removeDuplicates();
    sortParts(paths);
    if (paths.isEmpty())
        return splitSetError("Combine failed",
                             text("The files could not be combined, possibly because they are corrupt."));
    QStringList checksumFiles = m_files;
    checksumFiles.removeIf(
        [&name](const QString &path) { return !isCheckSumSplitFile(path) || splitSetName(path) != name; });
    checksumFiles.removeDuplicates();

    std::vector<SplitPart> parts;
    for (const QString &path : std::as_const(paths)) {
        const LXResult<SplitPart> part = SplitPart::at(path);
        if (!part && checksumFiles.isEmpty())
            return part.error();
        if (!part)
            return modifiedPartError(path);
        parts.push_back(part.value());
    }
    if (!checksumFiles.isEmpty() && m_delegate)
        m_delegate->combineWillVerifyChecksums(*this);
    // With several lists of sums nobody knows which one is right: all have to be.
    for (const QString &checksumFile : std::as_const(checksumFiles)) {
        if (const LXResult<void> verified = verifyChecksums(checksumFile, name, parts); !verified)
            return verified.error();
    }
    if (const LXResult<void> verified = verifyShapeOfSet(parts); !verified)
        return verified.error();
    return parts;
}

LXResult<void> CVFileCombiner::verifyChecksums(const QString &checksumFile, const QString &name,
                                               const std::vector<SplitPart> &parts)
{
    const LXFileDescriptor opened = openRegularFile(checksumFile);
    QFile file;
    QByteArray list;
    if (opened.isOpen() && file.open(opened.get(), QIODevice::ReadOnly))
        list = file.read(longestChecksumFile + 1);
    if (list.isEmpty() || list.size() > longestChecksumFile)
        return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The file “%1” could not be read."),
                              checksumFile);
    const LXResult<QMap<QString, QString>> sums = LXPropertyList::toStrings(list);
    if (!sums)
        return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The checksums in “%1” could not be read."),
                              checksumFile);

    QSet<QString> present;
    for (const SplitPart &part : parts)
        present.insert(part.path);
    const QString &first = parts.front().path;
    const QString folder = first.left(first.lastIndexOf(u'/') + 1);
    QStringList listed;
    for (const QString &key : sums.value().keys()) {
        // Anything else would make us read files that have nothing to do with the set.
        if (key.contains(u'/') || partsOfSplitSet({key}, name).isEmpty())
            return splitPartError(
                QT_TRANSLATE_NOOP("CVFileCombiner",
                                  "The checksum file names “%1”, which is no part of this set."),
                key);
        listed.append(folder + key);
        if (!present.remove(listed.last()))
            return modifiedPartError(key);
    }
    for (const SplitPart &part : parts) {
        if (present.contains(part.path))
            return splitPartError(
                QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is not in the list of checksums."),
                part.path);
    }
    const QMap<QString, QString> found =
        LXChecksum::checksumsOfFiles(listed, [this] { return isCancelled(); });
    for (const QString &path : std::as_const(listed)) {
        if (!found.contains(path))
            return unreadablePartError(path);
        if (found.value(path) != sums.value().value(lastComponent(path)))
            return modifiedPartError(path);
    }
    return {};
}

LXResult<void> CVFileCombiner::concatenateFiles(const std::vector<SplitPart> &parts, const QString &output)
{
    for (const SplitPart &part : parts)
        m_totalBytes += part.size;
    LXFileDescriptor file(::open(bytesOfFileName(output).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file.isOpen()) {
        if (LXFileHandleException failure; failure.isDiskFull())
            throw failure;
        throw FileCombinerIOException("Failed to create " + output.toStdString());
    }
    m_isOurs = true;
    LXResult<void> joined =
        isCompressedPart(parts.front().path) ? joinCompressed(parts, file.get()) : joinRaw(parts, file.get());
    if (joined && !m_isCancelled && !file.reset())
        throw LXFileHandleException();
    return joined;
}

LXResult<void> CVFileCombiner::joinRaw(const std::vector<SplitPart> &parts, int output)
{
    for (const SplitPart &part : parts) {
        const LXResult<LXFileDescriptor> input = part.open();
        if (!input)
            return input.error();
        BlockCopier copier(input.value().get());
        quint64 done = 0;
        while (done < part.size && !m_isCancelled) {
            const quint64 copied =
                copier.copy(done, output, m_bytesWritten, std::min<quint64>(blockBytes, part.size - done));
            if (copied == 0)
                break;
            done += copied;
            tellProgress(copied);
        }
        if (const LXResult<void> same = part.checkUnchanged(input.value()); !same)
            return same;
        if (done < part.size && !m_isCancelled)
            throw FileCombinerIOException("A part ended before its size");
    }
    return {};
}

LXResult<void> CVFileCombiner::joinCompressed(const std::vector<SplitPart> &parts, int output)
{
    CVBzipFileWriter writer(output, [this] { return isCancelled(); });
    const auto decompress = [&](const auto &work) {
        try {
            work();
        } catch (const LXStoppedException &) {
            return; // the flag is set
        } catch (const Bzip2Exception &e) {
            LX_DEBUG(lcCombiner, "%s", e.what());
            const auto [from, to] = writer.damage();
            throw Bzip2Exception(sentenceAboutDamage(parts, from, to).toStdString());
        }
    };
    writer.open();
    std::string pending;
    std::string block(compressedBlockBytes, '\0');
    const auto offer = [&] {
        const quint64 taken = writer.writeData(pending.data(), pending.size());
        pending.erase(0, taken);
        tellProgress(taken);
    };
    for (const SplitPart &part : parts) {
        const LXResult<LXFileDescriptor> input = part.open();
        if (!input)
            return input.error();
        while (!m_isCancelled) {
            const ssize_t got = ::read(input.value().get(), block.data(), block.size());
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throw LXFileHandleException();
            if (got == 0)
                break;
            pending.append(block.data(), static_cast<std::size_t>(got));
            decompress(offer);
        }
        if (const LXResult<void> same = part.checkUnchanged(input.value()); !same)
            return same;
    }
    while (!pending.empty() && !m_isCancelled)
        decompress(offer);
    if (m_isCancelled)
        return {};
    decompress([&] { writer.close(); });
    if (!m_isCancelled && !writer.hasEnded())
        return splitPartError(
            QT_TRANSLATE_NOOP("CVFileCombiner", "The set is cut off: after the part “%1” there are more."),
            parts.back().path);
    return {};
}

void CVFileCombiner::tellProgress(quint64 bytes)
{
    m_bytesWritten += bytes;
    if (m_delegate)
        m_delegate->combineHasMadeProgress(*this, m_bytesWritten, m_totalBytes);
}

void CVFileCombiner::fail(const LXError &error)
{
    if (m_delegate)
        m_delegate->combineFailed(*this, error);
    cancel();
}

void CVFileCombiner::cancel()
{
    m_isCancelled = true;
    combineCancelled();
}

void CVFileCombiner::combineCancelled()
{
    cleanUp();
    if (!m_cancelTold.exchange(true) && m_delegate)
        m_delegate->combineWasCancelled(*this);
}

void CVFileCombiner::cleanUp()
{
    if (!std::exchange(m_isOurs, false))
        return;
    const QString path = combineFileName();
    if (::unlink(bytesOfFileName(path).constData()) != 0 && errno != ENOENT)
        LX_WARNING(lcCombiner, "error removing %s", qUtf8Printable(path));
}

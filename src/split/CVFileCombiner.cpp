#include "split/CVFileCombiner.h"

#include "archives/archive_string.h"
#include "split/CVFileWriter.h"
#include "split/LXChecksum.h"
#include "split/LXPropertyList.h"
#include "split/block_copy.h"
#include "split/split_exceptions.h"
#include "split/split_names.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcCombiner, "corvane.split.combiner", QtInfoMsg)

constexpr std::size_t blockBytes = 1 << 20;
// A list of names and sums: a thousand parts take some hundred kilobytes.
constexpr qint64 longestChecksumFile = 64 << 20;

QString lastComponent(const QString &path)
{
    return path.mid(path.lastIndexOf(u'/') + 1);
}

QString text(const char *key)
{
    return QCoreApplication::translate("CVFileCombiner", key);
}

LXError setError(const char *description, const QString &reason, const QString &suggestion = {})
{
    return LXError{.domain = u"CorvaneErrorDomain"_s,
                   .code = 1,
                   .description = QString::fromLatin1(description),
                   .reason = reason,
                   .suggestion = suggestion};
}

LXError combineError(const char *reason, const QString &part = {})
{
    const QString sentence = text(reason);
    return setError("Combine failed", part.isEmpty() ? sentence : sentence.arg(lastComponent(part)),
                    text("Get the part again from where the set came from."));
}

LXError modifiedError(const QString &part)
{
    return setError("Verification failed",
                    text("The file “%1” was modified since it was split and can't be combined.")
                        .arg(lastComponent(part)));
}

LXError engineError(int code, const char *why)
{
    LX_WARNING(lcCombiner, "Caught exception %s, will try to handle", why);
    return LXError{.domain = QLatin1StringView(CVFileCombiner::errorDomain),
                   .code = code,
                   .description = {},
                   .reason = QString::fromUtf8(why),
                   .suggestion = {}};
}

std::optional<quint64> fileSize(const QString &path)
{
    struct stat facts;
    if (::stat(bytesOfFileName(path).constData(), &facts) != 0 || !S_ISREG(facts.st_mode))
        return std::nullopt;
    return static_cast<quint64>(facts.st_size);
}

LXFileDescriptor openForReading(const QString &path)
{
    LXFileDescriptor file(::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC));
    if (file.isOpen())
        (void)::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
}

bool isCompressed(const QString &part)
{
    return part.endsWith(u".zsplit"_s);
}

/// What the names and sizes of the sorted parts can show.
LXResult<void> verifyShape(const QStringList &parts)
{
    const qsizetype length = partCodeOfPath(parts.first()).size();
    const QString stem = parts.first().chopped(length + lastComponent(parts.first()).size() -
                                               lastComponent(parts.first()).lastIndexOf(u'.'));
    const QString kind = parts.first().mid(parts.first().lastIndexOf(u'.'));
    quint64 expected = 0;
    for (const QString &part : parts) {
        const QString code = partCodeOfPath(part);
        if (code.size() != length)
            return combineError(
                QT_TRANSLATE_NOOP("CVFileCombiner",
                                  "The part “%1” does not belong to the same set as the others."),
                part);
        const quint64 number = partNumber(code);
        if (number < expected)
            return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is there twice."), part);
        if (number > expected)
            return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is missing."),
                                stem + partCode(expected, static_cast<int>(length)) + kind);
        ++expected;
    }
    // Raw sets have just as many letters as their number of parts needs.
    if (!isCompressed(parts.first()) && partCodeLength(expected) != length)
        return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is missing."),
                            stem + partCode(expected, static_cast<int>(length)) + kind);

    const std::optional<quint64> size = fileSize(parts.first());
    for (const QString &part : parts) {
        const std::optional<quint64> own = fileSize(part);
        if (!own)
            return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” could not be read."),
                                part);
        const bool isLast = part == parts.last();
        if ((isLast ? *own > *size : *own != *size) || (*own == 0 && parts.size() > 1))
            return combineError(
                QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” has not the size of the others."), part);
    }
    return {};
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
    try {
        actualCombine();
        return {};
    } catch (const Bzip2Exception &e) {
        return engineError(0, e.what());
    } catch (const LXFileHandleException &e) {
        return engineError(e.isDiskFull() ? 1 : 2, e.what());
    } catch (const FileCombinerIOException &e) {
        return engineError(2, e.what());
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

    const LXResult<QStringList> parts = verifiedParts();
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

LXResult<QStringList> CVFileCombiner::verifiedParts()
{
    const QString &first = m_files.first();
    if (isCheckSumSplitFile(first) && m_files.size() == 1)
        return setError("Combine failed", text("Cannot combine a single checksum file."));
    const QString name = splitSetName(first);
    QStringList parts = partsOfSplitSet(m_files, name);
    // A raw and a compressed set of one file may lie side by side: the one that was asked for counts.
    if (!isCheckSumSplitFile(first)) {
        const bool compressed = isCompressed(first);
        parts.removeIf([compressed](const QString &part) { return isCompressed(part) != compressed; });
    }
    parts.removeDuplicates();
    sortParts(parts);
    if (parts.isEmpty())
        return setError("Combine failed",
                        text("The files could not be combined, possibly because they are corrupt."));

    QString checksumFile;
    for (const QString &path : m_files) {
        if (isCheckSumSplitFile(path) && splitSetName(path) == name)
            checksumFile = path;
    }
    if (!checksumFile.isEmpty()) {
        if (m_delegate)
            m_delegate->combineWillVerifyChecksums(*this);
        if (const LXResult<void> verified = verifyChecksums(checksumFile, name, parts); !verified)
            return verified.error();
    }
    if (const LXResult<void> verified = verifyShape(parts); !verified)
        return verified.error();
    return parts;
}

LXResult<void> CVFileCombiner::verifyChecksums(const QString &checksumFile, const QString &name,
                                               const QStringList &parts)
{
    const LXFileDescriptor opened = openForReading(checksumFile);
    QFile file;
    if (!opened.isOpen() || !file.open(opened.get(), QIODevice::ReadOnly) ||
        file.size() > longestChecksumFile)
        return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The file “%1” could not be read."),
                            checksumFile);
    const LXResult<QMap<QString, QString>> sums = LXPropertyList::toStrings(file.readAll());
    if (!sums)
        return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The checksums in “%1” could not be read."),
                            checksumFile);

    const QString folder = parts.first().left(parts.first().lastIndexOf(u'/') + 1);
    QStringList listed;
    for (const QString &key : sums.value().keys()) {
        // Anything else would make us read files that have nothing to do with the set.
        if (key.contains(u'/') || partsOfSplitSet({key}, name).isEmpty())
            return combineError(
                QT_TRANSLATE_NOOP("CVFileCombiner",
                                  "The checksum file names “%1”, which is no part of this set."),
                key);
        listed.append(folder + key);
    }
    for (const QString &path : listed) {
        if (!fileSize(path))
            return modifiedError(path);
    }
    for (const QString &part : parts) {
        if (!listed.contains(part))
            return combineError(
                QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is not in the list of checksums."), part);
    }
    const QMap<QString, QString> found =
        LXChecksum::checksumsOfFiles(listed, [this] { return isCancelled(); });
    for (const QString &path : listed) {
        if (found.value(path) != sums.value().value(lastComponent(path)) || !parts.contains(path))
            return modifiedError(path);
    }
    return {};
}

LXResult<void> CVFileCombiner::concatenateFiles(const QStringList &parts, const QString &output)
{
    for (const QString &part : parts)
        m_totalBytes += fileSize(part).value_or(0);
    LXFileDescriptor file(::open(bytesOfFileName(output).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file.isOpen()) {
        if (LXFileHandleException failure; failure.isDiskFull())
            throw failure;
        throw FileCombinerIOException("Failed to create " + output.toStdString());
    }
    LXResult<void> joined =
        isCompressed(parts.first()) ? joinCompressed(parts, file.get()) : joinRaw(parts, file.get());
    if (joined && !m_isCancelled && !file.reset())
        throw LXFileHandleException();
    return joined;
}

LXResult<void> CVFileCombiner::joinRaw(const QStringList &parts, int output)
{
    for (const QString &part : parts) {
        const LXFileDescriptor input = openForReading(part);
        if (!input.isOpen())
            return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” could not be read."),
                                part);
        BlockCopier copier(input.get());
        const quint64 size = fileSize(part).value_or(0);
        for (quint64 done = 0; done < size && !m_isCancelled;) {
            const quint64 wanted = std::min<quint64>(blockBytes, size - done);
            if (copier.copy(done, output, m_bytesWritten, wanted) != wanted)
                return combineError(
                    QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” became shorter while it was read."),
                    part);
            done += wanted;
            tellProgress(wanted);
        }
    }
    return {};
}

LXResult<void> CVFileCombiner::joinCompressed(const QStringList &parts, int output)
{
    CVBzipFileWriter writer(output);
    writer.open();
    std::string pending;
    std::string block(blockBytes, '\0');
    const auto offer = [&] {
        const quint64 taken = writer.writeData(pending.data(), pending.size());
        pending.erase(0, taken);
        tellProgress(taken);
    };
    for (const QString &part : parts) {
        const LXFileDescriptor input = openForReading(part);
        if (!input.isOpen())
            return combineError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” could not be read."),
                                part);
        while (!m_isCancelled) {
            const ssize_t got = ::read(input.get(), block.data(), block.size());
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throw LXFileHandleException();
            if (got == 0)
                break;
            pending.append(block.data(), static_cast<std::size_t>(got));
            offer();
        }
    }
    while (!pending.empty() && !m_isCancelled)
        offer();
    if (m_isCancelled)
        return {};
    writer.close();
    if (!writer.hasEnded())
        return combineError(
            QT_TRANSLATE_NOOP("CVFileCombiner", "The set is cut off: after the part “%1” there are more."),
            parts.last());
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
    if (m_files.isEmpty())
        return;
    const QString path = combineFileName();
    if (::unlink(bytesOfFileName(path).constData()) != 0 && errno != ENOENT)
        LX_WARNING(lcCombiner, "error removing %s", qUtf8Printable(path));
}

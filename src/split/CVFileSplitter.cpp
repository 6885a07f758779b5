#include "split/CVFileSplitter.h"

#include "split/CVBzipFileReader.h"
#include "split/LXChecksum.h"
#include "split/LXPropertyList.h"
#include "split/block_copy.h"
#include "split/part_copy.h"
#include "split/split_exceptions.h"
#include "split/split_names.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QLoggingCategory>

#include <algorithm>
#include <cmath>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcSplitter, "corvane.split.splitter", QtInfoMsg)

constexpr quint64 blockBytes = 1 << 20;

quint64 fileSize(const QString &path)
{
    struct stat facts;
    return ::stat(bytesOfFileName(path).constData(), &facts) == 0 ? static_cast<quint64>(facts.st_size) : 0;
}

LXError splitterError(int code, const char *why)
{
    LX_DEBUG(lcSplitter, "Caught exception %s, will try to handle", why);
    return LXError{.domain = QLatin1StringView(CVFileSplitter::errorDomain),
                   .code = code,
                   .description = {},
                   .reason = QString::fromUtf8(why),
                   .suggestion = {}};
}

} // namespace

CVFileSplitter::CVFileSplitter() = default;
CVFileSplitter::~CVFileSplitter() = default;

QString CVFileSplitter::outputFileName() const
{
    return m_destinationPath + u'/' + lastComponent(m_inputFileName);
}

quint64 CVFileSplitter::chunkSizeInBytes() const
{
    const double unit = m_chunkUnits == "KB"_L1   ? 1024.0
                        : m_chunkUnits == "MB"_L1 ? 1024.0 * 1024.0
                        : m_chunkUnits == "GB"_L1 ? 1024.0 * 1024.0 * 1024.0
                                                  : 1.0;
    const double bytes = m_chunkSize * unit;
    constexpr double limit = 9.0e18; // below what the number can hold
    if (std::isnan(bytes) || bytes < 1)
        return 0;
    return static_cast<quint64>(std::min(bytes, limit));
}

quint64 CVFileSplitter::numberOfChunksForFile(const QString &path, quint64 chunkSize)
{
    const quint64 size = fileSize(path);
    if (size == 0 || chunkSize == 0)
        return 1;
    return size / chunkSize + (size % chunkSize != 0 ? 1 : 0);
}

QString CVFileSplitter::fileExtension() const
{
    return m_shouldCompress ? u"zsplit"_s : u"split"_s;
}

void CVFileSplitter::reset()
{
    m_outputFile.reset();
    m_outputFiles.clear();
}

LXResult<void> CVFileSplitter::split()
{
    try {
        actualSplit();
        return {};
    } catch (const Bzip2Exception &e) {
        return splitterError(0, e.what());
    } catch (const LXFileHandleException &e) {
        return splitterError(e.isDiskFull() ? 1 : 2, e.what());
    } catch (const FileSplitterIOException &e) {
        return splitterError(2, e.what());
    } catch (const std::exception &e) {
        LX_WARNING(lcSplitter, "Can't handle exception, will re-raise %s", e.what());
        throw;
    }
}

void CVFileSplitter::actualSplit()
{
    if (m_delegate)
        m_delegate->splitWillBegin(*this);
    m_isCancelled = false;
    m_bytesWritten = 0;
    const quint64 chunkBytes = chunkSizeInBytes();
    reset();
    if (m_inputFileName.isEmpty())
        throw LXAssertionException("No input file, please set one via the inputFileName property");
    if (m_destinationPath.isEmpty())
        throw LXAssertionException("No output file, please set one via the outputFileName property");
    if (chunkBytes == 0)
        throw LXAssertionException("Chunk size must be greater than 0, was 0");
    if (m_shouldChecksum && !LXPropertyList::canHold(lastComponent(m_inputFileName)))
        throw FileSplitterIOException("A list of checksums cannot hold the name of the file");
    m_suffixLength = partCodeLength(numberOfChunksForFile(m_inputFileName, chunkBytes));
    m_totalBytes = fileSize(m_inputFileName);

    const LXFileDescriptor input = openRegularFile(m_inputFileName);
    if (!input.isOpen())
        throw LXFileHandleException();
    if (m_shouldCompress) {
        CVBzipFileReader reader(input.get());
        reader.open();
        writeBlocks(reader, chunkBytes);
        reader.close();
    } else {
        copyRaw(input.get(), chunkBytes);
    }
    closePart();

    if (m_shouldChecksum && !m_isCancelled) {
        if (m_delegate)
            m_delegate->splitWillChecksum(*this);
        writeChecksumsForDestinationFile(outputFileName());
    }
    if (!m_delegate)
        return;
    if (m_isCancelled)
        m_delegate->splitWasCancelled(*this);
    else
        m_delegate->splitHasCompleted(*this);
}

void CVFileSplitter::copyRaw(int input, quint64 chunkBytes)
{
    copyParts({.input = input,
               // What was appended since the size was read would need codes that are too long.
               .inputBytes = m_totalBytes,
               .partBytes = chunkBytes,
               .threads = threadsToCopy(input, bytesOfFileName(m_destinationPath).constData()),
               .newPart =
                   [this] {
                       newFile();
                       return std::move(m_outputFile);
                   },
               .tell = [this](std::uint64_t bytes) { tellProgress(bytes); },
               .stop = m_isCancelled});
    char more = 0;
    if (!m_isCancelled && ::pread(input, &more, 1, static_cast<off_t>(m_totalBytes)) > 0)
        throw FileSplitterIOException("The file became longer while it was split");
}

void CVFileSplitter::writeBlocks(CVBzipFileReader &reader, quint64 chunkBytes)
{
    quint64 inPart = 0;
    while (!m_isCancelled) {
        const std::string block = reader.readDataWithLength(blockBytes);
        if (block.empty())
            return;
        for (std::size_t at = 0; at < block.size() && !m_isCancelled;) {
            if (!m_outputFile.isOpen()) {
                newFile();
                inPart = 0;
            }
            const auto count =
                static_cast<std::size_t>(std::min<quint64>(chunkBytes - inPart, block.size() - at));
            writeData(block.data() + at, count);
            at += count;
            inPart += count;
            if (inPart == chunkBytes)
                closePart();
        }
    }
}

void CVFileSplitter::newFile()
{
    const QString path = outputFileName() + u'.' +
                         partCode(static_cast<quint64>(m_outputFiles.size()), m_suffixLength) + u'.' +
                         fileExtension();
    m_outputFile = LXFileDescriptor(::open(bytesOfFileName(path).constData(),
                                           O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!m_outputFile.isOpen()) {
        if (LXFileHandleException failure; failure.isDiskFull() || failure.systemError() == ENAMETOOLONG)
            throw failure;
        throw FileSplitterIOException("Failed to create " + path.toStdString());
    }
    m_outputFiles.append(path);
}

void CVFileSplitter::closePart()
{
    // Some file systems tell only here that the data did not fit.
    if (!m_outputFile.reset())
        throw LXFileHandleException();
}

void CVFileSplitter::writeData(const char *data, std::size_t size)
{
    writeOrThrow(m_outputFile.get(), data, size);
    tellProgress(size);
}

void CVFileSplitter::tellProgress(quint64 bytes)
{
    m_bytesWritten += bytes;
    if (m_delegate)
        m_delegate->splitHasMadeProgress(*this, m_bytesWritten, m_totalBytes);
}

void CVFileSplitter::writeChecksumsForDestinationFile(const QString &outputFile)
{
    const QMap<QString, QString> sums =
        LXChecksum::checksumsOfFiles(m_outputFiles, [this] { return isCancelled(); });
    if (m_isCancelled)
        return;
    if (sums.size() != m_outputFiles.size())
        throw FileSplitterIOException("Failed to write checksum");
    QMap<QString, QString> byName;
    for (auto it = sums.begin(); it != sums.end(); ++it)
        byName.insert(lastComponent(it.key()), it.value());
    const QByteArray list = LXPropertyList::fromStrings(byName);
    LXFileDescriptor file(::open(bytesOfFileName(QString(outputFile + u".chksplit"_s)).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file.isOpen()) {
        if (LXFileHandleException failure; failure.isDiskFull())
            throw failure;
        throw FileSplitterIOException("Failed to write checksum");
    }
    writeOrThrow(file.get(), list.constData(), static_cast<std::size_t>(list.size()));
    if (!file.reset())
        throw LXFileHandleException();
}

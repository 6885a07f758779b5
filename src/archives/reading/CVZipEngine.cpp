#include "archives/reading/CVZipEngine.h"

#include "archives/reading/CVArchiveFiles.h"
#include "archives/reading/CVZipBytes.h"
#include "archives/reading/CVZipDirectory.h"
#include "archives/reading/CVZipExtractor.h"
#include "util/LXFileDescriptor.h"

#include <QLoggingCategory>

#include <new>

#include <sys/stat.h>

using namespace CVZipBytes;

namespace {

Q_LOGGING_CATEGORY(lcZip, "corvane.reading.zip")

class CVZipEngine final : public CVReadingEngine
{
public:
    CVZipEngine(LXFileDescriptor file, std::unique_ptr<CVZipDirectory> directory)
        : m_file(std::move(file))
        , m_directory(std::move(directory))
    {}

    QString formatName() const override { return QStringLiteral("ZIP"); }
    const std::vector<XADEntry> &entries() const override { return m_directory->entries(); }
    bool isEncrypted() const override { return false; }
    bool isDamageFinal() const override { return true; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override
    {
        return CVZipExtractor(m_file.get(), *m_directory).extract(indices, all, sink);
    }

private:
    LXFileDescriptor m_file;
    std::unique_ptr<CVZipDirectory> m_directory;
};

bool beginsAsZip(QByteArrayView head)
{
    if (head.size() < 4)
        return false;
    quint32 mark = u32(head.data());
    // Sets that turned out to fit on one disk keep a mark of their kind in front.
    if ((mark == spannedMark || mark == oneSegmentMark) && head.size() >= 8)
        mark = u32(head.data() + 4);
    return mark == localHeaderMark || mark == endMark;
}

bool isProgram(QByteArrayView head)
{
    return head.startsWith("MZ") ||
           head.startsWith("\x7f"
                           "ELF") ||
           head.startsWith("#!");
}

int bid(const CVArchiveProbe &probe)
{
    if (beginsAsZip(probe.head))
        return CVZipDirectory::findEnd(probe.tail, false) >= 0 ? 90 : 0;
    if (CVZipDirectory::findEnd(probe.tail, true) < 0)
        return 0;
    return isProgram(probe.head) ? 85 : 30;
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &)
{
    LXFileDescriptor file = CVArchiveFiles::open(probe.path);
    struct stat status = {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
        return {nullptr, XADErrorCode::Damaged, QStringLiteral("The file could not be opened.")};
    try {
        auto directory = std::make_unique<CVZipDirectory>();
        const CVZipDirectory::Outcome outcome = directory->read(
            [fd = file.get()](char *to, qint64 size, quint64 offset) { return readAt(fd, to, size, offset); },
            quint64(status.st_size));
        if (outcome.code != XADErrorCode::None) {
            qCDebug(lcZip) << "left to other engines:" << outcome.detail;
            return {nullptr, outcome.code, outcome.detail};
        }
        return {std::make_unique<CVZipEngine>(std::move(file), std::move(directory)), XADErrorCode::None, {}};
    } catch (const std::bad_alloc &) {
        return {nullptr, XADErrorCode::Damaged,
                QStringLiteral("There is not enough memory to list the archive.")};
    }
}

} // namespace

CVEngineDescriptor cvZipEngineDescriptor()
{
    return {"zip", bid, open};
}

#include "archives/reading/CVFileWriter.h"

#include "archives/reading/CVFileTimes.h"
#include "archives/reading/CVWriteErrors.h"
#include "util/LXSaturatingSum.h"

#include <QCoreApplication>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

namespace {

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafeWriter", source);
}

} // namespace

CVSafeWriter::FileWriter::FileWriter(CVSafeWriter &owner, int index, QByteArray path)
    : m_owner(owner)
    , m_index(index)
    , m_path(std::move(path))
{
    const XADEntry &entry = owner.entry(index);
    m_declared = entry.type == XADEntry::Type::File ? entry.size : -1;
    // A hard link usually has no data; its file is made only when data really comes.
    m_isHardLink = entry.type == XADEntry::Type::HardLink;
}

CVSafeWriter::FileWriter::~FileWriter()
{
    if (!m_ended)
        discard();
}

bool CVSafeWriter::FileWriter::create()
{
    // The data of all names of a file may come with the last of them.
    if (m_isHardLink)
        m_file = m_owner.openLinked(m_index, m_path);
    if (!m_file.fd.isOpen())
        m_file = m_owner.createFile(m_index, m_path);
    m_failed = !m_file.fd.isOpen();
    return !m_failed;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::lost()
{
    return m_owner.shouldStop() ? Flow::Stop : Flow::SkipEntry;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::admit(qint64 size)
{
    if (m_failed || (!m_file.fd.isOpen() && !create()))
        return lost();
    m_received = saturatingSum(m_received, size);
    return m_declared >= 0 && m_received > m_declared ? tooLong() : Flow::Go;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::write(const char *data, qsizetype size)
{
    if (size == 0)
        return m_failed ? lost() : Flow::Go;
    if (const Flow flow = admit(size); flow != Flow::Go)
        return flow;
    m_endsInHole = false;
    if (const Flow flow = m_owner.mayWrite(size); flow != Flow::Go) {
        m_failed = true;
        return flow;
    }
    while (size > 0) {
        const ssize_t n = ::write(m_file.fd.get(), data, static_cast<std::size_t>(size));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return fail(errno);
        }
        data += n;
        size -= n;
    }
    return Flow::Go;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::writeHole(qint64 size)
{
    if (size <= 0)
        return m_failed ? lost() : Flow::Go;
    // A hole costs no space, so it counts for the size but not for the limits.
    if (const Flow flow = admit(size); flow != Flow::Go)
        return flow;
    if (::lseek(m_file.fd.get(), size, SEEK_CUR) < 0)
        return fail(errno);
    m_endsInHole = true;
    return Flow::Go;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::finish(XADErrorCode code, const QString &detail)
{
    m_ended = true;
    if (m_failed) {
        discard();
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    }
    if (code == XADErrorCode::None && m_declared >= 0 && m_received != m_declared)
        return discardWith(XADErrorCode::Damaged, text("It is shorter than the archive says."));
    if (code != XADErrorCode::None)
        return discardWith(code, detail);
    const XADEntry &entry = m_owner.entry(m_index);
    if (m_isHardLink && m_received == 0) {
        m_owner.addLink(m_index, m_path, entry.linkTarget, true);
        return Flow::Go;
    }
    if (!m_file.fd.isOpen() && !create())
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    const int fd = m_file.fd.get();
    if (m_endsInHole && ::ftruncate(fd, m_received) != 0)
        return fail(errno);
    if (::fchmod(fd, m_owner.fileMode(entry)) != 0 && !isAboutOneEntry(errno))
        return fail(errno);
    if (entry.modified != XADEntry::unknownTime)
        ::futimens(fd, CVFileTimes::modifiedOnly(entry.modified).value);
    if (!m_file.fd.reset())
        return fail(errno);
    m_owner.reportProgress(false);
    return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::tooLong()
{
    m_failed = true;
    const Flow flow =
        m_owner.failEntry(m_index, XADErrorCode::Damaged, text("It is longer than the archive says."));
    return flow == Flow::Stop ? Flow::Stop : Flow::SkipEntry;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::fail(int error)
{
    m_failed = true;
    const Flow flow = m_owner.systemFailure(m_index, error);
    if (m_ended)
        discard();
    return flow == Flow::Stop ? Flow::Stop : Flow::SkipEntry;
}

CVEntryWriter::Flow CVSafeWriter::FileWriter::discardWith(XADErrorCode code, const QString &reason)
{
    discard();
    return m_owner.failEntry(m_index, code, reason);
}

void CVSafeWriter::FileWriter::discard()
{
    m_file.fd.reset();
    if (m_file.folder)
        ::unlinkat(m_file.folder->get(), m_file.name.constData(), 0);
    m_file.folder.reset();
}

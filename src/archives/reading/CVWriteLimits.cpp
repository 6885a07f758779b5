#include "archives/reading/CVWriteLimits.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace {

// How often the limits are looked at: at most this much is written between two looks.
constexpr qint64 checkStep = qint64(16) << 20;

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafeWriter", source);
}

} // namespace

CVWriteLimits::Verdict CVWriteLimits::add(qint64 bytes,
                                          const std::function<bool(const QString &explanation)> &ask)
{
    const qint64 written = m_written += bytes;
    if (written < m_nextCheck.load())
        return {};
    m_nextCheck = written + checkStep;
    const auto free = static_cast<qint64>(std::min<std::uint64_t>(
        m_destination.freeBytes(), std::uint64_t(std::numeric_limits<qint64>::max())));
    if (free < reservedFreeBytes + bytes)
        return {false, text("There is not enough free space."), ENOSPC};
    const bool isAbsurd =
        written > bombFloorBytes && m_archiveBytes > 0 && written / bombRatio > m_archiveBytes;
    if (!isAbsurd || m_isLifted)
        return {};
    const std::lock_guard lock(m_asking);
    if (m_isLifted)
        return {};
    const QString explanation =
        text("The archive has %1 bytes and has unpacked to %2 bytes so far, more than %3 times as "
             "much. It may be made to fill the disk.")
            .arg(m_archiveBytes)
            .arg(written)
            .arg(bombRatio);
    if (!ask(explanation))
        return {false, explanation, 0};
    m_isLifted = true;
    return {};
}

#pragma once

#include "archives/xar/xar.h"

#include <QString>

#include <atomic>
#include <deque>
#include <span>
#include <vector>

class CVXarDeflater;

/// The table of contents as it is in the file.
namespace CVXarTable {

inline constexpr std::size_t headerBytes = 28;
/// Of the table's own checksum, the first thing in the heap.
inline constexpr std::size_t checksumBytes = 20;

/// The whole part of an archive before its data: header, compressed table and its checksum.
/// `dataAt`: where the data of offset 0 lies in the file, or 0 when it comes right behind. It may
/// come out longer than that; then the data has to be moved to its end.
/// Empty when `cancelled` became true.
std::vector<char> front(const std::deque<xar_file> &files, std::uint64_t dataAt, CVXarDeflater &deflater,
                        const std::atomic<bool> &cancelled);

/// A time as the format has it, "2026-11-21T13:57:04Z", and back; nothing when it is none.
QByteArray fromTime(std::int64_t seconds);
std::optional<std::int64_t> toTime(QStringView text);

} // namespace CVXarTable

/// Takes a table of contents in pieces as it is unpacked, and trusts nothing of it. One thread.
class CVXarTableParser
{
public:
    // A million files make about 700 MB of table.
    static constexpr std::uint64_t maxTableBytes = std::uint64_t(1) << 30;
    static constexpr std::size_t maxEntries = 2'000'000;
    /// No path that a system could open has more components.
    static constexpr std::size_t maxDepth = 2048;
    /// Of one name or other value; the longest that anything could use is a link's target of 4 KiB.
    static constexpr qsizetype maxTextLength = 16 * 1024;

    explicit CVXarTableParser(std::deque<xar_file> &files);
    ~CVXarTableParser();

    /// False: an error was found.
    bool add(const QByteArray &piece);
    /// After the last piece: the table is whole. Whether the data is where it says is not looked at.
    bool finish();
    /// Why, in words.
    const QString &error() const;

    /// Of the table itself.
    struct Checksum
    {
        xar_digest algorithm = xar_digest::none;
        std::uint64_t offset = 0;
        std::uint64_t size = 0;
    };
    std::optional<Checksum> checksum() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

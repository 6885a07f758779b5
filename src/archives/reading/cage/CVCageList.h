#pragma once

#include "archives/reading/XADTypes.h"
#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

/// Entries as bytes, on their way from a reader to the program.
namespace CVCageList {

/// What an entry takes beside its name and target.
struct Fields
{
    std::int64_t size;
    std::int64_t modified;
    std::uint32_t nameBytes;
    std::uint32_t targetBytes;
    std::uint32_t mode;
    std::uint8_t type;
    std::uint8_t encoding;
    std::uint8_t flags;
    std::uint8_t unused;
};
enum Flag : std::uint8_t { HasMode = 1, Encrypted = 2, IsArchive = 4 };

/// Names that are longer are cut: nothing can be delivered under them. Two of them fit into a slot.
constexpr std::uint32_t maxNameBytes = std::uint32_t(96) << 10;

void append(QByteArray &to, const XADEntry &entry, bool isArchive);

/// Takes one entry off the front, with name and target as views. Nothing when it makes no sense.
struct Taken
{
    XADEntry entry;
    bool isArchive = false;
};
std::optional<Taken> take(std::span<const char> &from);

/// A list in memory, with what it is a view of.
class Held
{
public:
    Held() = default;
    ~Held();
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

    /// Takes over exactly `count` entries. The file is sealed first, so that nobody changes it any more.
    bool fromFile(int file, std::int64_t bytes, std::int64_t count);
    bool fromBytes(const QByteArray &bytes, std::int64_t count);
    void clear();

    std::vector<XADEntry> entries;
    std::vector<std::size_t> archives; ///< those that are archives again, ascending

private:
    bool parse(std::span<const char> bytes, std::int64_t count);

    QByteArray m_bytes;
    void *m_map = nullptr;
    std::size_t m_mapBytes = 0;
};

} // namespace CVCageList

#include "archives/reading/cage/CVCageList.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace CVCageList {

void append(QByteArray &to, const XADEntry &entry, bool isArchive)
{
    const auto bounded = [](const QByteArray &text) {
        return std::uint32_t(std::min<qsizetype>(text.size(), maxNameBytes));
    };
    const Fields fields{entry.size,
                        entry.modified,
                        bounded(entry.name),
                        bounded(entry.linkTarget),
                        entry.mode,
                        std::uint8_t(entry.type),
                        std::uint8_t(entry.nameEncoding),
                        std::uint8_t((entry.hasMode ? HasMode : 0) | (entry.encrypted ? Encrypted : 0) |
                                     (isArchive ? IsArchive : 0)),
                        0};
    const qsizetype at = to.size();
    to.resize(at + qsizetype(sizeof fields + fields.nameBytes + fields.targetBytes));
    char *const out = to.data() + at;
    std::memcpy(out, &fields, sizeof fields);
    if (fields.nameBytes > 0)
        std::memcpy(out + sizeof fields, entry.name.constData(), fields.nameBytes);
    if (fields.targetBytes > 0)
        std::memcpy(out + sizeof fields + fields.nameBytes, entry.linkTarget.constData(), fields.targetBytes);
}

std::optional<Taken> take(std::span<const char> &from)
{
    Fields fields;
    if (from.size() < sizeof fields)
        return std::nullopt;
    std::memcpy(&fields, from.data(), sizeof fields);
    if (fields.nameBytes > maxNameBytes || fields.targetBytes > maxNameBytes ||
        from.size() - sizeof fields < std::size_t(fields.nameBytes) + fields.targetBytes ||
        fields.type > std::uint8_t(XADEntry::Type::Special) ||
        fields.encoding > std::uint8_t(CVNameEncoding::Utf8))
        return std::nullopt;
    const char *const name = from.data() + sizeof fields;
    from = from.subspan(sizeof fields + fields.nameBytes + fields.targetBytes);
    Taken taken;
    taken.isArchive = (fields.flags & IsArchive) != 0;
    XADEntry &entry = taken.entry;
    entry.name = QByteArray::fromRawData(name, fields.nameBytes);
    if (fields.targetBytes > 0)
        entry.linkTarget = QByteArray::fromRawData(name + fields.nameBytes, fields.targetBytes);
    entry.size = std::max<std::int64_t>(fields.size, -1);
    entry.modified = fields.modified;
    entry.mode = fields.mode & 07777U;
    entry.type = static_cast<XADEntry::Type>(fields.type);
    entry.nameEncoding = static_cast<CVNameEncoding>(fields.encoding);
    entry.hasMode = (fields.flags & HasMode) != 0;
    entry.encrypted = (fields.flags & Encrypted) != 0;
    return taken;
}

Held::~Held()
{
    clear();
}

void Held::clear()
{
    entries.clear();
    archives.clear();
    m_bytes.clear();
    if (m_map)
        ::munmap(m_map, m_mapBytes);
    m_map = nullptr;
}

bool Held::fromFile(int file, std::int64_t bytes, std::int64_t count)
{
    clear();
    struct stat status = {};
    if (::fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0 ||
        ::fstat(file, &status) != 0 || bytes <= 0 || status.st_size < bytes)
        return false;
    m_mapBytes = std::size_t(bytes);
    void *const map = ::mmap(nullptr, m_mapBytes, PROT_READ, MAP_SHARED | MAP_POPULATE, file, 0);
    if (map == MAP_FAILED)
        return false;
    m_map = map;
    return parse({static_cast<const char *>(map), m_mapBytes}, count);
}

bool Held::fromBytes(const QByteArray &bytes, std::int64_t count)
{
    clear();
    m_bytes = bytes;
    return parse({m_bytes.constData(), std::size_t(m_bytes.size())}, count);
}

bool Held::parse(std::span<const char> bytes, std::int64_t count)
{
    if (count < 0 || std::size_t(count) > bytes.size() / sizeof(Fields))
        return false;
    entries.reserve(std::size_t(count));
    while (!bytes.empty()) {
        auto taken = take(bytes);
        if (!taken)
            return false;
        if (taken->isArchive)
            archives.push_back(entries.size());
        entries.push_back(std::move(taken->entry));
    }
    return entries.size() == std::size_t(count);
}

} // namespace CVCageList

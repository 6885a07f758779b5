#include "archives/zip/CVZipVolumes.h"

#include "util/LXRename.h"
#include "util/write_all.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

CVZipVolumes::CVZipVolumes(std::string path, std::uint64_t volumeBytes)
    : m_path(std::move(path))
    , m_volumeBytes(volumeBytes)
{}

std::string CVZipVolumes::finalName(std::size_t index) const
{
    if (m_volumeBytes == 0)
        return m_path;
    char number[32];
    std::snprintf(number, sizeof number, ".%03zu", index + 1);
    return m_path + number;
}

int CVZipVolumes::openNext()
{
    if (const int error = closeLast())
        return error;
    const std::lock_guard lock(m_mutex);
    if (m_isOver)
        return ECANCELED;
    const std::string name = finalName(m_names.size()) + ".tmp";
    m_last = LXFileDescriptor(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!m_last.isOpen())
        return errno;
    m_names.push_back(name);
    struct stat info;
    if (::fstat(m_last.get(), &info) != 0)
        return errno;
    m_files.emplace(info.st_dev, info.st_ino);
    return 0;
}

int CVZipVolumes::closeLast()
{
    return m_last.reset() ? 0 : errno;
}

int CVZipVolumes::append(std::span<const char> data)
{
    while (!data.empty()) {
        const std::uint64_t at = m_volumeBytes == 0 ? m_size : m_size % m_volumeBytes;
        if (at == 0)
            if (const int error = openNext())
                return error;
        std::size_t bytes = data.size();
        if (m_volumeBytes > 0)
            bytes = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, m_volumeBytes - at));
        if (!writeAllAt(m_last.get(), data.data(), bytes, static_cast<off_t>(at)))
            return errno;
        m_size += bytes;
        data = data.subspan(bytes);
    }
    return 0;
}

int CVZipVolumes::writeAt(std::uint64_t offset, std::span<const char> data)
{
    while (!data.empty()) {
        const std::uint64_t volume = m_volumeBytes == 0 ? 0 : offset / m_volumeBytes;
        const std::uint64_t at = m_volumeBytes == 0 ? offset : offset % m_volumeBytes;
        std::size_t bytes = data.size();
        if (m_volumeBytes > 0)
            bytes = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, m_volumeBytes - at));
        LXFileDescriptor earlier;
        int file = m_last.get();
        if (volume + 1 < m_names.size()) {
            earlier = LXFileDescriptor(
                ::open(m_names[static_cast<std::size_t>(volume)].c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
            file = earlier.get();
        }
        if (file < 0 || !writeAllAt(file, data.data(), bytes, static_cast<off_t>(at)) || !earlier.reset())
            return errno;
        offset += bytes;
        data = data.subspan(bytes);
    }
    return 0;
}

int CVZipVolumes::finish()
{
    if (const int error = closeLast())
        return error;
    const std::lock_guard lock(m_mutex);
    if (m_isOver)
        return ECANCELED;
    for (std::size_t i = 0; i < m_names.size(); ++i) {
        const std::string name = finalName(i);
        if (const int error = renameWithoutReplacing(QByteArray::fromStdString(m_names[i]),
                                                     QByteArray::fromStdString(name)))
            return error;
        m_names[i] = name;
    }
    m_isOver = true;
    m_names.clear();
    return 0;
}

void CVZipVolumes::abandon()
{
    const std::lock_guard lock(m_mutex);
    m_isOver = true;
    for (const std::string &name : m_names)
        ::unlink(name.c_str());
    m_names.clear();
}

bool CVZipVolumes::isOwn(dev_t device, ino_t inode) const
{
    const std::lock_guard lock(m_mutex);
    return m_files.contains({device, inode});
}

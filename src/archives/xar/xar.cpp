#include "archives/xar/xar.h"

#include "archives/xar/CVXarErrors.h"
#include "archives/xar/xar_private.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <dirent.h>

namespace {

struct CloseFolder
{
    void operator()(DIR *folder) const { ::closedir(folder); }
};

/// Sorted, so that the archive depends on what is in the folder alone. False with errno.
bool namesIn(const QByteArray &path, std::vector<QByteArray> &names)
{
    const std::unique_ptr<DIR, CloseFolder> folder(::opendir(path.constData()));
    if (!folder)
        return false;
    for (;;) {
        errno = 0;
        const dirent *const entry = ::readdir(folder.get());
        if (!entry)
            break;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return errno == 0;
}

} // namespace

xar_archive::xar_archive(std::unique_ptr<Private> p)
    : d(std::move(p))
{}

xar_archive::~xar_archive() = default;

LXResult<xar_t> xar_create(const QByteArray &path)
{
    auto writer = CVXarWriter::open(path);
    if (!writer)
        return writer.error();
    auto d = std::make_unique<xar_archive::Private>();
    d->writer = std::move(writer).value();
    return std::make_unique<xar_archive>(std::move(d));
}

xar_file_t xar_add_frompath(xar_archive &archive, xar_file_t parent, const QByteArray &name,
                            const QByteArray &path)
{
    return archive.d->writer ? archive.d->writer->add(parent, name, path) : nullptr;
}

bool xar_add_beneath(xar_archive &archive, xar_file_t parent, const QByteArray &path,
                     const std::function<bool()> &added)
{
    struct Folder
    {
        xar_file_t entry;
        QByteArray path;
        std::vector<QByteArray> names;
        std::size_t next = 0;
    };
    // No recursion: how deep it goes is somebody else's choice.
    std::vector<Folder> open;
    const auto enter = [&](xar_file_t entry, const QByteArray &folder) {
        std::vector<QByteArray> names;
        if (!namesIn(folder, names)) {
            archive.d->writer->fail(CVXarErrors::system(errno, folder));
            return false;
        }
        open.push_back({entry, folder, std::move(names)});
        return true;
    };
    if (!archive.d->writer || !enter(parent, path))
        return false;
    while (!open.empty()) {
        Folder &folder = open.back();
        if (folder.next == folder.names.size()) {
            open.pop_back();
            continue;
        }
        const QByteArray name = folder.names[folder.next++];
        const QByteArray item = folder.path + '/' + name;
        const xar_file_t entry = xar_add_frompath(archive, folder.entry, name, item);
        if (!entry)
            return false;
        if (!added())
            return true;
        if (entry->type == xar_file::Type::directory && !enter(entry, item))
            return false;
    }
    return true;
}

void xar_cancel(xar_archive &archive)
{
    if (archive.d->writer)
        archive.d->writer->cancel();
}

LXResult<void> xar_close(xar_archive &archive)
{
    return archive.d->writer ? archive.d->writer->close() : LXResult<void>();
}

xar_iter_t xar_iter_new()
{
    return std::make_unique<xar_iter>();
}

xar_file_t xar_file_first(const xar_archive &archive, xar_iter &iterator)
{
    iterator.next = 0;
    return xar_file_next(archive, iterator);
}

xar_file_t xar_file_next(const xar_archive &archive, xar_iter &iterator)
{
    const std::deque<xar_file> &files = archive.d->files();
    return iterator.next < files.size() ? &files[iterator.next++] : nullptr;
}

LXResult<void> xar_extract(const xar_archive &archive, const xar_file &file, const xar_receiver &receiver)
{
    return archive.d->reader ? archive.d->reader->extract(file, receiver) : CVXarErrors::notSupported({});
}

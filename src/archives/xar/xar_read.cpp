#include "archives/xar/CVXarErrors.h"
#include "archives/xar/CVXarReader.h"
#include "archives/xar/xar_private.h"

#include <cerrno>

#include <fcntl.h>

LXResult<xar_t> xar_read(LXFileDescriptor file)
{
    auto reader = CVXarReader::open(std::move(file));
    if (!reader)
        return reader.error();
    auto d = std::make_unique<xar_archive::Private>();
    d->reader = std::move(reader).value();
    return std::make_unique<xar_archive>(std::move(d));
}

LXResult<xar_t> xar_open(const QByteArray &path, xar_mode mode)
{
    if (mode == xar_mode::write)
        return xar_create(path);
    LXFileDescriptor file(::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen())
        return CVXarErrors::system(errno, path);
    return xar_read(std::move(file));
}

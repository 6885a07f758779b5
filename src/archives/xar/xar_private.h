#pragma once

#include "archives/xar/CVXarWriter.h"
#include "archives/xar/xar.h"

#include <deque>

/// What reads an archive, apart from the rest: whoever only writes archives does not link it.
class xar_reading
{
public:
    virtual ~xar_reading() = default;
    virtual const std::deque<xar_file> &files() const = 0;
    virtual LXResult<void> extract(const xar_file &file, const xar_receiver &receiver) const = 0;
};

struct xar_archive::Private
{
    std::unique_ptr<xar_reading> reader; // one of the two
    std::unique_ptr<CVXarWriter> writer;

    const std::deque<xar_file> &files() const { return reader ? reader->files() : writer->files(); }
};

#pragma once

#include "archives/reading/CVSevenZipLibrary.h"
#include "archives/reading/XADTypes.h"

#include <QStringList>

#include <optional>

/// Makes entries of the items of one archive object.
class CVSevenZipEntryReader
{
public:
    /// `format` is that of `archive`, which is borrowed; `paths` are the files it lies in.
    CVSevenZipEntryReader(const CVSevenZipLibrary &library, sevenzip::InArchive &archive, QByteArray format,
                          QStringList paths)
        : m_library(library)
        , m_archive(archive)
        , m_format(std::move(format))
        , m_paths(std::move(paths))
    {}

    /// Nothing when the item is no entry of the archive. Each item once, in order.
    std::optional<XADEntry> read(std::uint32_t item);

private:
    bool isPseudoEntry(std::uint32_t item, const XADEntry &entry);
    QByteArray nameOfUnnamed();

    const CVSevenZipLibrary &m_library;
    sevenzip::InArchive &m_archive;
    QByteArray m_format;
    QStringList m_paths;
    int m_unnamed = 0; ///< entries without a name, so far
};

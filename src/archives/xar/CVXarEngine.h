#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/xar/xar.h"

#include <functional>
#include <unordered_map>

/// An archive as what the safe writer takes its entries from. Entries are extracted by several threads.
class CVXarEngine final : public CVReadingEngine
{
public:
    /// All paths together; an archive can be made in which each of a million entries has a long one.
    static constexpr qsizetype maxPathBytes = qsizetype(512) << 20;

    /// Null when the paths are too much.
    static std::unique_ptr<CVXarEngine> create(xar_t archive);

    /// Told in the order of the entries what was delivered. On any thread, one at a time.
    std::function<void(int entry)> delivered;

    const xar_file &file(int index) const { return *m_files[static_cast<std::size_t>(index)]; }

    QString formatName() const override;
    qint64 declaredTotal() const override { return m_total; }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return false; }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override;

private:
    struct Run;
    bool hasNamesTwice() const;
    bool extractOne(Run &run, int index);

    xar_t m_archive;
    std::vector<xar_file_t> m_files;
    std::vector<XADEntry> m_entries;
    std::unordered_map<xar_file_t, int> m_indices;
    qint64 m_total = 0; ///< bytes to extract
};

CVEngineDescriptor cvXarEngineDescriptor();

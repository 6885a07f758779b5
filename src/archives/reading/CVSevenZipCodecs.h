#pragma once

#include "archives/reading/SevenZipInterfaces.h"

#include <QString>

#include <vector>

class CVSevenZipLibrary;

/// The methods that archives of the 7-Zip module may use beside its own: those that our decoders of streams
/// know, and those of the codec modules installed with it (RAR).
/// Handed to each archive object; immutable after loadModules(), all threads may use it.
class CVSevenZipCodecs final : public sevenzip::CompressCodecsInfo
{
public:
    explicit CVSevenZipCodecs(const CVSevenZipLibrary &library)
        : m_library(library)
    {}
    CVSevenZipCodecs(const CVSevenZipCodecs &) = delete;
    CVSevenZipCodecs &operator=(const CVSevenZipCodecs &) = delete;
    virtual ~CVSevenZipCodecs() = default;

    /// Every module of the folder that speaks our interface; never unloaded, as their objects live on.
    void loadModules(const QString &folder);

    /// Whether a codec module brought this method.
    bool has(std::uint64_t method) const;

    sevenzip::Result QueryInterface(const sevenzip::Guid &iid, void **out) override;
    std::uint32_t AddRef() override { return 1; }
    std::uint32_t Release() override { return 1; }
    sevenzip::Result GetNumMethods(std::uint32_t *count) override;
    sevenzip::Result GetProperty(std::uint32_t index, std::uint32_t property,
                                 sevenzip::Variant *value) override;
    sevenzip::Result CreateDecoder(std::uint32_t index, const sevenzip::Guid *iid, void **coder) override;
    sevenzip::Result CreateEncoder(std::uint32_t index, const sevenzip::Guid *iid, void **coder) override;

private:
    /// What a codec module exports.
    struct Method
    {
        sevenzip::Result (*property)(std::uint32_t index, std::uint32_t property, sevenzip::Variant *value);
        sevenzip::Result (*createDecoder)(std::uint32_t index, const sevenzip::Guid *iid, void **coder);
        std::uint32_t index;
        std::uint64_t id;
    };
    void loadModule(const QString &path);

    const CVSevenZipLibrary &m_library;
    std::vector<Method> m_methods;
};

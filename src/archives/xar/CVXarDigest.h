#pragma once

#include "archives/xar/xar.h"

#include <openssl/types.h>

#include <memory>
#include <span>

/// A checksum on its way. One thread.
class CVXarDigest
{
public:
    explicit CVXarDigest(xar_digest algorithm = xar_digest::sha1);
    ~CVXarDigest();
    CVXarDigest(CVXarDigest &&) noexcept;
    CVXarDigest &operator=(CVXarDigest &&) noexcept;

    void add(const void *data, std::size_t size);
    void add(std::span<const char> data) { add(data.data(), data.size()); }
    /// Once. Empty for none and unknown.
    QByteArray value();

    /// By the name that tables of contents use, in any case.
    static xar_digest fromName(QStringView name);

private:
    struct Free
    {
        void operator()(EVP_MD_CTX *context) const;
    };
    std::unique_ptr<EVP_MD_CTX, Free> m_context;
};

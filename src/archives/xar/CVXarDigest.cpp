#include "archives/xar/CVXarDigest.h"

#include <openssl/evp.h>

#include <QString>

namespace {

// Fetched once: the lookup by name costs more than hashing a small file.
const EVP_MD *method(xar_digest algorithm)
{
    static const EVP_MD *const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    static const EVP_MD *const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static const EVP_MD *const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    static const EVP_MD *const sha512 = EVP_MD_fetch(nullptr, "SHA512", nullptr);
    switch (algorithm) {
    case xar_digest::sha1:
        return sha1;
    case xar_digest::md5:
        return md5;
    case xar_digest::sha256:
        return sha256;
    case xar_digest::sha512:
        return sha512;
    case xar_digest::none:
    case xar_digest::unknown:
        break;
    }
    return nullptr;
}

} // namespace

void CVXarDigest::Free::operator()(EVP_MD_CTX *context) const
{
    EVP_MD_CTX_free(context);
}

CVXarDigest::CVXarDigest(xar_digest algorithm)
{
    if (const EVP_MD *const with = method(algorithm)) {
        m_context.reset(EVP_MD_CTX_new());
        EVP_DigestInit_ex2(m_context.get(), with, nullptr);
    }
}

CVXarDigest::~CVXarDigest() = default;
CVXarDigest::CVXarDigest(CVXarDigest &&) noexcept = default;
CVXarDigest &CVXarDigest::operator=(CVXarDigest &&) noexcept = default;

void CVXarDigest::add(const void *data, std::size_t size)
{
    if (m_context)
        EVP_DigestUpdate(m_context.get(), data, size);
}

QByteArray CVXarDigest::value()
{
    if (!m_context)
        return {};
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_DigestFinal_ex(m_context.get(), bytes, &size);
    return QByteArray(reinterpret_cast<const char *>(bytes), static_cast<qsizetype>(size));
}

xar_digest CVXarDigest::fromName(QStringView name)
{
    struct Known
    {
        QLatin1String name;
        xar_digest algorithm;
    };
    static constexpr Known known[] = {
        {QLatin1String("sha1"), xar_digest::sha1},     {QLatin1String("sha-1"), xar_digest::sha1},
        {QLatin1String("md5"), xar_digest::md5},       {QLatin1String("none"), xar_digest::none},
        {QLatin1String("sha256"), xar_digest::sha256}, {QLatin1String("sha-256"), xar_digest::sha256},
        {QLatin1String("sha512"), xar_digest::sha512}, {QLatin1String("sha-512"), xar_digest::sha512},
    };
    for (const Known &candidate : known)
        if (name.compare(candidate.name, Qt::CaseInsensitive) == 0)
            return candidate.algorithm;
    return xar_digest::unknown;
}

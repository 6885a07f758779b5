#include "archives/reading/CVRarKeys.h"

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>
#include <QtEndian>

#include <array>
#include <memory>

#include <openssl/evp.h>

namespace {

constexpr qsizetype checkBytes = 8;
// Some twenty seconds; archives use 2^15 rounds and one salt for all their files.
constexpr std::uint64_t maxRoundsInAll = std::uint64_t(1) << 26;
constexpr int roundsOfFour = 1 << 18;
constexpr int maxPasswordLetters = 127; ///< of RAR 4; the rest does not count

QByteArray derive(const QByteArray &password, const QByteArray &salt, int rounds)
{
    QByteArray key(32, '\0');
    const bool good =
        ::PKCS5_PBKDF2_HMAC(password.constData(), static_cast<int>(password.size()),
                            reinterpret_cast<const unsigned char *>(salt.constData()),
                            static_cast<int>(salt.size()), rounds, EVP_sha256(), static_cast<int>(key.size()),
                            reinterpret_cast<unsigned char *>(key.data())) == 1;
    return good ? key : QByteArray();
}

using Digest = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

QByteArray resultSoFar(const Digest &hash)
{
    QByteArray result(20, '\0');
    const Digest copy(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (copy && EVP_MD_CTX_copy_ex(copy.get(), hash.get()) == 1)
        EVP_DigestFinal_ex(copy.get(), reinterpret_cast<unsigned char *>(result.data()), nullptr);
    return result;
}

} // namespace

bool CVRarKeys::mayDerive(std::uint64_t rounds)
{
    m_rounds += rounds;
    return m_rounds <= maxRoundsInAll;
}

const CVRarKeys::Five *CVRarKeys::five(int roundsLog2, const QByteArray &salt)
{
    if (roundsLog2 < 0 || roundsLog2 > maxRoundsLog2)
        return nullptr;
    const QByteArray identity = salt + char(roundsLog2);
    if (const auto known = m_five.constFind(identity); known != m_five.cend())
        return &*known;
    const int rounds = 1 << roundsLog2;
    if (!mayDerive(std::uint64_t(3) << roundsLog2))
        return nullptr;
    const QByteArray password = m_password.toUtf8();
    Five keys{derive(password, salt, rounds), derive(password, salt, rounds + 16),
              QByteArray(checkBytes, '\0')};
    const QByteArray last = derive(password, salt, rounds + 32);
    for (qsizetype i = 0; i < last.size(); ++i)
        keys.check[i % checkBytes] = char(keys.check[i % checkBytes] ^ last[i]);
    return &*m_five.insert(identity, keys);
}

const CVRarKeys::Four *CVRarKeys::four(const QByteArray &salt)
{
    if (const auto known = m_four.constFind(salt); known != m_four.cend())
        return &*known;
    if (!mayDerive(roundsOfFour))
        return nullptr;
    QByteArray seed;
    for (const QChar letter : QStringView(m_password).left(maxPasswordLetters))
        seed.append(char(letter.unicode() & 0xff)).append(char(letter.unicode() >> 8));
    seed += salt;
    Four keys{QByteArray(16, '\0'), QByteArray(16, '\0')};
    const Digest hash(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!hash || EVP_DigestInit_ex(hash.get(), EVP_sha1(), nullptr) != 1)
        return nullptr;
    for (int i = 0; i < roundsOfFour; ++i) {
        const std::array counter{char(i), char(i >> 8), char(i >> 16)};
        EVP_DigestUpdate(hash.get(), seed.constData(), static_cast<std::size_t>(seed.size()));
        EVP_DigestUpdate(hash.get(), counter.data(), counter.size());
        if (i % (roundsOfFour / 16) == 0)
            keys.start[i / (roundsOfFour / 16)] = resultSoFar(hash).back();
    }
    const QByteArray digest = resultSoFar(hash);
    for (qsizetype i = 0; i < 16; i += 4)
        qToLittleEndian(qFromBigEndian<std::uint32_t>(digest.constData() + i), keys.key.data() + i);
    return &*m_four.insert(salt, keys);
}

QByteArray CVRarKeys::decrypt(const QByteArray &key, const QByteArray &start, const QByteArray &data)
{
    const auto bytes = [](const QByteArray &from) {
        return reinterpret_cast<const unsigned char *>(from.constData());
    };
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    QByteArray plain(data.size(), '\0');
    int size = 0;
    const EVP_CIPHER *const cipher = key.size() == 32 ? EVP_aes_256_cbc() : EVP_aes_128_cbc();
    if (!context || start.size() != 16 || data.size() % 16 != 0 ||
        EVP_DecryptInit_ex(context.get(), cipher, nullptr, bytes(key), bytes(start)) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_DecryptUpdate(context.get(), reinterpret_cast<unsigned char *>(plain.data()), &size, bytes(data),
                          static_cast<int>(data.size())) != 1 ||
        size != data.size())
        return {};
    return plain;
}

std::uint32_t CVRarKeys::keyedCrc(const QByteArray &hashKey, std::uint32_t crc)
{
    QByteArray plain(sizeof crc, '\0');
    qToLittleEndian(crc, plain.data());
    const QByteArray digest = keyedHash(hashKey, plain);
    std::uint32_t keyed = 0;
    for (qsizetype i = 0; i < digest.size(); i += 4)
        keyed ^= qFromLittleEndian<std::uint32_t>(digest.constData() + i);
    return keyed;
}

QByteArray CVRarKeys::keyedHash(const QByteArray &hashKey, const QByteArray &hash)
{
    return QMessageAuthenticationCode::hash(hash, hashKey, QCryptographicHash::Sha256);
}

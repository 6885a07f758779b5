#include "archives/zip/CVZipCipher.h"

#include <zlib.h>

#include <sys/random.h>

CVZipCipher::CVZipCipher(const std::string &password)
{
    for (const char c : password)
        add(static_cast<std::uint8_t>(c));
}

void CVZipCipher::add(std::uint8_t byte)
{
    static const z_crc_t *const table = ::get_crc_table();
    const auto crc = [](std::uint32_t before, std::uint32_t next) {
        return static_cast<std::uint32_t>(table[(before ^ next) & 0xff]) ^ (before >> 8);
    };
    m_keys[0] = crc(m_keys[0], byte);
    m_keys[1] = (m_keys[1] + (m_keys[0] & 0xff)) * 134775813 + 1;
    m_keys[2] = crc(m_keys[2], m_keys[1] >> 24);
}

bool CVZipCipher::head(std::uint8_t check, std::span<char, headBytes> to)
{
    if (::getrandom(to.data(), to.size(), 0) != static_cast<ssize_t>(to.size()))
        return false;
    to[headBytes - 1] = static_cast<char>(check);
    encrypt(to);
    return true;
}

void CVZipCipher::encrypt(std::span<char> data)
{
    for (char &c : data) {
        const auto plain = static_cast<std::uint8_t>(c);
        const std::uint32_t key = (m_keys[2] | 2) & 0xffff;
        c = static_cast<char>(plain ^ (key * (key ^ 1)) >> 8);
        add(plain);
    }
}

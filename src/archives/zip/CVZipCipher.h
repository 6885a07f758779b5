#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

/// The format's old cipher. One entry each, from its first byte to its last.
class CVZipCipher
{
public:
    static constexpr std::size_t headBytes = 12;

    explicit CVZipCipher(const std::string &password);

    /// What stands before an entry's data: random bytes and one by which readers know a wrong password. That
    /// is the highest of the checksum or, where that is not known yet, of the low half of the time. False
    /// with errno when there is no randomness.
    bool head(std::uint8_t check, std::span<char, headBytes> to);

    void encrypt(std::span<char> data);

private:
    void add(std::uint8_t byte);

    std::array<std::uint32_t, 3> m_keys{0x12345678, 0x23456789, 0x34567890};
};

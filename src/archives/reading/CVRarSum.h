#pragma once

#include "archives/reading/CVRarHeaders.h"
#include "archives/reading/CVRarKeys.h"

#include <array>
#include <memory>
#include <span>

/// Compares the contents of one file with every sum that its header carries, whoever unpacked them.
class CVRarSum
{
public:
    /// `keys` is needed for encrypted files only, whose sums may be keyed.
    explicit CVRarSum(const CVRarFile &file, CVRarKeys *keys = nullptr);
    CVRarSum(CVRarSum &&other) noexcept;
    ~CVRarSum();

    /// There is a sum, and what is needed to compare it.
    bool canCompare() const { return m_canCompare; }

    void add(std::span<const char> data);

    /// After the last add().
    bool fits();

private:
    struct Blake2;

    CVRarFile::Sums m_expected;
    QByteArray m_hashKey; ///< empty: the sums are plain
    std::uint32_t m_crc = 0;
    std::unique_ptr<Blake2> m_blake2;
    bool m_canCompare = false;
};

#include "archives/reading/CVRarSum.h"

#include <algorithm>

#include <blake2.h>
#include <zlib.h>

namespace {

constexpr std::size_t lanes = 8;

} // namespace

/// BLAKE2sp: blocks are dealt to eight hashes in turn, whose results make the last one. The library's own
/// function of that name starts eight threads at each call.
struct CVRarSum::Blake2
{
    std::array<blake2s_state, lanes> leaves;
    std::size_t lane = 0;
    std::size_t inBlock = 0;

    Blake2()
    {
        for (std::size_t i = 0; i < lanes; ++i)
            start(leaves[i], static_cast<std::uint8_t>(i), 0, i == lanes - 1);
    }

    static void start(blake2s_state &state, std::uint8_t offset, std::uint8_t depth, bool isLast)
    {
        blake2s_param parameters{};
        parameters.digest_length = BLAKE2S_OUTBYTES;
        parameters.fanout = lanes;
        parameters.depth = 2;
        parameters.node_offset[0] = offset;
        parameters.node_depth = depth;
        parameters.inner_length = BLAKE2S_OUTBYTES;
        ::blake2s_init_param(&state, &parameters);
        state.last_node = isLast ? 1 : 0;
    }

    void add(std::span<const char> data)
    {
        while (!data.empty()) {
            const std::size_t part = std::min<std::size_t>(data.size(), BLAKE2S_BLOCKBYTES - inBlock);
            ::blake2s_update(&leaves[lane], reinterpret_cast<const std::uint8_t *>(data.data()), part);
            data = data.subspan(part);
            inBlock += part;
            if (inBlock == BLAKE2S_BLOCKBYTES) {
                inBlock = 0;
                lane = (lane + 1) % lanes;
            }
        }
    }

    QByteArray result()
    {
        blake2s_state root;
        start(root, 0, 1, true);
        std::array<std::uint8_t, BLAKE2S_OUTBYTES> hash{};
        for (blake2s_state &leaf : leaves) {
            ::blake2s_final(&leaf, hash.data(), hash.size());
            ::blake2s_update(&root, hash.data(), hash.size());
        }
        ::blake2s_final(&root, hash.data(), hash.size());
        return {reinterpret_cast<const char *>(hash.data()), static_cast<qsizetype>(hash.size())};
    }
};

CVRarSum::CVRarSum(const CVRarFile &file, CVRarKeys *keys)
    : m_expected(file.sums)
    , m_canCompare(file.sums.crc32 || !file.sums.blake2sp.isEmpty())
{
    if (!m_expected.blake2sp.isEmpty())
        m_blake2 = std::make_unique<Blake2>();
    if (!file.encryption || !file.encryption->isSumKeyed)
        return;
    if (const CVRarKeys::Five *const derived =
            keys ? keys->five(file.encryption->roundsLog2, file.encryption->salt) : nullptr)
        m_hashKey = derived->hashKey;
    else
        m_canCompare = false;
}

CVRarSum::CVRarSum(CVRarSum &&other) noexcept = default;

CVRarSum::~CVRarSum() = default;

void CVRarSum::add(std::span<const char> data)
{
    if (m_expected.crc32)
        m_crc = static_cast<std::uint32_t>(
            ::crc32_z(m_crc, reinterpret_cast<const Bytef *>(data.data()), data.size()));
    if (m_blake2)
        m_blake2->add(data);
}

bool CVRarSum::fits()
{
    if (m_expected.crc32) {
        const std::uint32_t crc = m_hashKey.isEmpty() ? m_crc : CVRarKeys::keyedCrc(m_hashKey, m_crc);
        if (crc != *m_expected.crc32)
            return false;
    }
    if (!m_blake2)
        return true;
    const QByteArray hash = m_blake2->result();
    return (m_hashKey.isEmpty() ? hash : CVRarKeys::keyedHash(m_hashKey, hash)) == m_expected.blake2sp;
}

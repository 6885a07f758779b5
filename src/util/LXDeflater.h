#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

struct libdeflate_compressor;
struct z_stream_s;

/// Makes deflate streams, whole or out of pieces that are compressed apart from each other, so that several
/// threads can work on one file. The result depends on the data and the level alone.
/// A stream of pieces is the pieces and then endOfPieces.
/// One thread each.
class LXDeflater
{
public:
    /// 1 (fast) to 12 (small). From slowLevel on each needs several MiB. Throws std::bad_alloc.
    explicit LXDeflater(int level);
    ~LXDeflater();
    LXDeflater(const LXDeflater &) = delete;
    LXDeflater &operator=(const LXDeflater &) = delete;

    static constexpr int slowLevel = 10;
    static constexpr char endOfPieces[2] = {'\x03', '\0'}; ///< an empty last block

    /// A whole stream. Returns its size; 0 when it does not fit into `room`, as it always does into bound().
    std::size_t whole(std::span<const char> plain, char *to, std::size_t room);
    std::size_t bound(std::size_t plainBytes) const;

    /// Blocks, none of them the last, that end at a byte; replaces what `to` held.
    void piece(std::span<const char> plain, std::vector<char> &to);

    /// The same without compression.
    static void appendStored(std::span<const char> plain, std::vector<char> &to);

private:
    bool openEnd(std::vector<char> &deflated);

    struct Free
    {
        void operator()(libdeflate_compressor *compressor) const;
    };
    std::unique_ptr<libdeflate_compressor, Free> m_compressor;
    std::unique_ptr<z_stream_s> m_inflater; ///< from the first piece on
    std::vector<char> m_scratch;
    std::vector<char> m_zeros; ///< piece() of m_zeroSize zero bytes
    std::size_t m_zeroSize = 0;
};

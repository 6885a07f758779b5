#include "archives/reading/CVDecodePipeline.h"

#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVReadingText.h"

#include <new>

/// Fills blocks one after the other and hands them on when they are full.
class CVDecodePipeline::Output final : public CVDecoderOutput
{
public:
    explicit Output(CVDecodePipeline &owner)
        : m_owner(owner)
    {}

    std::span<char> space() override
    {
        if (!m_block.data.empty() && m_block.used == m_block.data.size())
            flush();
        if (m_block.data.empty() && !m_owner.takeFree(m_block))
            return {};
        return {m_block.data.data() + m_block.used, m_block.data.size() - m_block.used};
    }

    void commit(std::size_t bytes) override { m_block.used += bytes; }

    void flush()
    {
        if (m_block.used > 0)
            m_owner.hand(std::exchange(m_block, {}));
    }

private:
    CVDecodePipeline &m_owner;
    Block m_block;
};

CVDecodePipeline::CVDecodePipeline(std::shared_ptr<const CVArchiveSource> source, qint64 offset,
                                   CVStreamKind kind)
    : m_source(std::move(source))
    , m_offset(offset)
    , m_kind(kind)
    , m_thread([this] { run(); })
{}

CVDecodePipeline::~CVDecodePipeline()
{
    {
        const std::lock_guard lock(m_mutex);
        m_abort = true;
    }
    m_freed.notify_all();
    m_thread.join();
}

void CVDecodePipeline::run()
{
    CVDecodeResult result;
    try {
        CVDecoderInput input(*m_source, m_offset);
        Output output(*this);
        result = cvDecodeStream(m_kind, input, output);
        output.flush();
    } catch (const std::bad_alloc &) {
        result = {XADErrorCode::NotSupported, readingText("Unpacking needs more memory than is allowed."),
                  false};
    }
    {
        const std::lock_guard lock(m_mutex);
        m_endResult = std::move(result);
        m_ended = true;
    }
    m_filled.notify_all();
}

bool CVDecodePipeline::takeFree(Block &block)
{
    std::unique_lock lock(m_mutex);
    m_freed.wait(lock, [this] { return m_abort || !m_free.empty() || m_made < maxBlocksAhead; });
    if (m_abort)
        return false;
    if (m_free.empty()) {
        ++m_made;
        lock.unlock();
        block.data.resize(blockBytes);
    } else {
        block = std::move(m_free.back());
        m_free.pop_back();
    }
    block.used = 0;
    return true;
}

void CVDecodePipeline::hand(Block &&block)
{
    {
        const std::lock_guard lock(m_mutex);
        m_ready.push_back(std::move(block));
    }
    m_filled.notify_one();
}

std::span<const char> CVDecodePipeline::next()
{
    std::unique_lock lock(m_mutex);
    if (!m_current.data.empty()) {
        m_free.push_back(std::exchange(m_current, {}));
        m_freed.notify_one();
    }
    m_filled.wait(lock, [this] { return m_ended || !m_ready.empty(); });
    if (m_ready.empty()) {
        m_result = m_endResult;
        return {};
    }
    m_current = std::move(m_ready.front());
    m_ready.pop_front();
    return {m_current.data.data(), m_current.used};
}

// One of our own readers, from the bid to the last byte: FUZZ_ENGINE says which.
#include "MemoryFile.h"
#include "archives/reading/CVZipEngine.h"
#include "archives/reading/RecordingSink.h"
#include "archives/xar/CVXarEngine.h"

#include <numeric>

namespace {

constexpr qint64 mostOutput = 8 << 20; // more only takes time

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const MemoryFile file(data, size);
    const CVArchiveProbe probe = probeOf(file.path());
    const CVEngineDescriptor descriptor = FUZZ_ENGINE();
    if (descriptor.bid(probe) == 0)
        return 0;
    RecordingHost host;
    const auto opened = descriptor.open(probe, host);
    if (!opened.engine)
        return 0;
    const auto &entries = opened.engine->entries();
    std::vector<int> indices(entries.size());
    std::iota(indices.begin(), indices.end(), 0);
    RecordingSink sink(*opened.engine);
    sink.stopAfterBytes = mostOutput;
    const auto outcome = opened.engine->extract(indices, true, sink);
    // Whoever says that all is well has ended each entry.
    if (outcome.code == XADErrorCode::None)
        for (const auto &[index, record] : sink.records)
            if (!record.finished)
                std::abort();
    return 0;
}

#include "MemoryFile.h"
#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVRarHeaders.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const MemoryFile file(data, size);
    if (const auto source = CVArchiveSource::open({file.path()}))
        CVRarHeaders::read(*source, 0);
    return 0;
}

#include "MemoryFile.h"
#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVIsoContinuations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const MemoryFile file(data, size);
    if (const auto source = CVArchiveSource::open({file.path()}))
        cvIsoContinuesForEver(*source);
    return 0;
}

#include "MemoryFile.h"
#include "archives/reading/CVCabChecksum.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const MemoryFile file(data, size);
    cvCheckCabinet(file.path(), [] { return false; });
    return 0;
}

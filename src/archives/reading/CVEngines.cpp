#include "archives/reading/CVReadingEngine.h"

#include <array>

std::span<const CVEngineDescriptor> cvReadingEngines()
{
    static const std::array<CVEngineDescriptor, 0> engines = {};
    return engines;
}

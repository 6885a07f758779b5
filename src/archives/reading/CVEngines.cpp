#include "archives/reading/CVLibarchiveEngine.h"
#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVSevenZipEngine.h"
#include "archives/reading/CVZipEngine.h"
#include "archives/xar/CVXarEngine.h"

#include <array>

std::span<const CVEngineDescriptor> cvReadingEngines()
{
    static const std::array engines{
        cvSevenZipEngineDescriptor(),
        cvZipEngineDescriptor(),
        cvXarEngineDescriptor(),
        cvLibarchiveEngineDescriptor(),
    };
    return engines;
}

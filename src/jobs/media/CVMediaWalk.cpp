#include "jobs/media/CVMediaWalk.h"

CVMediaWalk::Result CVMediaWalk::run()
{
    if (imageFileFormat == 0 && audioFileFormat == 0)
        return {};
    return {.succeeded = false, .failedFile = {}, .reason = QStringLiteral("This build converts no media.")};
}

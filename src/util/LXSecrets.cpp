#include "util/LXSecrets.h"

#include <sys/prctl.h>
#include <sys/resource.h>

void LXSecrets::protectThisProcess()
{
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

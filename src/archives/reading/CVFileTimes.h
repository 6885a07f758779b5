#pragma once

#include "archives/reading/XADTypes.h"

#include <fcntl.h>
#include <sys/stat.h>

/// The pair that futimens() wants, for the time of the last change alone.
struct CVFileTimes
{
    timespec value[2];

    static CVFileTimes modifiedOnly(qint64 nanoseconds)
    {
        CVFileTimes times{};
        times.value[0].tv_nsec = UTIME_OMIT;
        timespec &modified = times.value[1];
        if (nanoseconds == XADEntry::unknownTime) {
            modified.tv_nsec = UTIME_OMIT;
            return times;
        }
        constexpr qint64 second = 1'000'000'000;
        modified.tv_sec = nanoseconds / second;
        modified.tv_nsec = nanoseconds % second;
        if (modified.tv_nsec < 0) {
            modified.tv_nsec += second;
            --modified.tv_sec;
        }
        return times;
    }
};

#pragma once

/// While any of these lives, the setting "ExtractDestination" reads 0: what is extracted goes to the folder
/// that was given, and nobody is asked. The stored value stays as it is, so it is back after a crash too.
/// Main thread.
class CVForcedDestination
{
public:
    CVForcedDestination();
    ~CVForcedDestination();
    CVForcedDestination(const CVForcedDestination &) = delete;
    CVForcedDestination &operator=(const CVForcedDestination &) = delete;
};

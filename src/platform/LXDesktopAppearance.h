#pragma once

#include <functional>
#include <memory>

/// What the desktop asks of the look of programs. Main thread.
class LXDesktopAppearance
{
public:
    enum class Scheme { NoPreference, Dark, Light };

    virtual ~LXDesktopAppearance() = default;

    /// No slides and no animations. CORVANE_REDUCED_MOTION=1 or =0 in the environment decides over the
    /// desktop.
    virtual bool reducedMotion() const = 0;
    virtual Scheme scheme() const = 0;

    /// The desktop is asked without waiting; until it answers, it asks for nothing. `changed` is called when
    /// its answer comes and whenever it asks for something else; it replaces what was set before.
    virtual void observe(std::function<void()> changed) = 0;

    /// What LXDesktopServices::install() or setShared() put here; before, one that knows the environment
    /// alone.
    static std::shared_ptr<LXDesktopAppearance> shared();
    /// Null brings that one back.
    static void setShared(std::shared_ptr<LXDesktopAppearance> appearance);
};

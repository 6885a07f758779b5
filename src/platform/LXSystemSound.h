#pragma once

#include <QString>

#include <memory>

/// Short sounds for what the person waits for. Any thread.
class LXSystemSound
{
public:
    virtual ~LXSystemSound() = default;

    /// Plays the sound of that name, "Hero". Never blocks and never fails: silent where there is no such
    /// sound, no library or no sound server.
    virtual void play(const QString &name) = 0;

    /// What LXDesktopServices::install() or setShared() put here; a silent one before.
    static std::shared_ptr<LXSystemSound> shared();
    /// Null brings the silent one back.
    static void setShared(std::shared_ptr<LXSystemSound> sound);
};

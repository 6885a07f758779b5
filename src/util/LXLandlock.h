#pragma once

#include "util/LXFileDescriptor.h"

struct LXConfinementRules;

/// The kernel's Landlock, which bounds what a process can open, make, move and remove by path.
///
/// What each version added, and we make use of:
///   1  reading, writing, executing, making and removing beneath a folder
///   2  moving and linking from one folder into another (refused altogether before)
///   3  truncating, which no earlier version sees
///   4  TCP: bind and connect
///   5  device controls (ioctl) on what is opened afterwards
///   6  signals to, and abstract sockets of, processes outside
///   7  quiet refusals: a look-up that is meant to fail leaves no line in the system's log
/// No version covers other sockets, modes, times, attributes, or looking at a file's status; see
/// LXSystemCallFilter.
namespace LXLandlock {

constexpr int newestKnown = 7;
constexpr int scopesSignals = 6;

/// The version that the kernel offers and we know; 0 without Landlock.
int version();

/// A rule set that grants what the rules say and refuses all else. Not open where the kernel has, or grants,
/// none. A path that cannot be looked up is left out, which is the safe side.
LXFileDescriptor prepared(const LXConfinementRules &rules);

/// Puts the calling thread, and all it starts from now on, under the rule set. Safe in a signal handler.
/// Needs "no new privileges". False with errno.
bool enter(int ruleset, int version) noexcept;

} // namespace LXLandlock

#pragma once

/// For a process that comes to hold a password.
namespace LXSecrets {

/// From now on the process leaves no core file, and no other process of the person can trace it or read its
/// memory. To be called before the first password is asked for or read: earlier than needed it would only
/// keep others from finding out which program they talk to, as the portals of a desktop do. Any thread, as
/// often as one likes.
void protectThisProcess();

} // namespace LXSecrets

#pragma once

/// The services of a real desktop. They are apart from their interfaces so that a program without a window
/// loads nothing of a window system.
namespace LXDesktopServices {

/// Puts them behind LXUserNotifications, LXFileViewer, LXWorkspace, LXSystemSound, LXDesktopAppearance and
/// LXDefaultApplications. Main thread, once, after the application object and LXMainThread::install(). Looks
/// for nothing and waits for nothing yet.
void install();

} // namespace LXDesktopServices

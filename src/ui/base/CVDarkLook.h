#pragma once

/// Dark windows for desktops that ask for them and leave it to the program. Main thread.
namespace CVDarkLook {

/// Palette and style of the application; without it, those of the desktop.
void setActive(bool active);

} // namespace CVDarkLook

#pragma once

#include <QPoint>
#include <QStringList>

/// A real drag from another process on a real X server: its own window, the pointer moved by the server.
namespace OutsideDrag {

/// The platform has a pointer that can be moved from outside.
bool isPossible();

/// Drags the files onto the point of the screen and lets go there; the event loop runs meanwhile. False when
/// the target did not take them, or the tools for it are missing.
bool drop(const QStringList &paths, const QPoint &globalTarget);

/// Drags what is at the point of the screen into another program's window. The files that it got and could
/// read; none when it got none.
QStringList takeFrom(const QPoint &globalSource);

} // namespace OutsideDrag

#pragma once

#include <QString>

#include <functional>
#include <optional>

/// Asks the person for the folder that results go to. The window shows a panel (one folder, new folders
/// can be made); the terminal has its own.
class CVDestinationChooser
{
public:
    virtual ~CVDestinationChooser() = default;

    /// Called on the main thread and returns at once. `done` is called once, from any thread, with
    /// nothing when the person cancelled. A call that comes after the job was cancelled is ignored.
    virtual void chooseDestination(const QString &title, const QString &button,
                                   std::function<void(std::optional<QString> folder)> done) = 0;
};

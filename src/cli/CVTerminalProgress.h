#pragma once

#include <QString>

/// The text of the progress line. Stateless, so that it can be tested without a terminal.
struct CVTerminalProgress
{
    double done = 0;     ///< bytes
    double total = 0;    ///< bytes; zero or less when not known
    double rate = 0;     ///< bytes a second; zero or less when not known yet
    QString title;       ///< escaped already
    bool inBytes = true; ///< else the numbers above count something else, which is not shown itself

    /// At most `cells` wide: bar, percent, amount, rate, time left, title; what does not fit goes,
    /// least important first.
    QString line(int cells) const;

    /// "0:07", "12:34" or "3:05:00"; empty for what nobody wants to wait for or cannot know.
    static QString duration(double seconds);
};

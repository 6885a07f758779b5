#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

#include <sys/types.h>

/// One run of the program, with or without somebody in front of it.
struct TerminalRun
{
    /// When the terminal shows `expect`, `reply` is typed. In order.
    struct Line
    {
        QByteArray expect = {};
        QByteArray reply = {};
    };

    struct Setup
    {
        QStringList arguments = {};
        QString folder = {}; ///< the current folder of the run, which also holds its settings
        std::vector<QByteArray> environment = {};
        QByteArray input = {}; ///< on standard input, where there is no terminal
        bool atTerminal = false;
        std::vector<Line> dialogue = {};
        std::function<void(pid_t)> meanwhile = {}; ///< while it runs; called once after the start
    };

    static TerminalRun run(const QString &program, const Setup &setup);

    int exitCode = -1; ///< 128 and more: ended by a signal, -1: did not end in time
    QByteArray out;
    QByteArray err; ///< all that the terminal showed, where there is one
    bool echoAfterwards = true;

    QStringList outLines() const;
};

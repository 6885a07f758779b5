#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// One run of a program: how it ended and what it cost.
struct CorpusRun
{
    int exitCode = -1; ///< 128 + signal when a signal ended it
    bool hung = false; ///< ran into the time limit and was killed with its children
    long peakKiB = 0;  ///< the largest resident size of the program or one of its children
    QByteArray out;
    QByteArray err;

    /// Runs `program` in the folder `home`, which is its HOME and holds its settings, caches and
    /// temporary files, without a terminal and without input. Any thread.
    static CorpusRun run(const QString &program, const QStringList &arguments, const QString &home);
};

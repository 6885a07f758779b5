#pragma once

#include "archives/CVArchive.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <atomic>
#include <mutex>

#include <sys/types.h>

// What the tests of creating archives share.

/// Takes down how an archive ended and how far it said it was. Any thread.
class ArchiveRecorder final : public CVArchiveDelegate
{
public:
    QStringList events() const;
    std::atomic<double> mostBytes = 0;

    void archiveFinished(CVArchive *) override { add("finished"); }
    void archiveFailed(CVArchive *, std::int32_t status) override
    {
        add("failed " + QString::number(status));
    }
    void archiveCancelled(CVArchive *) override { add("cancelled"); }
    void archiveHasMadeProgress(CVArchive *, double done, double) override
    {
        mostBytes = std::max(mostBytes.load(), done);
    }
    std::optional<QString> archiveWantsPassword(CVArchive *) override { return std::nullopt; }

private:
    void add(const QString &event);
    mutable std::mutex m_mutex;
    QStringList m_events;
};

struct ToolOutput
{
    int status = -1;
    QByteArray text; ///< output and error
};

/// Runs a tool to its end. Names go to it as they are.
ToolOutput runTool(const QString &program, const QStringList &arguments, const QString &folder = {},
                   const QByteArray &input = {});

/// False when it cannot be written.
bool writeTestFile(const QString &path, const QByteArray &data, mode_t mode = 0644);

QByteArray testFileContents(const QString &path);

/// Names in a folder, sorted.
QStringList folderNames(const QString &folder);

/// Bytes that no tool can make smaller, always the same.
QByteArray noise(qsizetype bytes);

/// A file name with all that shells and tools stumble over, and without an extension.
QByteArray hostileName();

/// A small tree of hostile names, links, an empty folder and modes. False when it cannot be made.
bool makeHostileTree(const QString &folder);

/// From here on the program sees mounts of its own, which end with it. False without the right to that; then
/// mountSmallDisk() fails too.
bool separateMounts();
bool mountSmallDisk(const QString &folder, const char *size);
void unmountSmallDisk(const QString &folder);

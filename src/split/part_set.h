#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QString>

#include <cstdint>
#include <vector>

#include <sys/types.h>

// The parts that are to be joined, and what is wrong with them, in words. Stateless; any thread.

/// A part as it was when the set was looked at.
struct SplitPart
{
    /// Fails, with the part's name, for what is no regular file or cannot be asked.
    static LXResult<SplitPart> at(const QString &path);

    /// Fails where it cannot be read, or is not the file, or not what was in it, any more.
    LXResult<LXFileDescriptor> open() const;
    LXResult<void> checkUnchanged(const LXFileDescriptor &opened) const;

    QString path;
    quint64 size = 0;

private:
    dev_t m_device = 0;
    ino_t m_inode = 0;
    qint64 m_seconds = 0;
    qint64 m_nanoseconds = 0;
};

bool isCompressedPart(const QString &path);

/// What the names and sizes of the parts, in their order, can show: one is missing, there twice, or not of
/// the size of the others.
LXResult<void> verifyShapeOfSet(const std::vector<SplitPart> &parts);

/// Names the one or more parts that have the bytes [from, to) of the set.
QString sentenceAboutDamage(const std::vector<SplitPart> &parts, std::uint64_t from, std::uint64_t to);

LXError splitSetError(const char *description, const QString &reason, const QString &suggestion = {});
/// The reason, of the context CVFileCombiner, with the name of that file in it.
LXError splitPartError(const char *reason, const QString &path);
LXError modifiedPartError(const QString &path);
LXError unreadablePartError(const QString &path);

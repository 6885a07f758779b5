#pragma once

#include "split/CVFileCombiner.h"
#include "split/CVFileSplitter.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// Splitting and combining in one line each, for the tests of both.

QByteArray randomBytes(qsizetype size, unsigned seed);
/// In place of what was there: written over, ext4 would put it on the disk at once.
void write(const QString &path, const QByteArray &data);
QByteArray read(const QString &path);

/// What was heard, as a row of letters.
class Recorder final : public CVSplitDelegate, public CVCombineDelegate
{
public:
    void splitWillBegin(CVFileSplitter &) override { calls += u'b'; }
    void splitHasMadeProgress(CVFileSplitter &splitter, quint64 bytes, quint64) override
    {
        done = bytes;
        if (cancelAt && bytes >= *cancelAt)
            splitter.cancel();
    }
    void splitWillChecksum(CVFileSplitter &) override { calls += u's'; }
    void splitWasCancelled(CVFileSplitter &) override { calls += u'x'; }
    void splitHasCompleted(CVFileSplitter &) override { calls += u'c'; }

    void combineWillVerifyChecksums(CVFileCombiner &) override { calls += u'v'; }
    void combineHasMadeProgress(CVFileCombiner &combiner, quint64 bytes, quint64) override
    {
        done = bytes;
        meanwhile();
        if (cancelAt && bytes >= *cancelAt)
            combiner.cancel();
    }
    void combineFailed(CVFileCombiner &, const LXError &failure) override
    {
        calls += u'f';
        error = failure;
    }
    void combineHasCompleted(CVFileCombiner &) override { calls += u'c'; }
    void combineWasCancelled(CVFileCombiner &) override { calls += u'x'; }

    QString calls;
    LXError error;
    quint64 done = 0;
    std::optional<quint64> cancelAt;
    std::function<void()> meanwhile = [] {};
};

struct Set
{
    QStringList parts;
    QStringList all; ///< with the checksum file
    LXResult<void> result;
};

/// The size of a part is in bytes.
Set split(const QString &input, const QString &folder, bool compress, bool checksum, double size = 100);

struct Joined
{
    LXResult<void> result;
    Recorder heard;
    bool exists = false;
    QByteArray data;
};

/// Takes the joined file away again. `meanwhile` is called with each progress.
Joined combine(
    const QStringList &files, const QString &folder, const std::function<void()> &meanwhile = [] {});

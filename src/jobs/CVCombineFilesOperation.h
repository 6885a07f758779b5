#pragma once

#include "engine/model/CVOperation.h"
#include "split/CVFileCombiner.h"
#include "util/LXResult.h"

/// Joins the parts that its delegate names, and those of the same set beside the first of them, into one file
/// in the output folder, which appears there when it is complete and verified.
class CVCombineFilesOperation final : public CVOperation, private CVCombineDelegate
{
public:
    void main() override;
    void cancel() override;
    QString taskDescription() const override;
    LXProgressUnit progressUnit() const override { return LXProgressUnit::Bytes; }

    /// The files in the folder of `path` that belong to the set of that name and are not among `existing`, in
    /// the order of the folder.
    static QStringList sweepFilePartsAtPath(const QString &path, const QString &combinedFile,
                                            const QStringList &existing);

private:
    bool waitForAccess(const QString &path);
    void combineInWorkDirectory(const class CVJobFolders &folders);
    void endAsCancelled();
    void endAsFailed(const LXError &error);

    void combineWillVerifyChecksums(CVFileCombiner &combiner) override;
    void combineHasMadeProgress(CVFileCombiner &combiner, quint64 bytesWritten, quint64 totalBytes) override;
    void combineFailed(CVFileCombiner &combiner, const LXError &error) override;

    CVFileCombiner m_combiner;
    LXError m_failure; ///< what the set itself was refused for
    bool m_hasFailure = false;
};

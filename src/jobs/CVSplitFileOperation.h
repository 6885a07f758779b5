#pragma once

#include "engine/model/CVOperation.h"
#include "split/CVFileSplitter.h"
#include "util/LXResult.h"

#include <memory>

class CVSplitOperationDataBinding;

/// Cuts the file of its window into parts, by the splitter of its binding, in a work directory; the parts
/// appear in the output folder all at once: a single one by itself, several as a folder named after the file.
/// Where the binding says 7-Zip, the job hands over to one that makes a multi-part archive, and is over.
class CVSplitFileOperation final : public CVOperation, private CVSplitDelegate
{
public:
    explicit CVSplitFileOperation(std::shared_ptr<CVSplitOperationDataBinding> data);
    ~CVSplitFileOperation() override;

    void main() override;
    void cancel() override;
    QString taskDescription() const override;
    LXProgressUnit progressUnit() const override { return LXProgressUnit::Bytes; }

    static constexpr int invalidChunkSize = 42;

private:
    bool mayStart();
    void splitInto(const class CVJobFolders &folders);
    void endAsCancelled();
    void endAsFailed(const LXError &error);

    void splitHasMadeProgress(CVFileSplitter &splitter, quint64 bytesWritten, quint64 totalBytes) override;
    void splitWillChecksum(CVFileSplitter &splitter) override;

    const std::shared_ptr<CVSplitOperationDataBinding> m_data;
};

#pragma once

#include "archives/CVArchive.h"
#include "engine/model/CVOperation.h"

#include <memory>

class CVCreateOperationDataBinding;

/// Packs the files of its window into one new archive, or into a set of volumes.
class CVCreateArchiveOperation : public CVOperation
{
public:
    explicit CVCreateArchiveOperation(std::shared_ptr<CVCreateOperationDataBinding> data);
    ~CVCreateArchiveOperation() override;

    void main() override;
    QString taskDescription() const override;

private:
    const std::shared_ptr<CVCreateOperationDataBinding> m_data;
};

#include "jobs/CVCreateArchiveOperation.h"

#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "util/LXDisplay.h"

#include <QCoreApplication>

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVCreateArchiveOperation", text);
}

} // namespace

CVCreateArchiveOperation::CVCreateArchiveOperation(std::shared_ptr<CVCreateOperationDataBinding> data)
    : m_data(std::move(data))
{}

CVCreateArchiveOperation::~CVCreateArchiveOperation() = default;

QString CVCreateArchiveOperation::taskDescription() const
{
    return tr("Create “%1”").arg(LXDisplay::displayName(m_data->fileName()));
}

void CVCreateArchiveOperation::main()
{
    if (endOnce())
        delegate()->operationFailedWithError(
            this, CVOperationHelper::errorWithMessage(tr("Error creating archive"), {}));
}

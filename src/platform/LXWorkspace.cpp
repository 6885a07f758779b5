#include "platform/LXWorkspace.h"

#include "platform/LXOpening.h"
#include "platform/LXSharedService.h"

namespace {

class Silent final : public LXWorkspace
{
public:
    bool openFile(const QString &) override { return false; }
};

LXSharedService<LXWorkspace> &service()
{
    static LXSharedService<LXWorkspace> instance;
    return instance;
}

} // namespace

bool LXWorkspace::mayOpen(const QString &path)
{
    return LXOpening::look(path).mayOpen;
}

std::shared_ptr<LXWorkspace> LXWorkspace::shared()
{
    return service().get([] { return std::make_shared<Silent>(); });
}

void LXWorkspace::setShared(std::shared_ptr<LXWorkspace> workspace)
{
    service().set(std::move(workspace));
}

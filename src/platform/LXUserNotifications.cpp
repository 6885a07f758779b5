#include "platform/LXUserNotifications.h"

#include "platform/LXSharedService.h"

namespace {

class Silent final : public LXUserNotifications
{
public:
    void post(const QString &, const QString &) override {}
};

LXSharedService<LXUserNotifications> &service()
{
    static LXSharedService<LXUserNotifications> instance;
    return instance;
}

} // namespace

std::shared_ptr<LXUserNotifications> LXUserNotifications::shared()
{
    return service().get([] { return std::make_shared<Silent>(); });
}

void LXUserNotifications::setShared(std::shared_ptr<LXUserNotifications> notifications)
{
    service().set(std::move(notifications));
}

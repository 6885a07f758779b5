#include "platform/LXDesktopAppearance.h"

#include "platform/LXSharedService.h"

#include <QtGlobal>

namespace {

class FromEnvironment final : public LXDesktopAppearance
{
public:
    bool reducedMotion() const override
    {
        return qEnvironmentVariableIntValue("CORVANE_REDUCED_MOTION") != 0;
    }
    Scheme scheme() const override { return Scheme::NoPreference; }
    void observe(std::function<void()>) override {}
};

LXSharedService<LXDesktopAppearance> &service()
{
    static LXSharedService<LXDesktopAppearance> instance;
    return instance;
}

} // namespace

std::shared_ptr<LXDesktopAppearance> LXDesktopAppearance::shared()
{
    return service().get([] { return std::make_shared<FromEnvironment>(); });
}

void LXDesktopAppearance::setShared(std::shared_ptr<LXDesktopAppearance> appearance)
{
    service().set(std::move(appearance));
}

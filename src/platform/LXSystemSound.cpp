#include "platform/LXSystemSound.h"

#include "platform/LXSharedService.h"

namespace {

class Silent final : public LXSystemSound
{
public:
    void play(const QString &) override {}
};

LXSharedService<LXSystemSound> &service()
{
    static LXSharedService<LXSystemSound> instance;
    return instance;
}

} // namespace

std::shared_ptr<LXSystemSound> LXSystemSound::shared()
{
    return service().get([] { return std::make_shared<Silent>(); });
}

void LXSystemSound::setShared(std::shared_ptr<LXSystemSound> sound)
{
    service().set(std::move(sound));
}

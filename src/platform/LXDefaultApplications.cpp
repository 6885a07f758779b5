#include "platform/LXDefaultApplications.h"

#include "platform/LXSharedService.h"

using namespace Qt::StringLiterals;

namespace {

class Unknown final : public LXDefaultApplications
{
public:
    QString defaultApplication(const QString &) override { return {}; }
    QStringList applications(const QString &) override { return {}; }
    LXResult<void> setDefaultApplication(const QString &, const QString &) override { return noDesktop(); }
    LXResult<void> withdraw(const QString &, const QString &) override { return noDesktop(); }

private:
    static LXError noDesktop()
    {
        return {u"CorvaneErrorDomain"_s, 1, u"There is no desktop that could remember it."_s, {}, {}};
    }
};

LXSharedService<LXDefaultApplications> &service()
{
    static LXSharedService<LXDefaultApplications> instance;
    return instance;
}

} // namespace

std::shared_ptr<LXDefaultApplications> LXDefaultApplications::shared()
{
    return service().get([] { return std::make_shared<Unknown>(); });
}

void LXDefaultApplications::setShared(std::shared_ptr<LXDefaultApplications> applications)
{
    service().set(std::move(applications));
}

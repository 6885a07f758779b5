#include "platform/desktop/LXDesktopServices.h"

#include "platform/desktop/LXBusFileViewer.h"
#include "platform/desktop/LXBusNotifications.h"
#include "platform/desktop/LXCanberraSound.h"
#include "platform/desktop/LXGioApplications.h"
#include "platform/desktop/LXGioWorkspace.h"
#include "platform/desktop/LXPortalAppearance.h"

void LXDesktopServices::install()
{
    LXUserNotifications::setShared(std::make_shared<LXBusNotifications>());
    LXFileViewer::setShared(std::make_shared<LXBusFileViewer>());
    LXWorkspace::setShared(std::make_shared<LXGioWorkspace>());
    LXSystemSound::setShared(std::make_shared<LXCanberraSound>());
    LXDesktopAppearance::setShared(std::make_shared<LXPortalAppearance>());
    LXDefaultApplications::setShared(std::make_shared<LXGioApplications>());
}

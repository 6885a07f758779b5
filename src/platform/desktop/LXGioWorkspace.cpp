#include "platform/desktop/LXGioWorkspace.h"

#include "platform/LXFileViewer.h"
#include "platform/LXOpening.h"
#include "platform/desktop/LXDetached.h"
#include "platform/desktop/LXGioApplications.h"
#include "util/LXFileName.h"

#include <sys/stat.h>

bool LXGioWorkspace::openFile(const QString &path)
{
    struct stat status = {};
    if (!path.startsWith(u'/') || ::lstat(bytesOfFileName(path).constData(), &status) != 0)
        return false;
    LXDetached::run([path] {
        const LXOpening::Look look = LXOpening::look(path);
        // The type is given on, so that nobody looks a second time and sees something else.
        if (!look.mayOpen || !LXGioApplications::launch(look.mimeType, path))
            LXFileViewer::shared()->reveal({path});
    });
    return true;
}

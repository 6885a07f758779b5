#include "engine/model/CVTempDir.h"

#include "platform/LXDesktopFolders.h"
#include "util/LXLog.h"
#include "util/LXRemoveTree.h"

#include <QFile>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

Q_LOGGING_CATEGORY(lcTempDir, "corvane.engine.tempdir", QtInfoMsg)

} // namespace

CVTempDir::CVTempDir(const QString &prefix)
{
    QByteArray path =
        QFile::encodeName(LXDesktopFolders::temporaryFolder() + u'/' + prefix + QLatin1StringView(".XXXXXX"));
    if (::mkdtemp(path.data()))
        m_path = QFile::decodeName(path);
    else
        LX_WARNING(lcTempDir, "%s: %s", path.constData(), std::strerror(errno));
}

CVTempDir::~CVTempDir()
{
    remove();
}

void CVTempDir::remove()
{
    if (m_path.isEmpty())
        return;
    LX_DEBUG(lcTempDir, "Removing temporary directory at %s", qUtf8Printable(m_path));
    if (const auto removed = removeTree(m_path); !removed)
        LX_WARNING(lcTempDir, "%s", qUtf8Printable(removed.error().reason));
    m_path.clear();
}

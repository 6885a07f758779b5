#include "engine/model/CVTempDir.h"

#include "engine/model/CVWorkDirectoryManager.h"
#include "platform/LXDesktopFolders.h"
#include "util/LXLog.h"

#include <QRandomGenerator>

#include <cerrno>

namespace {

Q_LOGGING_CATEGORY(lcTempDir, "corvane.engine.tempdir", QtInfoMsg)

constexpr int randomLetters = 6;

QString randomEnding()
{
    static constexpr QLatin1StringView letters(
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789");
    QString ending(randomLetters, u'\0');
    for (QChar &letter : ending)
        letter = letters.at(QRandomGenerator::system()->bounded(static_cast<int>(letters.size())));
    return ending;
}

} // namespace

CVTempDir::CVTempDir(const QString &prefix)
{
    // The name is chosen here and not by mkdtemp, because it is listed before the folder is made.
    const QString start = LXDesktopFolders::temporaryFolder() + u'/' + prefix + u'.';
    do {
        const QString path = start + randomEnding();
        const auto made = CVWorkDirectoryManager::makeWorkDir(path);
        m_systemError = made ? 0 : made.error().code;
        if (made)
            m_path = path;
        else if (m_systemError != EEXIST)
            LX_WARNING(lcTempDir, "%s: %s", qUtf8Printable(path), qUtf8Printable(made.error().reason));
    } while (m_systemError == EEXIST);
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
    CVWorkDirectoryManager::discardWorkDir(m_path);
    m_path.clear();
}

#include "platform/desktop/LXCanberraSound.h"

#include "platform/desktop/LXDetached.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

#include <canberra.h>
#include <dlfcn.h>

#include <algorithm>
#include <mutex>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(log, "corvane.desktop.sound")

} // namespace

/// Lives as long as a thread that plays: a sound server may hold one for ever.
struct LXCanberraSound::Player
{
    // Held while playing. Whoever finds it held leaves: a server that does not answer gets one thread.
    std::mutex mutex;
    ca_context *context = nullptr;
    decltype(&::ca_context_play) playSound = nullptr;
    bool wasTried = false;

    void play(const QByteArray &file);
    void load();
};

void LXCanberraSound::Player::load()
{
    if (std::exchange(wasTried, true))
        return;
    // Never unloaded: it may have threads of its own.
    void *library = ::dlopen("libcanberra.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        qCDebug(log) << "no libcanberra";
        return;
    }
    const auto create =
        reinterpret_cast<decltype(&::ca_context_create)>(::dlsym(library, "ca_context_create"));
    const auto change =
        reinterpret_cast<decltype(&::ca_context_change_props)>(::dlsym(library, "ca_context_change_props"));
    playSound = reinterpret_cast<decltype(&::ca_context_play)>(::dlsym(library, "ca_context_play"));
    if (create == nullptr || change == nullptr || playSound == nullptr || create(&context) != CA_SUCCESS) {
        context = nullptr;
        return;
    }
    change(context, CA_PROP_APPLICATION_NAME, "Corvane", CA_PROP_APPLICATION_ID, "org.corvane.Corvane",
           CA_PROP_APPLICATION_ICON_NAME, "corvane", nullptr);
}

void LXCanberraSound::Player::play(const QByteArray &file)
{
    const std::unique_lock lock(mutex, std::try_to_lock);
    if (!lock.owns_lock())
        return;
    load();
    if (context == nullptr)
        return;
    const int status = playSound(context, 0, CA_PROP_MEDIA_FILENAME, file.constData(), CA_PROP_MEDIA_ROLE,
                                 "event", CA_PROP_EVENT_ID, "complete", nullptr);
    if (status != CA_SUCCESS)
        qCDebug(log) << "the sound was not played:" << status;
}

LXCanberraSound::LXCanberraSound(QString folder)
    : m_folder(std::move(folder))
    , m_player(std::make_shared<Player>())
{}

LXCanberraSound::~LXCanberraSound() = default;

QString LXCanberraSound::defaultFolder()
{
    return QCoreApplication::applicationDirPath() + "/../share/corvane/sounds"_L1;
}

QString LXCanberraSound::fileOfSound(const QString &name) const
{
    if (name.isEmpty() ||
        !std::all_of(name.begin(), name.end(), [](QChar c) { return c.isLetterOrNumber(); }))
        return {};
    const QString file = m_folder + u'/' + name + ".wav"_L1;
    return QFileInfo(file).isFile() ? file : QString();
}

void LXCanberraSound::play(const QString &name)
{
    const QString file = fileOfSound(name);
    if (file.isEmpty())
        return;
    LXDetached::run([player = m_player, path = QFile::encodeName(file)] { player->play(path); });
}

#pragma once

#include "platform/LXSystemSound.h"

#include <QString>

#include <memory>

/// Sounds from the resources through libcanberra, which is loaded with the first one.
class LXCanberraSound final : public LXSystemSound
{
public:
    /// Sounds are files <name>.wav in `folder`.
    explicit LXCanberraSound(QString folder = defaultFolder());
    ~LXCanberraSound() override;

    void play(const QString &name) override;

    /// share/corvane/sounds beside the folder of the program.
    static QString defaultFolder();
    /// Empty where there is no such sound.
    QString fileOfSound(const QString &name) const;

private:
    struct Player;

    const QString m_folder;
    const std::shared_ptr<Player> m_player;
};

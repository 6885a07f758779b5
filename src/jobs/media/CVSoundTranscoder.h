#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>

/// Decodes one sound file and encodes it again. The descriptors stay open; nothing else is opened,
/// whatever the file refers to.
class CVSoundTranscoder final
{
public:
    struct Request
    {
        int source = -1;
        int output = -1;
        QByteArray sourceExtension; ///< a hint
        bool asM4a = true;          ///< the file's brand; else that of a general MPEG-4
        int bitRate = 0;            ///< 0: the encoder's own
        const std::atomic<bool> *cancelled = nullptr;
        std::function<void()> progress;
    };

    explicit CVSoundTranscoder(Request request);
    ~CVSoundTranscoder();

    /// Why it failed; empty when all is written, or it was cancelled.
    QString run();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

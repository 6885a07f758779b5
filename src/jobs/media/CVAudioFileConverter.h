#pragma once

#include "jobs/media/CVMediaReplacement.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>

/// Writes one sound file as AAC in MPEG-4, in place of the file that it came from.
///
/// Sample rate and channels stay what they were, as far as AAC has them (7,350 to 96,000 Hz); bit rates
/// that a channel cannot use are lowered by the encoder. Tags and the cover picture go along. Sound that
/// is damaged, cut off, empty or protected fails, and so does a film, whose picture would be lost.
/// Thread: one at a time; cancel() from any.
class CVAudioFileConverter final
{
public:
    static std::uint32_t formatIdentifierForType(int type);
    static std::uint32_t dataForType(int type);
    static QString audioFormatExtensionForType(int type);
    static int audioBitRateFortype(int type);

    /// The file at the path gives way to one of the same name with the new extension; where that is
    /// taken by another file, "a 2.m4a" and so on. False leaves everything as it was; failureReason()
    /// says why. When cancelled: true, and everything as it was.
    bool manipulateAudioFile(const QString &path, int newFormat);

    /// The same for a file that is not open yet.
    bool manipulateAudioFile(CVMediaReplacement &file, int newFormat);

    QString failureReason() const { return m_reason; }

    /// Takes effect within one block of sound.
    void cancel() { m_cancelled = true; }

    /// Called now and then while it works.
    void setProgress(std::function<void()> progress) { m_progress = std::move(progress); }

private:
    std::atomic<bool> m_cancelled{false};
    std::function<void()> m_progress = [] {};
    QString m_reason;
};

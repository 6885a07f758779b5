#include "jobs/media/CVAudioFileConverter.h"

#include "jobs/media/CVMediaTypes.h"
#include "jobs/media/CVSoundTranscoder.h"

std::uint32_t CVAudioFileConverter::formatIdentifierForType(int type)
{
    return CVMediaTypes::audioCodec(type);
}

std::uint32_t CVAudioFileConverter::dataForType(int type)
{
    return CVMediaTypes::audioContainer(type);
}

QString CVAudioFileConverter::audioFormatExtensionForType(int type)
{
    return CVMediaTypes::audioExtension(type);
}

int CVAudioFileConverter::audioBitRateFortype(int type)
{
    return CVMediaTypes::audioBitRate(type);
}

bool CVAudioFileConverter::manipulateAudioFile(const QString &path, int newFormat)
{
    CVMediaReplacement file(path, audioFormatExtensionForType(newFormat));
    return manipulateAudioFile(file, newFormat);
}

bool CVAudioFileConverter::manipulateAudioFile(CVMediaReplacement &file, int newFormat)
{
    m_reason.clear();
    if (formatIdentifierForType(newFormat) == CVMediaTypes::noFormat) {
        m_reason = QStringLiteral("There is no sound format %1.").arg(newFormat);
        return false;
    }
    if (const auto opened = file.open(); !opened) {
        m_reason = opened.error().reason;
        return false;
    }
    CVSoundTranscoder transcoder({.source = file.source(),
                                  .output = file.output(),
                                  .sourceExtension = file.sourceExtension(),
                                  .asM4a = audioFormatExtensionForType(newFormat) == QLatin1String("m4a"),
                                  .bitRate = audioBitRateFortype(newFormat),
                                  .cancelled = &m_cancelled,
                                  .progress = m_progress});
    m_reason = transcoder.run();
    if (m_cancelled)
        return true;
    if (!m_reason.isEmpty())
        return false;
    if (const auto done = file.commit(); !done)
        m_reason = done.error().reason;
    return m_reason.isEmpty();
}

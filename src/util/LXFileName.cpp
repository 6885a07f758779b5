#include "util/LXFileName.h"

#include <QStringDecoder>

namespace {

constexpr char16_t firstEscape = 0xdc80;
constexpr char16_t lastEscape = 0xdcff;

/// Bytes of the UTF-8 character at the start of `bytes`, 0 when there is none.
qsizetype lengthOfCharacter(QByteArrayView bytes)
{
    const auto lead = static_cast<unsigned char>(bytes.front());
    const qsizetype length = lead < 0x80   ? 1
                             : lead < 0xc2 ? 0
                             : lead < 0xe0 ? 2
                             : lead < 0xf0 ? 3
                             : lead < 0xf5 ? 4
                                           : 0;
    if (length == 0 || length > bytes.size())
        return 0;
    return bytes.first(length).isValidUtf8() ? length : 0;
}

} // namespace

QString fileNameFromBytes(QByteArrayView bytes)
{
    if (bytes.isValidUtf8())
        return QString::fromUtf8(bytes);
    QString name;
    name.reserve(bytes.size());
    while (!bytes.isEmpty()) {
        if (const qsizetype length = lengthOfCharacter(bytes)) {
            name += QString::fromUtf8(bytes.first(length));
            bytes = bytes.sliced(length);
        } else {
            name +=
                QChar(static_cast<char16_t>(firstEscape - 0x80 + static_cast<unsigned char>(bytes.front())));
            bytes = bytes.sliced(1);
        }
    }
    return name;
}

QByteArray bytesOfFileName(QStringView name)
{
    QByteArray bytes;
    bytes.reserve(name.size());
    qsizetype plain = 0; // start of what is not yet converted
    for (qsizetype i = 0; i < name.size(); ++i) {
        const char16_t unit = name[i].unicode();
        if (QChar::isHighSurrogate(unit) && i + 1 < name.size() && name[i + 1].isLowSurrogate()) {
            ++i;
            continue;
        }
        if (unit < firstEscape || unit > lastEscape)
            continue;
        bytes += name.sliced(plain, i - plain).toUtf8();
        bytes += static_cast<char>(unit - firstEscape + 0x80);
        plain = i + 1;
    }
    return bytes + name.sliced(plain).toUtf8();
}

QString matchableFileName(QStringView name)
{
    QString result = name.toString();
    for (qsizetype i = 0; i < result.size(); ++i) {
        const QChar c = result.at(i);
        if (c.isHighSurrogate() && i + 1 < result.size() && result.at(i + 1).isLowSurrogate())
            ++i;
        else if (c.isSurrogate())
            result[i] = QChar::ReplacementCharacter;
    }
    return result;
}

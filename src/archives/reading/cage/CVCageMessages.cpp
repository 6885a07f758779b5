#include "archives/reading/cage/CVCageMessages.h"

#include <QIODevice>

namespace CVCage {

namespace {

bool isGood(const QDataStream &stream)
{
    return stream.status() == QDataStream::Ok;
}

/// Not by QDataStream's own way, which asks for as much memory as the sender says.
bool takeBytes(QDataStream &from, QByteArray &bytes, qsizetype limit)
{
    quint32 size = 0;
    from >> size;
    if (!isGood(from) || size > quint64(limit) || qint64(size) > from.device()->bytesAvailable())
        return false;
    bytes = QByteArray(qsizetype(size), Qt::Uninitialized);
    return from.readRawData(bytes.data(), int(size)) == int(size);
}

void putBytes(QDataStream &to, const QByteArray &bytes)
{
    to << quint32(bytes.size());
    to.writeRawData(bytes.constData(), int(bytes.size()));
}

} // namespace

bool isCode(int code)
{
    switch (static_cast<XADErrorCode>(code)) {
    case XADErrorCode::None:
    case XADErrorCode::Damaged:
    case XADErrorCode::PasswordMissing:
    case XADErrorCode::PasswordWrongOpening:
    case XADErrorCode::Password:
    case XADErrorCode::PasswordOrDamage:
    case XADErrorCode::NotSupported:
    case XADErrorCode::NeedsPackage:
    case XADErrorCode::Stopped:
    case XADErrorCode::Refused:
    case XADErrorCode::NotMade:
        return true;
    }
    return false;
}

void put(QDataStream &to, const QString &text)
{
    // UTF-16, because names of volumes may hold bytes that are no text.
    const QString part = text.left(maxTextBytes / 2);
    putBytes(to, QByteArray(reinterpret_cast<const char *>(part.utf16()), part.size() * 2));
}

bool take(QDataStream &from, QString &text)
{
    QByteArray bytes;
    if (!takeBytes(from, bytes, maxTextBytes) || bytes.size() % 2 != 0)
        return false;
    text = QString(bytes.size() / 2, Qt::Uninitialized);
    memcpy(text.data(), bytes.constData(), size_t(bytes.size()));
    return true;
}

bool take(QDataStream &from, bool &value)
{
    quint8 byte = 0;
    from >> byte;
    value = byte == 1;
    return isGood(from) && byte <= 1;
}

bool take(QDataStream &from, XADErrorCode &code)
{
    qint32 number = 0;
    from >> number;
    code = static_cast<XADErrorCode>(number);
    return isGood(from) && isCode(number);
}

void put(QDataStream &to, const CVReadingEngine::Outcome &outcome)
{
    to << qint32(outcome.code);
    put(to, outcome.detail);
    put(to, outcome.remark);
}

bool take(QDataStream &from, CVReadingEngine::Outcome &outcome)
{
    return take(from, outcome.code) && take(from, outcome.detail) && take(from, outcome.remark);
}

void put(QDataStream &to, const Opening &opening)
{
    put(to, opening.format);
    to << opening.isEncrypted << opening.isLazy << opening.isDamageFinal << opening.measuresProgress
       << opening.declaredTotal;
}

bool take(QDataStream &from, Opening &opening)
{
    if (!take(from, opening.format) || !take(from, opening.isEncrypted) || !take(from, opening.isLazy) ||
        !take(from, opening.isDamageFinal) || !take(from, opening.measuresProgress))
        return false;
    from >> opening.declaredTotal;
    return isGood(from) && opening.declaredTotal >= 0;
}

void put(QDataStream &to, const Listing &listing)
{
    put(to, listing.outcome);
    to << listing.count << listing.bytes << listing.isInline;
    if (listing.isInline)
        putBytes(to, listing.inlineBytes);
}

bool take(QDataStream &from, Listing &listing)
{
    if (!take(from, listing.outcome))
        return false;
    from >> listing.count >> listing.bytes;
    if (!isGood(from) || !take(from, listing.isInline))
        return false;
    if (listing.isInline)
        return takeBytes(from, listing.inlineBytes, maxInlineListBytes) &&
               listing.bytes == listing.inlineBytes.size();
    return listing.bytes >= 0 && listing.bytes <= maxListBytes;
}

} // namespace CVCage

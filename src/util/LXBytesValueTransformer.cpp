#include "util/LXBytesValueTransformer.h"

#include <QCoreApplication>

namespace {

// The text is the key of its own translation; the numbers are filled in afterwards.
QString text(const char *key)
{
    return QCoreApplication::translate("LXBytesValueTransformer", key);
}

} // namespace

QString LXBytesValueTransformer::transformedValue(qint64 bytes) const
{
    const int unit = m_mode == Mode::Binary ? 1024 : 1000;
    if (bytes == 1)
        return text("%1 byte").arg(bytes);
    if (bytes < unit)
        return text("%1 bytes").arg(bytes);
    static constexpr const char *units[] = {"%1 KB", "%1 MB", "%1 GB", "%1 TB"};
    // Single precision, so that counts look the same everywhere the system shows them.
    float value = static_cast<float>(bytes) / static_cast<float>(unit);
    std::size_t i = 0;
    while (value >= static_cast<float>(unit) && i + 1 < std::size(units)) {
        value /= static_cast<float>(unit);
        ++i;
    }
    return text(units[i]).arg(QString::number(static_cast<double>(value), 'f', 1));
}

QString LXBytesValueTransformer::formatBytes(qint64 bytes)
{
    return LXBytesValueTransformer(Mode::Decimal).transformedValue(bytes);
}

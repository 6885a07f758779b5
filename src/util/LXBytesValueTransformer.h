#pragma once

#include <QString>

/// Byte counts for display: "1 byte", "512 bytes", "1.5 KB" up to TB.
class LXBytesValueTransformer
{
public:
    enum class Mode : int {
        System = 0, ///< as the desktop counts: 1000
        Binary = 1, ///< 1024
        Decimal = 2 ///< 1000
    };

    explicit LXBytesValueTransformer(Mode mode = Mode::System)
        : m_mode(mode)
    {}

    QString transformedValue(qint64 bytes) const;
    /// Decimal.
    static QString formatBytes(qint64 bytes);

private:
    Mode m_mode;
};

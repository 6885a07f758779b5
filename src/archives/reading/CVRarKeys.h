#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <cstdint>
#include <optional>

/// What a RAR archive derives from its password: keys for its headers and for keyed check sums, and the
/// value that tells a wrong password from damage. Data is decrypted elsewhere.
/// Deriving is slow on purpose, so keys are kept; an archive that asks for too many of them gets none.
class CVRarKeys
{
public:
    explicit CVRarKeys(const QString &password)
        : m_password(password)
    {}

    /// RAR 5. AES-256.
    struct Five
    {
        QByteArray key;
        QByteArray hashKey; ///< for check sums that are keyed, so that they do not tell the contents
        QByteArray check;   ///< 8 bytes; the archive may hold the right ones
    };
    static constexpr int maxRoundsLog2 = 24;
    /// Null: more rounds than the format or our patience allows.
    const Five *five(int roundsLog2, const QByteArray &salt);

    /// RAR 4. AES-128.
    struct Four
    {
        QByteArray key;
        QByteArray start; ///< initialisation vector
    };
    const Four *four(const QByteArray &salt);

    /// CBC without padding; whole blocks of 16 bytes. Empty on failure.
    static QByteArray decrypt(const QByteArray &key, const QByteArray &start, const QByteArray &data);

    /// The form in which a keyed sum is stored.
    static std::uint32_t keyedCrc(const QByteArray &hashKey, std::uint32_t crc);
    static QByteArray keyedHash(const QByteArray &hashKey, const QByteArray &hash);

private:
    bool mayDerive(std::uint64_t rounds);

    QString m_password;
    std::uint64_t m_rounds = 0;
    QHash<QByteArray, Five> m_five;
    QHash<QByteArray, Four> m_four;
};

/// What a header says about the encryption of what it describes (RAR 5).
struct CVRarEncryption
{
    int roundsLog2 = 0;
    QByteArray salt = {};
    QByteArray check = {}; ///< empty: not stored, or damaged itself
    bool isSumKeyed = false;
};

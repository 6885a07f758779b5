#pragma once

#include <QByteArrayView>
#include <QString>

#include <memory>
#include <optional>
#include <span>

/// What is known about one charset before any text was seen.
struct CVNameCharsetInfo
{
    const char *name;    ///< what charsetName() answers
    const char *icuName; ///< a name of the very table wanted, where aliases are ambiguous
    bool multiByte;
};

/// All charsets names may be in, UTF-8 aside. The order has no meaning.
std::span<const CVNameCharsetInfo> cvNameCharsets();

/// One charset made ready for reading names. Only round-trip mappings count: a byte sequence that
/// would be written back as another one is undecodable here, and so are those that give control
/// characters of the C1 range, private use characters or the replacement character. This is what
/// makes distinct names stay distinct.
/// Thread: all calls from any thread.
class CVNameCharset final
{
public:
    /// Null when ICU here lacks the table.
    static std::unique_ptr<CVNameCharset> open(const CVNameCharsetInfo &info);
    ~CVNameCharset();

    const CVNameCharsetInfo &info() const;

    /// The text, or nothing when any byte of it is undecodable.
    std::optional<QString> decodeStrictly(QByteArrayView raw) const;

    /// The text with undecodable bytes escaped. Total and injective.
    QString decode(QByteArrayView raw) const;

private:
    struct Private;
    explicit CVNameCharset(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

/// "‰8F". Appends the visible form of one byte.
void cvAppendEscapedByte(QString &text, unsigned char byte);

/// The text contains what looks like the visible form of a byte.
bool cvLooksEscaped(QStringView text);

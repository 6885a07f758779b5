#include "split/LXPropertyList.h"

#include <cstdint>
#include <cstdlib>

// What was read is written and read again: it has to be the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto read = LXPropertyList::toStrings(
        QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    if (!read)
        return 0;
    const QMap<QString, QString> &strings = read.value();
    for (auto i = strings.begin(); i != strings.end(); ++i)
        if (!LXPropertyList::canHold(i.key()) || !LXPropertyList::canHold(i.value()))
            return 0;
    const auto again = LXPropertyList::toStrings(LXPropertyList::fromStrings(strings));
    if (!again || again.value() != strings)
        std::abort();
    return 0;
}

#include "archives/reading/CVLsarListing.h"

#include <cstdint>

// The text comes in pieces; how it is cut must not matter.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArrayView text(data, static_cast<qsizetype>(size));
    int whole = 0;
    int pieces = 0;
    CVLsarListing atOnce([&whole](const QJsonObject &) { return ++whole < 1000; });
    const bool good = atOnce.add(text);
    CVLsarListing inPieces([&pieces](const QJsonObject &) { return ++pieces < 1000; });
    bool goodToo = true;
    for (qsizetype at = 0; goodToo && at < text.size(); at += 7)
        goodToo = inPieces.add(text.sliced(at, std::min<qsizetype>(7, text.size() - at)));
    if (good != goodToo || whole != pieces)
        __builtin_trap();
    return 0;
}

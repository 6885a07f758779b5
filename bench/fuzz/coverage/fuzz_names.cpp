// Names, one a line, behind a byte that says what made the archive.
#include "archives/reading/CVNameDecoder.h"

#include <QByteArrayList>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    CVNameDecoder decoder(static_cast<CVNameDecoder::Family>(data[0] % 6));
    const QByteArrayList names =
        QByteArray(reinterpret_cast<const char *>(data + 1), static_cast<qsizetype>(size - 1)).split('\n');
    for (const QByteArray &name : names)
        decoder.observe(name);
    decoder.decide();
    for (const QByteArray &name : names)
        for (const auto encoding : {CVNameEncoding::Unmarked, CVNameEncoding::Utf8})
            decoder.decode(name, encoding);
    return 0;
}

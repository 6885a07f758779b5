#include "archives/reading/CVNameDetection.h"

#include <uchardet/uchardet.h>

#include <QByteArray>

#include <algorithm>
#include <cstring>

namespace {

using Family = CVNameDecoder::Family;

const char *fallbackName(Family family)
{
    switch (family) {
    case Family::Zip:
    case Family::Rar:
    case Family::Arj:
        return "IBM437";
    case Family::Lha:
        return "windows-31j";
    case Family::Tar:
    case Family::Other:
        return "windows-1252";
    }
    return "windows-1252";
}

std::unique_ptr<CVNameCharset> openByName(const char *name)
{
    for (const CVNameCharsetInfo &info : cvNameCharsets()) {
        if (qstricmp(info.name, name) == 0)
            return CVNameCharset::open(info);
    }
    return nullptr;
}

struct DetectorCloser
{
    void operator()(uchardet *detector) const noexcept { uchardet_delete(detector); }
};

QByteArray guess(std::span<const QByteArrayView> names)
{
    const std::unique_ptr<uchardet, DetectorCloser> detector(uchardet_new());
    for (const QByteArrayView raw : names) {
        if (uchardet_handle_data(detector.get(), raw.data(), size_t(raw.size())) != 0 ||
            uchardet_handle_data(detector.get(), "\n", 1) != 0)
            break;
    }
    uchardet_data_end(detector.get());
    QByteArray name = uchardet_get_charset(detector.get());
    if (name == "SHIFT_JIS")
        return "windows-31j";
    if (name == "BIG5")
        return "Big5";
    if (name == "UHC" || name == "EUC-KR")
        return "windows-949";
    if (name == "ISO-8859-1")
        return "windows-1252";
    return name;
}

} // namespace

std::unique_ptr<CVNameCharset> cvFallbackNameCharset(Family family)
{
    return openByName(fallbackName(family));
}

std::unique_ptr<CVNameCharset> cvDetectNameCharset(std::span<const QByteArrayView> names, Family family)
{
    auto guessed = openByName(guess(names).constData());
    if (!guessed)
        return nullptr;
    const bool western = std::strcmp(guessed->info().name, "windows-1252") == 0;
    if (western && family != Family::Tar && family != Family::Other)
        return nullptr;
    const bool fits = std::all_of(names.begin(), names.end(), [&guessed](QByteArrayView raw) {
        return guessed->decodeStrictly(raw).has_value();
    });
    return fits ? std::move(guessed) : nullptr;
}

bool cvIsLikelierThanUtf8(QByteArrayView raw, const CVNameCharset &charset)
{
    Q_UNUSED(raw);
    Q_UNUSED(charset);
    return false;
}

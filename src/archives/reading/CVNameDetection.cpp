#include "archives/reading/CVNameDetection.h"

#include "archives/reading/CVNameLikelihood.h"

#include <QByteArray>
#include <QSet>
#include <QString>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using Family = CVNameDecoder::Family;

/// Looked at: a charset shows within a few names, and the time is the same for every archive.
constexpr qsizetype sampleBytesLimit = 8 * 1024;

// Costs in half bits.
constexpr int undecodableName = 60;
constexpr int undecodableByte = 16;

/// How unusual a charset is among makers of each family, in half bits: Zip, Rar, Tar, Lha, Arj, Other.
struct Prior
{
    const char *charset;
    std::array<int, 6> costs;
};

// DOS and Windows programs write the OEM code page into zip and arj, on Windows often the ANSI one
// too; Unix programs write whatever the locale was.
constexpr Prior priors[] = {
    {"windows-31j", {4, 4, 8, 0, 8, 4}},
    {"EUC-JP", {14, 16, 4, 10, 16, 6}},
    {"ISO-2022-JP", {14, 16, 12, 10, 16, 8}},
    {"GB18030", {4, 4, 4, 12, 8, 4}},
    {"Big5", {6, 6, 6, 12, 10, 6}},
    {"windows-949", {6, 6, 6, 12, 10, 6}},
    {"IBM866", {3, 4, 8, 10, 0, 5}},
    {"windows-1251", {6, 4, 5, 12, 6, 4}},
    {"KOI8-R", {12, 12, 2, 14, 10, 6}},
    {"KOI8-U", {14, 14, 5, 16, 12, 8}},
    {"ISO-8859-5", {18, 18, 8, 18, 18, 14}},
    {"IBM855", {18, 18, 18, 18, 14, 18}},
    {"IBM437", {0, 2, 8, 8, 0, 6}},
    {"IBM850", {1, 1, 8, 8, 1, 6}},
    {"IBM852", {5, 5, 10, 12, 5, 7}},
    {"IBM865", {10, 10, 14, 14, 8, 14}},
    {"IBM861", {10, 10, 16, 16, 9, 16}},
    {"IBM775", {12, 12, 16, 16, 12, 16}},
    {"windows-1250", {8, 7, 10, 14, 12, 6}},
    {"windows-1252", {5, 4, 0, 10, 8, 0}},
    {"windows-1257", {12, 12, 12, 16, 14, 12}},
    {"ISO-8859-2", {14, 14, 5, 16, 16, 10}},
    {"ISO-8859-15", {14, 14, 3, 16, 16, 8}},
    {"macintosh", {14, 16, 12, 16, 18, 9}},
    {"windows-1253", {8, 8, 6, 16, 12, 6}},
    {"IBM737", {6, 6, 12, 14, 6, 8}},
    {"ISO-8859-7", {14, 14, 6, 16, 16, 10}},
    {"windows-1254", {10, 9, 6, 16, 14, 8}},
    {"IBM857", {8, 8, 12, 14, 6, 10}},
    {"windows-1255", {9, 8, 6, 16, 12, 6}},
    {"IBM862", {8, 8, 12, 16, 8, 9}},
    {"windows-1256", {8, 7, 6, 16, 12, 6}},
    {"IBM720", {10, 10, 14, 16, 10, 12}},
    {"windows-874", {7, 7, 6, 14, 8, 6}},
};

int priorCost(const char *charset, Family family)
{
    for (const Prior &prior : priors) {
        if (std::strcmp(prior.charset, charset) == 0)
            return prior.costs[size_t(family)];
    }
    return 20;
}

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
        break;
    }
    return "windows-1252";
}

/// Nearly every byte follows on the one before: somebody's chart of a code page and no language.
bool isChart(QByteArrayView part)
{
    constexpr qsizetype shortestChart = 8;
    qsizetype steps = 0;
    for (qsizetype i = 1; i < part.size(); ++i)
        steps += static_cast<unsigned char>(part[i]) == static_cast<unsigned char>(part[i - 1]) + 1;
    return part.size() >= shortestChart && steps + 3 >= part.size();
}

/// Every file name and folder name once, without those that are all ASCII and so say nothing.
std::vector<QByteArrayView> sampleOf(std::span<const QByteArrayView> names, bool sevenBit)
{
    std::vector<QByteArrayView> sample;
    QSet<QByteArrayView> seen;
    qsizetype bytes = 0;
    for (const QByteArrayView name : names) {
        qsizetype begin = 0;
        while (begin < name.size() && bytes < sampleBytesLimit) {
            qsizetype end = name.indexOf('/', begin);
            if (end < 0 || sevenBit)
                end = name.size();
            const QByteArrayView part = name.sliced(begin, end - begin);
            const bool interesting =
                sevenBit || std::any_of(part.begin(), part.end(), [](char c) { return (c & 0x80) != 0; });
            if (interesting && !seen.contains(part) && !isChart(part)) {
                seen.insert(part);
                sample.push_back(part);
                bytes += part.size();
            }
            begin = end + 1;
        }
    }
    return sample;
}

/// How unlikely it is that these bytes are text in this charset.
int costIn(const CVNameCharset &charset, std::span<const QByteArrayView> sample)
{
    int sum = 0;
    std::vector<QString> texts;
    texts.reserve(sample.size());
    for (const QByteArrayView raw : sample) {
        if (auto text = charset.decodeStrictly(raw)) {
            if (charset.info().multiByte)
                sum -= cvAsciiCost(raw) - cvAsciiCost(*text);
            texts.push_back(*std::move(text));
        } else {
            sum += undecodableName;
            for (const char c : raw)
                sum += (c & 0x80) != 0 ? undecodableByte : 0;
        }
    }
    return sum + cvNamesCost(texts, charset.info().multiByte);
}

} // namespace

std::unique_ptr<CVNameCharset> cvFallbackNameCharset(Family family)
{
    for (const CVNameCharsetInfo &info : cvNameCharsets()) {
        if (std::strcmp(info.name, fallbackName(family)) == 0)
            return CVNameCharset::open(info);
    }
    return nullptr;
}

std::unique_ptr<CVNameCharset> cvDetectNameCharset(std::span<const QByteArrayView> names, Family family)
{
    const bool sevenBit = std::all_of(names.begin(), names.end(), [](QByteArrayView raw) {
        return std::none_of(raw.begin(), raw.end(), [](char c) { return (c & 0x80) != 0; });
    });
    const std::vector<QByteArrayView> sample = sampleOf(names, sevenBit);
    if (sample.empty())
        return nullptr;
    std::unique_ptr<CVNameCharset> best;
    int bestCost = std::numeric_limits<int>::max();
    for (const CVNameCharsetInfo &info : cvNameCharsets()) {
        if (sevenBit != (std::strcmp(info.name, "ISO-2022-JP") == 0))
            continue;
        auto charset = CVNameCharset::open(info);
        if (!charset)
            continue;
        const int cost = costIn(*charset, sample) + priorCost(info.name, family);
        if (cost < bestCost) {
            bestCost = cost;
            best = std::move(charset);
        }
    }
    return best;
}

bool cvIsLikelierThanUtf8(QByteArrayView raw, const CVNameCharset &charset)
{
    const QString asUtf8 = QString::fromUtf8(raw);
    const QByteArrayView sample[] = {raw};
    return costIn(charset, sample) < cvNamesCost(std::span(&asUtf8, 1), false);
}

#include "ui/support/ManyEntries.h"

#include <QByteArray>
#include <QFile>
#include <QList>

#include <array>
#include <cstdint>
#include <zlib.h>

namespace {

constexpr int filesInFolder = 1000;
constexpr int mostBytes = 50;
// Has no divisor in common with a power of ten, so that every number comes once.
constexpr std::int64_t stride = 7'919;
constexpr qsizetype flushAt = 1 << 20;

void put(QByteArray &out, std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.append(static_cast<char>(value >> (8 * i) & 0xffU));
}

} // namespace

bool ManyEntries::writeZip(const QString &path, int files, Shape shape)
{
    static const QList<QByteArray> endings = {".txt", ".png", ".c",   ".pdf", ".odt",
                                              ".h",   ".mp3", ".zip", "",     ".corvane-unknown"};
    const QByteArray content(mostBytes, 'x');
    std::array<std::uint32_t, mostBytes> sums{};
    for (std::size_t size = 0; size < sums.size(); ++size)
        sums[size] = static_cast<std::uint32_t>(
            ::crc32(0, reinterpret_cast<const Bytef *>(content.constData()), static_cast<uInt>(size)));

    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    bool isGood = true;
    QByteArray locals;
    QByteArray directory;
    std::uint64_t offset = 0;
    for (int i = 0; i < files; ++i) {
        const auto number = static_cast<int>(i * stride % files);
        QByteArray name = "document " + QByteArray::number(number) + endings.at(number % endings.size());
        if (shape == Shape::Folders)
            name.prepend("folder " + QByteArray::number(number / filesInFolder) + '/');
        const auto size = static_cast<std::size_t>(number % mostBytes);
        const qsizetype began = locals.size();
        QByteArray facts;
        put(facts, 20, 2);         // version needed
        put(facts, 1U << 11U, 2);  // names are UTF-8
        put(facts, 0, 2);          // stored
        put(facts, 0x58215821, 4); // time and day
        put(facts, sums[size], 4);
        put(facts, size, 4);
        put(facts, size, 4);
        put(facts, static_cast<std::uint64_t>(name.size()), 2);
        put(facts, 0, 2);
        locals += "PK\3\4" + facts + name + content.first(static_cast<qsizetype>(size));
        directory += "PK\1\2" + QByteArray("\x14\0", 2) + facts;
        put(directory, 0, 10); // comment, disk, attributes
        put(directory, offset, 4);
        directory += name;
        offset += static_cast<std::uint64_t>(locals.size() - began);
        if (locals.size() > flushAt) {
            isGood = isGood && file.write(locals) == locals.size();
            locals.clear();
        }
    }
    const auto directorySize = static_cast<std::uint64_t>(directory.size());
    const auto count = static_cast<std::uint64_t>(files);
    QByteArray end = "PK\6\6";
    put(end, 44, 8);
    put(end, 45, 2);
    put(end, 45, 2);
    put(end, 0, 8);
    put(end, count, 8);
    put(end, count, 8);
    put(end, directorySize, 8);
    put(end, offset, 8);
    end += "PK\6\7";
    put(end, 0, 4);
    put(end, offset + directorySize, 8);
    put(end, 1, 4);
    end += "PK\5\6";
    put(end, 0, 4);
    put(end, 0xffffffff, 4);
    put(end, directorySize, 4);
    put(end, offset, 4);
    put(end, 0, 2);
    for (const QByteArray &part : {locals, directory, end})
        isGood = isGood && file.write(part) == part.size();
    return isGood && file.flush();
}

int ManyEntries::topCount(int files, Shape shape)
{
    return shape == Shape::Flat ? files : (files + filesInFolder - 1) / filesInFolder;
}

int ManyEntries::totalCount(int files, Shape shape)
{
    return shape == Shape::Flat ? files : files + topCount(files, shape);
}

#include "SplitSets.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <random>

using namespace Qt::StringLiterals;

QByteArray randomBytes(qsizetype size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

void write(const QString &path, const QByteArray &data)
{
    QFile::remove(path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

Set split(const QString &input, const QString &folder, bool compress, bool checksum, double size)
{
    CVFileSplitter splitter;
    splitter.setInputFileName(input);
    splitter.setDestinationPath(folder);
    splitter.setChunkSize(size);
    splitter.setChunkUnits(u"B"_s);
    splitter.setShouldCompress(compress);
    splitter.setShouldChecksum(checksum);
    LXResult<void> result = splitter.split();
    Set set{splitter.outputFiles(), splitter.outputFiles(), result};
    if (checksum)
        set.all.append(splitter.outputFileName() + u".chksplit");
    return set;
}

Joined combine(const QStringList &files, const QString &folder, const std::function<void()> &meanwhile)
{
    Joined joined;
    joined.heard.meanwhile = meanwhile;
    CVFileCombiner combiner;
    combiner.setFiles(files);
    combiner.setDestinationPath(folder);
    combiner.setDelegate(&joined.heard);
    joined.result = combiner.combine();
    joined.exists = QFileInfo(combiner.combineFileName()).isFile();
    if (joined.exists) {
        joined.data = read(combiner.combineFileName());
        QFile::remove(combiner.combineFileName());
    }
    return joined;
}

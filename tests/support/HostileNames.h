#pragma once

#include <QByteArray>
#include <QTest>

/// Rows of a column "name" with file names that something on the way of a file name may take for something
/// else.
inline void addHostileNames()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("plain") << QByteArray("plain.txt");
    QTest::newRow("spaces") << QByteArray(" two  words .txt");
    QTest::newRow("markup") << QByteArray("<b>bold & \"quoted\" <\xff>.txt");
    QTest::newRow("parts of an address") << QByteArray("100%20#part?query=1;a&b.txt");
    QTest::newRow("newline and escape") << QByteArray("a\nb\x1b[31m\x7f.txt");
    QTest::newRow("not UTF-8") << QByteArray("caf\xe9 \xff\xfe.txt");
    QTest::newRow("other scripts") << QByteArray("日本 \xf0\x9f\x93\xa6 e\xcc\x81.txt");
    QTest::newRow("turned direction") << QByteArray("a\xe2\x80\xaetxt.exe.txt");
    QTest::newRow("shell") << QByteArray("$(touch x) `y` 'z' \\ %f %u.txt");
    QTest::newRow("like an option") << QByteArray("--help.txt");
}

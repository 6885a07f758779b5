#include "monkey/MonkeyInputs.h"

#include "ui/support/WindowDriver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

using namespace Qt::StringLiterals;

namespace {

QByteArray sumOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return "unreadable";
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(&file);
    return hash.result().toHex();
}

/// Bytes that do not compress well, the same for the same name.
QByteArray content(const QString &name, qsizetype size)
{
    QByteArray bytes;
    QByteArray seed = name.toUtf8();
    while (bytes.size() < size) {
        seed = QCryptographicHash::hash(seed, QCryptographicHash::Sha1);
        bytes += seed;
    }
    bytes.truncate(size);
    return bytes;
}

} // namespace

MonkeyInputs::MonkeyInputs(const WindowDriver &driver)
    : m_driver(driver)
    , m_tag(u"escape-"_s + QUuid::createUuid().toString(QUuid::Id128).left(12))
{
    m_safe = make(u"safe"_s);
    m_beside = make(u"beside"_s);
    QDirIterator files(driver.path(u"safe"_s), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        m_sums.insert(path, sumOf(path));
    }
    for (const QStringList &group : m_safe + m_beside)
        m_items += group;
}

QList<QStringList> MonkeyInputs::make(const QString &folder)
{
    const auto in = [&folder](const QString &name) { return u"%1/%2"_s.arg(folder, name); };
    const auto full = [this, &in](const QString &name) { return m_driver.path(in(name)); };
    const QString tree = u"made-%1/tree"_s.arg(folder);
    for (int i = 0; i < 40; ++i)
        m_driver.makeFile(u"%1/sub %2/file %3.txt"_s.arg(tree).arg(i % 5).arg(i),
                          content(tree, 500 + 900 * i));
    m_driver.makeFile(tree + u"/large.bin"_s, content(u"large"_s, 6 << 20));
    m_driver.makeFile(tree + u"/<b>markup&amp;\n.txt"_s, "x");
    QDir().mkpath(m_driver.path(folder));

    const QString from = u"made-"_s + folder;
    const auto tool = [this, &from](const QString &line) {
        const bool made =
            m_driver.runTool(u"sh"_s, {u"-c"_s, u"cd "_s + from + u" && { "_s + line + u"; } > /dev/null"_s});
        if (!made)
            qFatal("%s", qPrintable(line));
    };
    const QString to = u"../"_s + folder + u"/"_s;
    tool(u"7za a -tzip %1plain.zip tree"_s.arg(to));
    tool(u"7za a %1solid.7z tree"_s.arg(to));
    tool(u"7za a -psecret -mhe=on %1locked.7z tree"_s.arg(to));
    tool(u"7za a -tzip -psecret %1locked.zip tree"_s.arg(to));
    tool(u"7za a -v1m %1volumes.7z tree"_s.arg(to));
    tool(u"tar czf %1tape.tar.gz tree"_s.arg(to));
    tool(u"tar cf %1tape.tar tree"_s.arg(to));
    tool(u"cp -r tree %1folder && cp tree/large.bin %1plain.bin && cp 'tree/sub 1/file 1.txt' %1note.txt"_s
             .arg(to));
    tool(u"head -c 2000000 %1plain.zip > %1cut.zip; head -c 2000000 %1solid.7z > %1cut.7z; : > %1empty.zip"_s
             .arg(to));
    tool(u"mkdir '%1<i>odd' && cp %1plain.zip '%1<i>odd/%s %n &lt;.zip'"_s.arg(to));
    tool(u"split -b 2000000 -a 1 tree/large.bin %1large.bin. && for p in a b c d; do [ ! -e %1large.bin.$p ] "
         u"|| mv "
         "%1large.bin.$p %1large.bin.$p.rsplit; done"_s.arg(to));
    // One that wants to get out in every way that a name can.
    tool(u"mkdir -p out && echo x > out/x && tar cf %1hostile.tar --transform 's,out/x,../../../%2,' -P "
         u"out/x && "
         "tar rf %1hostile.tar --transform 's,out/x,/tmp/%2,' -P out/x && tar rf %1hostile.tar out"_s.arg(
             to, m_tag));

    QList<QStringList> groups;
    for (const QString &name :
         {u"plain.zip"_s, u"solid.7z"_s, u"locked.7z"_s, u"locked.zip"_s, u"volumes.7z.001"_s,
          u"tape.tar.gz"_s, u"tape.tar"_s, u"folder"_s, u"plain.bin"_s, u"note.txt"_s, u"cut.zip"_s,
          u"cut.7z"_s, u"empty.zip"_s, u"<i>odd/%s %n &lt;.zip"_s, u"large.bin.a.rsplit"_s, u"hostile.tar"_s})
        groups.append(QStringList(full(name)));
    groups.append({full(u"plain.zip"_s), full(u"cut.zip"_s), full(u"locked.zip"_s)});
    groups.append({full(u"plain.zip"_s), full(u"solid.7z"_s), full(u"tape.tar"_s), full(u"tape.tar.gz"_s)});
    groups.append({full(u"folder"_s), full(u"note.txt"_s)});
    groups.append({full(u"folder"_s), full(u"plain.zip"_s)});
    groups.append({full(u"large.bin.a.rsplit"_s), full(u"large.bin.b.rsplit"_s)});
    groups.append({full(u"volumes.7z.001"_s), full(u"volumes.7z.002"_s)});
    for (const QStringList &group : groups) {
        for (const QString &path : group) {
            if (!QFileInfo::exists(path))
                qFatal("not made: %s", qPrintable(path));
        }
    }
    return groups;
}

QStringList MonkeyInputs::damage() const
{
    QStringList found;
    for (const QString &path : m_items) {
        if (!QFileInfo::exists(path))
            found.append(u"lost: "_s + path);
    }
    for (auto file = m_sums.begin(); file != m_sums.end(); ++file) {
        if (sumOf(file.key()) != file.value())
            found.append(u"changed: "_s + file.key());
    }
    return found;
}

QStringList MonkeyInputs::escaped() const
{
    QStringList found;
    QDir above(m_driver.folder());
    for (QStringList places = {u"/tmp"_s, u"/"_s}; above.cdUp();) {
        places.append(above.path());
        for (const QString &place : std::as_const(places)) {
            if (QFileInfo::exists(place + u'/' + m_tag))
                found.append(place + u'/' + m_tag);
        }
    }
    found.removeDuplicates();
    return found;
}

#include "filetree/CVFileNode.h"
#include "filetree/CVFileTreeBuilder.h"
#include "filetree/CVFileTreeController.h"
#include "filetree/file_node_stack.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

bool writeFile(const QString &path, const QByteArray &data = "data")
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(data) == data.size();
}

QStringList paths(const CVFileNode::List &nodes)
{
    QStringList list;
    for (const auto &node : nodes)
        list.append(node->path());
    return list;
}

QStringList sortedPaths(const CVFileNode &node)
{
    QStringList list = paths(node.preorder());
    list.sort();
    return list;
}

} // namespace

class TestFileTree : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }
    void addsFilesOnce();
    void linkToAFolderIsALeaf();
    void macHiddenFiles_data();
    void macHiddenFiles();
    void bundles();
    void previewNodes();
    void orderAndRemoval();
    void copiesIntoAWorkFolder();
    void namesThatAreNotText();
    void growsToManyEntriesAndLevels();
    void stack();

private:
    QString at(const QString &name) const { return m_dir->filePath(name); }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestFileTree::addsFilesOnce()
{
    QVERIFY(writeFile(at(u"d/f"_s)));
    QVERIFY(writeFile(at(u"g"_s)));
    CVFileTreeController controller;
    CVFileNode &root = *controller.inputFiles();
    CVFileTreeBuilder::addFiles({at(u"d"_s), at(u"g"_s), at(u"d"_s)}, root);
    QCOMPARE(root.mutableChildrenArray().size(), 2u);
    CVFileTreeBuilder::addFiles({at(u"d/f"_s), at(u"g"_s)}, root);
    QCOMPARE(sortedPaths(root), QStringList({u""_s, u"d"_s, u"d/f"_s, u"f"_s, u"g"_s}));
    QCOMPARE(root.count(), 5u);
    QVERIFY(root.isRoot() && root.isLeaf());
    controller.reset();
    QCOMPARE(root.count(), 1u);
}

void TestFileTree::linkToAFolderIsALeaf()
{
    QVERIFY(writeFile(at(u"real/f"_s)));
    QVERIFY(QFile::link(at(u"real"_s), at(u"link"_s)));
    const auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles({at(u"link"_s)}, *root);
    const auto link = root->children().front();
    QVERIFY(link->isSymbolicLink() && !link->isDirectory() && link->isLeaf());
}

void TestFileTree::macHiddenFiles_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("hidden");
    QTest::newRow("store") << u".DS_Store"_s << true;
    QTest::newRow("resource fork") << u"._photo.jpg"_s << true;
    QTest::newRow("localized") << u".localized"_s << true;
    QTest::newRow("list") << u".hidden"_s << true;
    QTest::newRow("index") << u".Spotlight-V100"_s << true;
    QTest::newRow("ends like it") << u"x.DS_Store"_s << false;
    QTest::newRow("ordinary hidden file") << u".profile"_s << false;
}

void TestFileTree::macHiddenFiles()
{
    QFETCH(QString, name);
    QFETCH(bool, hidden);
    QVERIFY(writeFile(at(u"d/"_s + name)));
    const auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles({at(u"d"_s)}, *root);
    QCOMPARE(root->count(), 3u);
    root->setIgnoreMacHiddenFiles(true);
    QCOMPARE(root->count(), hidden ? 2u : 3u);
    QCOMPARE(root->preorder().size(), root->count());
    QCOMPARE(root->children().front()->mutableChildrenArray().size(), 1u);
}

void TestFileTree::bundles()
{
    QVERIFY(writeFile(at(u"Tool.app/Contents/f"_s)));
    const auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles({at(u"Tool.app"_s)}, *root);
    const auto bundle = root->children().front();
    QCOMPARE(bundle->formattedTarget(), u"Tool"_s);
    root->setTreatAppBundlesAsFiles(true);
    QVERIFY(bundle->isLeaf());
    QCOMPARE(root->count(), 2u);
    root->setTreatAppBundlesAsFiles(false);
    QCOMPARE(root->count(), 4u);
}

void TestFileTree::previewNodes()
{
    const auto folder = CVFileNode::previewDirectoryNodeWithFilename(u"a/b.app"_s);
    const auto file = CVFileNode::previewRegularFileNodeWithFilename(u"a/b.app/.DS_Store"_s, 1500);
    const auto unknown = CVFileNode::previewRegularFileNodeWithFilename(u"a/b.app/x"_s, std::nullopt);
    folder->appendChild(file);
    folder->appendChild(unknown);
    folder->setIgnoreMacHiddenFiles(true);
    folder->setTreatAppBundlesAsFiles(true);
    QCOMPARE(folder->numberOfChildren(), 2u); // what is in an archive is shown as it is
    QCOMPARE(folder->formattedFileSize(), u"--"_s);
    QCOMPARE(folder->formattedTarget(), u"b"_s);
    QCOMPARE(file->formattedFileSize(), u"1.5 KB"_s);
    QVERIFY(folder->isDirectory() && !file->isDirectory() && !folder->isPackage() && !file->isSymbolicLink());
    QVERIFY(!unknown->previewedFileSize().has_value());
}

void TestFileTree::orderAndRemoval()
{
    const auto root = CVFileNode::create();
    const auto a = CVFileNode::create(u"/x/a"_s);
    const auto b = CVFileNode::create(u"/x/a/b"_s);
    const auto c = CVFileNode::create(u"/x/a/b/c"_s);
    const auto d = CVFileNode::create(u"/x/d/"_s);
    root->appendChild(a);
    root->appendChild(d);
    a->appendChild(b);
    b->appendChild(c);
    QCOMPARE(paths(root->preorder()), QStringList({u""_s, u"a"_s, u"a/b"_s, u"a/b/c"_s, u"d"_s}));
    QCOMPARE(root->description(), u"[root node ]"_s);
    QCOMPARE(d->description(), u"[leaf node /x/d/]"_s);

    const auto stranger = CVFileNode::create(u"/x/a"_s);
    root->removeNode(stranger);
    root->removeNode(root);
    b->removeNode(a); // above, not below
    QCOMPARE(root->count(), 5u);
    root->removeNode(b);
    QCOMPARE(root->count(), 3u);
    QVERIFY(b->isRoot());
    QCOMPARE(c->path(), u"c"_s);
}

void TestFileTree::copiesIntoAWorkFolder()
{
    QVERIFY(writeFile(at(u"in/d/f"_s), "contents"));
    QVERIFY(QFile::link(u"/nowhere"_s, at(u"in/d/link"_s)));
    QVERIFY(QDir().mkpath(at(u"in/d/empty"_s)));
    QVERIFY(QDir().mkpath(at(u"work"_s)));
    const auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles({at(u"in/d"_s)}, *root);
    for (const auto &node : root->preorder()) {
        if (!node->isRoot())
            node->copyToPath(at(u"work"_s));
    }
    QVERIFY(QFileInfo(at(u"work/d/empty"_s)).isDir());
    QCOMPARE(QFileInfo(at(u"work/d/link"_s)).symLinkTarget(), u"/nowhere"_s);
    struct stat original;
    struct stat copy;
    QCOMPARE(::stat(QFile::encodeName(at(u"in/d/f"_s)).constData(), &original), 0);
    QCOMPARE(::stat(QFile::encodeName(at(u"work/d/f"_s)).constData(), &copy), 0);
    QCOMPARE(copy.st_ino, original.st_ino); // not a byte was copied

    // An existing file is not overwritten through the hard link; the failure is logged.
    QVERIFY(QFile::remove(at(u"work/d/f"_s)));
    QVERIFY(writeFile(at(u"work/d/f"_s), "other"));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"ERROR copying"_s));
    for (const auto &node : root->preorder()) {
        if (node->target() == u"f"_s)
            node->copyToPath(at(u"work"_s));
    }
    QCOMPARE(QFileInfo(at(u"in/d/f"_s)).size(), 8);
}

void TestFileTree::namesThatAreNotText()
{
    QVERIFY(QDir().mkpath(at(u"in"_s)) && QDir().mkpath(at(u"work"_s)));
    const QByteArray folder = QFile::encodeName(at(u"in"_s)) + "/\xe9t\xe9";
    QCOMPARE(::mkdir(folder.constData(), 0755), 0);
    QCOMPARE(::mkdir(QByteArray(folder + "/\xff \xc3\xa9").constData(), 0755), 0);
    QCOMPARE(::symlink("\xfe", QByteArray(folder + "/link").constData()), 0);
    const auto root = CVFileNode::create();
    CVFileTreeBuilder::addFiles({at(u"in"_s)}, *root);
    QCOMPARE(root->count(), 5u);
    for (const auto &node : root->preorder()) {
        QVERIFY(!node->isIncomplete());
        if (!node->isRoot())
            node->copyToPath(at(u"work"_s));
    }
    const QByteArray copy = QFile::encodeName(at(u"work/in"_s)) + "/\xe9t\xe9";
    struct stat facts;
    QCOMPARE(::lstat(QByteArray(copy + "/\xff \xc3\xa9").constData(), &facts), 0);
    QVERIFY(S_ISDIR(facts.st_mode));
    QCOMPARE(::lstat(QByteArray(copy + "/link").constData(), &facts), 0);
    QVERIFY(S_ISLNK(facts.st_mode));
    // QTemporaryDir would not find them.
    QVERIFY(removeTree(at(u"in"_s)) && removeTree(at(u"work"_s)));
}

void TestFileTree::growsToManyEntriesAndLevels()
{
    const auto root = CVFileNode::create();
    auto deepest = root;
    for (int i = 0; i < 200'000; ++i) {
        auto next = CVFileNode::previewDirectoryNodeWithFilename(u"d"_s);
        deepest->appendChild(next);
        deepest = next;
    }
    for (int i = 0; i < 200'000; ++i)
        root->appendChild(CVFileNode::previewRegularFileNodeWithFilename(u"f"_s, i));
    root->setIgnoreMacHiddenFiles(true);
    QCOMPARE(root->count(), 400'001u);
    QCOMPARE(root->preorder().size(), 400'001u);
    QCOMPARE(deepest->path().size(), 2 * 200'000 - 1);
    root->removeNode(deepest);
    QCOMPARE(root->count(), 400'000u);
}

void TestFileTree::stack()
{
    CVFileNode::List stack;
    const auto a = CVFileNode::create(u"a"_s);
    const auto b = CVFileNode::create(u"b"_s);
    for (const auto &node : {a, b, a})
        pushFileNode(stack, node);
    QCOMPARE(popFileNode(stack), a);
    QCOMPARE(stack, CVFileNode::List{b});
    QCOMPARE(popFileNode(stack), b);
    QCOMPARE(popFileNode(stack), nullptr);
}

QTEST_GUILESS_MAIN(TestFileTree)
#include "tst_file_tree.moc"

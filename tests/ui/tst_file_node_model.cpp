#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVFileNodeModel.h"
#include "ui/support/MainThreadWatch.h"
#include "util/LXMainThread.h"

#include <QAbstractItemModelTester>
#include <QFile>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <random>

using namespace Qt::StringLiterals;

namespace {

#ifdef CORVANE_SLOW_ROWS
constexpr int many = 1'000'000;
#else
constexpr int many = 100'000;
#endif

CVFileNode::Pointer file(const QString &name, qint64 size = 1)
{
    return CVFileNode::previewRegularFileNodeWithFilename(name, size);
}

CVFileNode::Pointer folder(const QString &name, const CVFileNode::List &children = {})
{
    auto node = CVFileNode::previewDirectoryNodeWithFilename(name);
    for (const auto &child : children)
        node->appendChild(child);
    return node;
}

CVFileNode::Pointer root(const CVFileNode::List &children)
{
    auto node = CVFileNode::create();
    for (const auto &child : children)
        node->appendChild(child);
    return node;
}

QStringList names(const CVFileNodeModel &model)
{
    QStringList list;
    for (int row = 0; row < model.rowCount(); ++row) {
        const auto index = model.index(row, 0);
        list.append(QString(index.data(CVFileNodeModel::DepthRole).toInt(), u' ') + index.data().toString());
    }
    return list;
}

bool settle(const CVFileNodeModel &model)
{
    return QTest::qWaitFor([&] { return !model.isBusy(); }, 60000);
}

CVFileNode::Pointer flatTree(bool isShuffled)
{
    std::vector<int> numbers(many);
    for (int i = 0; i < many; ++i)
        numbers[static_cast<std::size_t>(i)] = i;
    if (isShuffled)
        std::ranges::shuffle(numbers, std::mt19937(1));
    auto top = CVFileNode::create();
    for (const int i : numbers)
        top->appendChild(
            file(u"document %1.%2"_s.arg(i).arg(i % 3 == 0 ? u"txt"_s : u"png"_s), i * 7LL % 100000));
    return top;
}

qint64 residentMegabytes()
{
    QFile status(u"/proc/self/statm"_s);
    return status.open(QIODevice::ReadOnly) ? status.readAll().split(' ').at(1).toLongLong() * 4 / 1024 : 0;
}

} // namespace

class TestFileNodeModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }

    void namesInTheOrderOfPeople_data()
    {
        QTest::addColumn<QStringList>("given");
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("numbers") << QStringList{u"file10"_s, u"file2"_s, u"file1"_s}
                                 << QStringList{u"file1"_s, u"file2"_s, u"file10"_s};
        QTest::newRow("zeros") << QStringList{u"a010"_s, u"a9"_s, u"a10"_s}
                               << QStringList{u"a9"_s, u"a010"_s, u"a10"_s};
        QTest::newRow("longer than any integer")
            << QStringList{u"9999999999999999999999999"_s, u"10000000000000000000000000"_s, u"2"_s}
            << QStringList{u"2"_s, u"9999999999999999999999999"_s, u"10000000000000000000000000"_s};
        QTest::newRow("case and accents") << QStringList{u"Zebra"_s, u"\u00e9cole"_s, u"apple"_s, u"Fig"_s}
                                          << QStringList{u"apple"_s, u"\u00e9cole"_s, u"Fig"_s, u"Zebra"_s};
        QTest::newRow("digits before letters")
            << QStringList{u"b"_s, u"1"_s, u"a"_s} << QStringList{u"1"_s, u"a"_s, u"b"_s};
    }
    void namesInTheOrderOfPeople()
    {
        QFETCH(QStringList, given);
        QFETCH(QStringList, shown);
        CVFileNodeModel model;
        CVFileNode::List nodes;
        for (const QString &name : given)
            nodes.push_back(file(name));
        model.setRoot(root(nodes), CVFileNodeModel::Tree::Frozen);
        QCOMPARE(names(model), shown);
        model.sort(0, Qt::DescendingOrder);
        std::ranges::reverse(shown);
        QCOMPARE(names(model), shown);
    }

    void sortsByColumnWithFoldersFirst()
    {
        CVFileNodeModel model;
        const QAbstractItemModelTester tester(&model);
        model.setRoot(root({file(u"b.txt"_s, 10), folder(u"z"_s, {file(u"z/in"_s)}), file(u"a.zip"_s, 30),
                            file(u"c.txt"_s, 20), folder(u"e"_s)}),
                      CVFileNodeModel::Tree::Frozen);
        QCOMPARE(names(model), (QStringList{u"e"_s, u"z"_s, u"a.zip"_s, u"b.txt"_s, u"c.txt"_s}));
        model.sort(1, Qt::DescendingOrder);
        QCOMPARE(names(model), (QStringList{u"e"_s, u"z"_s, u"a.zip"_s, u"c.txt"_s, u"b.txt"_s}));
        model.sort(2, Qt::AscendingOrder);
        QCOMPARE(names(model), (QStringList{u"e"_s, u"z"_s, u"b.txt"_s, u"c.txt"_s, u"a.zip"_s}));
        QCOMPARE(model.index(4, 1).data().toString(), u"30 bytes"_s);
    }

    void foldersOpenAndClose()
    {
        CVFileNodeModel model;
        const QAbstractItemModelTester tester(&model);
        model.setRoot(root({folder(u"a"_s, {file(u"a/2"_s), folder(u"a/deep"_s, {file(u"a/deep/x"_s)}),
                                            file(u"a/1"_s)}),
                            file(u"b"_s)}),
                      CVFileNodeModel::Tree::Frozen);
        model.setExpanded(0, true);
        QCOMPARE(names(model), (QStringList{u"a"_s, u" deep"_s, u" 1"_s, u" 2"_s, u"b"_s}));
        QCOMPARE(model.parentRow(3), 0);
        model.setExpanded(1, true);
        QVERIFY(settle(model));
        QCOMPARE(names(model), (QStringList{u"a"_s, u" deep"_s, u"  x"_s, u" 1"_s, u" 2"_s, u"b"_s}));
        model.setExpanded(0, false);
        QCOMPARE(names(model), (QStringList{u"a"_s, u"b"_s}));
        // What was open in it is open again.
        model.setExpanded(0, true);
        QVERIFY(settle(model));
        QCOMPARE(names(model), (QStringList{u"a"_s, u" deep"_s, u"  x"_s, u" 1"_s, u" 2"_s, u"b"_s}));
        model.sort(0, Qt::DescendingOrder);
        QVERIFY(settle(model));
        QCOMPARE(names(model), (QStringList{u"a"_s, u" deep"_s, u"  x"_s, u" 2"_s, u" 1"_s, u"b"_s}));
        model.setExpanded(5, true);
        QCOMPARE(model.rowCount(), 6);
    }

    void searchGivesAFlatListWithFolders()
    {
        CVFileNodeModel model;
        const QAbstractItemModelTester tester(&model);
        model.setRoot(root({folder(u"Docs"_s, {file(u"Docs/report.txt"_s), file(u"Docs/other"_s)}),
                            file(u"REPORT 2"_s)}),
                      CVFileNodeModel::Tree::Frozen);
        model.setSearchText(u"report"_s);
        QVERIFY(settle(model));
        QCOMPARE(names(model), (QStringList{u"REPORT 2"_s, u"report.txt"_s}));
        QCOMPARE(model.index(1, 3).data().toString(), u"Docs"_s);
        model.setSearchText(u"nowhere"_s);
        QVERIFY(settle(model));
        QCOMPARE(model.rowCount(), 0);
        model.setSearchText({});
        QCOMPARE(names(model), (QStringList{u"Docs"_s, u"REPORT 2"_s}));
    }

    void onlyTheLastSearchCounts()
    {
        CVFileNodeModel model;
        model.setRoot(flatTree(true), CVFileNodeModel::Tree::Frozen);
        QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
        for (const QString &text : {u"d"_s, u"do"_s, u"doc"_s, u"document 7777"_s})
            model.setSearchText(text);
        QVERIFY(settle(model));
        QCOMPARE(model.rowCount(), many == 1'000'000 ? 111 : 11);
        QCOMPARE(resets.size(), 1);
    }

    void namesAreShownEscaped()
    {
        CVFileNodeModel model;
        model.setRoot(root({file(u"a\u202egpj.exe"_s), file(u"<b>bold"_s)}), CVFileNodeModel::Tree::Frozen);
        QVERIFY(names(model).contains(u"a\\u{202e}gpj.exe"_s));
        QVERIFY(!model.index(0, 0).data(Qt::ToolTipRole).toString().contains(u'<'));
    }

    void liveTreesMayLoseNodes()
    {
        auto tree = root({file(u"a"_s), file(u"b"_s)});
        CVFileNodeModel model;
        model.setRoot(tree, CVFileNodeModel::Tree::Live);
        tree->removeNode(tree->children().front());
        QCOMPARE(names(model), (QStringList{u"a"_s, u"b"_s}));
        model.setRoot(tree, CVFileNodeModel::Tree::Live);
        QCOMPARE(names(model), QStringList{u"b"_s});
    }

    void staysSwift_data()
    {
        QTest::addColumn<bool>("isDeep");
        QTest::newRow("flat") << false;
        QTest::newRow("in folders") << true;
    }
    void staysSwift()
    {
        QFETCH(bool, isDeep);
        CVFileNode::Pointer tree;
        if (!isDeep) {
            tree = flatTree(true);
        } else {
            tree = CVFileNode::create();
            auto above = tree;
            for (int level = 0; level < many / 1000; ++level) {
                auto next = folder(u"level %1"_s.arg(level));
                for (int i = 0; i < 1000; ++i)
                    next->appendChild(file(u"%1-%2"_s.arg(level).arg(i)));
                above->appendChild(next);
                above = next;
            }
        }
        CVFileNodeModel model;
        CVFileListView list(model);
        list.resize(600, 400);
        list.show();
        MainThreadWatch watch;
        const auto tell = [&](const char *what) {
            qInfo("%s: main thread kept waiting %.1f ms at most, %lld MB", what, watch.worstMilliseconds(),
                  residentMegabytes());
            watch.reset();
        };
        watch.reset();
        model.setRoot(tree, CVFileNodeModel::Tree::Frozen);
        tree.reset();
        QVERIFY(settle(model));
        QVERIFY(QTest::qWaitForWindowExposed(&list));
        tell("shown");
        if (isDeep) {
            for (int row = 0; row < 50; ++row) {
                model.setExpanded(row, true);
                QVERIFY(settle(model));
            }
            QVERIFY(model.rowCount() > 50'000);
            tell("opened 50 folders");
        } else {
            QCOMPARE(model.rowCount(), many);
            QCOMPARE(model.index(many - 1, 0).data().toString(), u"document %1.txt"_s.arg(many - 1));
        }
        for (int i = 0; i <= 50; ++i) {
            list.verticalScrollBar()->setValue(list.verticalScrollBar()->maximum() / 50 * i);
            QCoreApplication::processEvents();
        }
        QVERIFY(list.indexAt(QPoint(50, 50)).row() > model.rowCount() - 100);
        tell("scrolled");
        list.selectAll();
        QCoreApplication::processEvents();
        QCOMPARE(list.selectionModel()->selection().size(), 1);
        tell("selected all");
        for (int column = 2; column >= 0; --column) {
            model.sort(column, Qt::DescendingOrder);
            QVERIFY(settle(model));
            tell("sorted");
        }
        model.setSearchText(u"9-9"_s);
        QVERIFY(settle(model));
        tell("searched");
        model.setSearchText({});
        QVERIFY(settle(model));
        model.setRoot(nullptr, CVFileNodeModel::Tree::Frozen);
        QCoreApplication::processEvents();
        tell("closed");
    }

    void theGridLaysNothingOut()
    {
        CVFileNodeModel model;
        CVFileGridView grid(model);
        grid.resize(600, 400);
        grid.show();
        MainThreadWatch watch;
        watch.reset();
        model.setRoot(flatTree(false), CVFileNodeModel::Tree::Frozen);
        QVERIFY(settle(model));
        qInfo("made and shown: %.1f ms (with making the tree)", watch.worstMilliseconds());
        watch.reset();
        QTest::keyClick(&grid, Qt::Key_End);
        QCOMPARE(grid.currentIndex().row(), many - 1);
        QVERIFY(grid.viewport()->rect().intersects(grid.visualRect(grid.currentIndex())));
        QTest::keyClick(&grid, Qt::Key_Up);
        QCOMPARE(grid.currentIndex().row(), many - 1 - grid.columns());
        grid.resize(900, 500);
        for (int i = 50; i >= 0; --i) {
            grid.verticalScrollBar()->setValue(grid.verticalScrollBar()->maximum() / 50 * i);
            QCoreApplication::processEvents();
        }
        QCOMPARE(grid.indexAt(grid.visualRect(model.index(7, 0)).center()).row(), 7);
        QTest::keyClick(&grid, Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(grid.selectionModel()->selection().size(), 1);
        qInfo("grid: main thread kept waiting %.1f ms at most", watch.worstMilliseconds());
    }
};

QTEST_MAIN(TestFileNodeModel)
#include "tst_file_node_model.moc"

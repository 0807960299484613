// ctest-label: concurrency
// The table builder on real scans: which rows, in which order, with which
// nodes, and what the builder tells its delegate.
#include "KVNBuildTableOperation.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNOperationQueue.h"
#include "KVNTestTree.h"

#include <QTest>

#include <atomic>

namespace {

struct Listener : KVNBuildTableOperationDelegate {
    std::atomic<int> calls{0};
    std::atomic<bool> wholeTable{false};
    void buildTableOperation(KVNBuildTableOperation *, const std::vector<KVNDirDiffTableElementPtr> *rows) override
    {
        wholeTable = rows == nullptr;
        ++calls;
    }
};

struct Built {
    std::shared_ptr<KVNArrayController> controller = std::make_shared<KVNArrayController>();
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::vector<KVNDirDiffTableElementPtr> rows;
    QStringList paths;
};

Built build(const QByteArray &left, const QByteArray &right, bool cancelTable = false)
{
    Built built;
    KVNOperationQueue queue;
    auto scanLeft = KVNBuildTreeFastOperation::make(left);
    auto scanRight = KVNBuildTreeFastOperation::make(right);
    auto table = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, built.controller);
    table->setDelegate(built.listener);
    table->addDependency(scanLeft);
    table->addDependency(scanRight);
    if (cancelTable)
        table->cancel();
    queue.addOperations({scanLeft, scanRight, table});
    queue.waitUntilAllOperationsAreFinished();
    built.rows = built.controller->arrangedObjects();
    for (const auto &row : built.rows)
        built.paths << row->displayRelativePath();
    return built;
}

} // namespace

class TestTableBuilder : public QObject {
    Q_OBJECT

private slots:
    void emptyTreesGiveNoRowsButTell()
    {
        KVNTestTree left, right;
        auto built = build(left.root(), right.root());
        QVERIFY(built.rows.empty());
        QCOMPARE(built.listener->calls.load(), 1);
        QVERIFY(built.listener->wholeTable);
    }

    void preOrderWithSortedSiblings()
    {
        KVNTestTree left, right;
        left.file("b/2", "x");
        left.file("b/1", "x");
        right.file("A", "x");
        right.file("b/10", "x");
        left.file("c", "x");
        auto built = build(left.root(), right.root());
        QCOMPARE(built.paths, QStringList({"./A", "./b", "./b/1", "./b/10", "./b/2", "./c"}));
        auto b = built.rows[1];
        QCOMPARE(b->depthHint(), 1u);
        QCOMPARE(built.rows[2]->depthHint(), 2u);
        QCOMPARE(built.rows[2]->parentElement(), b);
        QVERIFY(!b->parentElement());
        QCOMPARE(b->childElements().size(), size_t(3));
        QVERIFY(!built.rows[0]->leftNode());
        QVERIFY(built.rows[0]->rightNode());
        // A directory on the left only: it and everything below have no right node.
        QVERIFY(!built.rows[3]->leftNode());
        QVERIFY(!built.rows[5]->rightNode());
        QVERIFY(!built.rows[5]->hasChildElements());
    }

    void fileAgainstDirectoryKeepsTheDirectorysChildren()
    {
        KVNTestTree left, right;
        left.file("x", "file");
        right.file("x/inner", "i");
        auto built = build(left.root(), right.root());
        QCOMPARE(built.paths, QStringList({"./x", "./x/inner"}));
        QVERIFY(built.rows[0]->leftNode() && built.rows[0]->rightNode());
        QVERIFY(!built.rows[1]->leftNode());
    }

    void caseTwinsShareTheLaterNode()
    {
        KVNTestTree left, right;
        left.file("Twin", "1");
        left.file("twin", "2");
        right.file("TWIN", "3");
        auto built = build(left.root(), right.root());
        // Both left names make a row, and both rows show the same pair.
        QCOMPARE(built.rows.size(), size_t(2));
        QCOMPARE(built.rows[0]->leftNode(), built.rows[1]->leftNode());
        QCOMPARE(built.rows[0]->rightNode(), built.rows[1]->rightNode());
        QCOMPARE(built.rows[0]->labelRight(), QStringLiteral("TWIN"));
    }

    void oneMissingTreeMakesSingles()
    {
        KVNTestTree right, parent;
        right.file("only/here", "x");
        auto built = build(parent.path("missing"), right.root());
        QCOMPARE(built.paths, QStringList({"./only", "./only/here"}));
        QVERIFY(!built.rows[0]->leftNode());
        auto none = build(parent.path("missing"), parent.path("missing-too"));
        QVERIFY(none.rows.empty());
        QCOMPARE(none.listener->calls.load(), 1);
    }

    void cancelledBeforeStartTellsNobody()
    {
        KVNTestTree left, right;
        left.file("a", "x");
        auto built = build(left.root(), right.root(), true);
        QVERIFY(built.rows.empty());
        QCOMPARE(built.listener->calls.load(), 0);
    }

    void bigTablesArriveWhole()
    {
        KVNTestTree left, right;
        for (int d = 0; d < 30; ++d)
            for (int f = 0; f < 100; ++f)
                (f % 2 ? left : right).file("d" + QByteArray::number(d) + "/f" + QByteArray::number(f), "x");
        auto built = build(left.root(), right.root());
        QCOMPARE(built.rows.size(), size_t(30 + 3000));
        // Each directory row is followed by its own children.
        for (std::size_t i = 0; i < built.rows.size(); ++i)
            if (built.rows[i]->depthHint() == 2)
                QCOMPARE(built.rows[i]->parentElement()->depthHint(), 1u);
    }
};

QTEST_GUILESS_MAIN(TestTableBuilder)
#include "tst_tablebuilder.moc"

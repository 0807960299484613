// ctest-label: concurrency
// The table builder on real scans: which rows, in which order, with which
// nodes, and what the builder tells its delegate.
#include "KVNBuildTableOperation.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNOperationQueue.h"
#include "KVNTestTree.h"

#include <QTest>

using Rows = std::vector<KVNDirDiffTableElementPtr>;

struct Built : KVNBuildTableOperationDelegate {
    std::vector<bool> told; // per call: whether it was for the whole table
    Rows rows;
    QStringList paths;
    void buildTableOperation(KVNBuildTableOperation *, const Rows *part) override { told.push_back(!part); }
};

static std::shared_ptr<Built> build(const QByteArray &left, const QByteArray &right, bool cancelTable = false)
{
    auto built = std::make_shared<Built>();
    auto controller = std::make_shared<KVNArrayController>();
    auto scanLeft = KVNBuildTreeFastOperation::make(left), scanRight = KVNBuildTreeFastOperation::make(right);
    auto table = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, controller);
    table->setDelegate(built);
    table->addDependency(scanLeft);
    table->addDependency(scanRight);
    if (cancelTable)
        table->cancel();
    KVNOperationQueue queue;
    queue.addOperations({scanLeft, scanRight, table});
    queue.waitUntilAllOperationsAreFinished();
    built->rows = controller->arrangedObjects();
    for (const auto &row : built->rows)
        built->paths << row->displayRelativePath();
    return built;
}

class TestTableBuilder : public QObject {
    Q_OBJECT

private slots:
    void preOrderWithSortedSiblings()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"<b/2", "<b/1", ">A", ">b/10", "<c", "<x", ">x/inner"});
        auto built = build(left.root(), right.root());
        QCOMPARE(built->paths, QStringList({"./A", "./b", "./b/1", "./b/10", "./b/2", "./c", "./x", "./x/inner"}));
        QCOMPARE(built->told, std::vector<bool>{true});
        const auto &rows = built->rows;
        QVERIFY(rows[1]->depthHint() == 1 && rows[2]->depthHint() == 2 && rows[2]->parentElement() == rows[1] &&
                !rows[1]->parentElement() && rows[1]->childElements().size() == 3);
        // Below a directory on one side only, rows have no node on the other.
        QVERIFY(!rows[0]->leftNode() && rows[0]->rightNode() && !rows[3]->leftNode());
        // A file against a directory keeps the directory's children.
        QVERIFY(!rows[5]->rightNode() && !rows[5]->hasChildElements() && rows[6]->leftNode() && rows[6]->rightNode() &&
                !rows[7]->leftNode());
    }

    void caseTwinsShareTheLaterNode()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"<Twin", "<twin", ">TWIN", ">Solo", ">SOLO", "<\xc3\x84rger", ">\xc3\xa4rger"});
        auto built = build(left.root(), right.root());
        // Both left names make a row, and both rows show the same pair; so do
        // two right names with no left one. Names that are not ASCII pair as
        // Unicode, and sort after the ASCII ones.
        const auto &rows = built->rows;
        QCOMPARE(rows.size(), size_t(5));
        for (const int first : {0, 2})
            QVERIFY(rows[first]->leftNode() == rows[first + 1]->leftNode() &&
                    rows[first]->rightNode() == rows[first + 1]->rightNode());
        QVERIFY(!rows[0]->leftNode() && rows[0]->rightNode());
        QCOMPARE(rows[4]->labelLeft() + '|' + rows[4]->labelRight(), QStringLiteral("\u00c4rger|\u00e4rger"));
        QCOMPARE(rows[2]->labelRight(), QStringLiteral("TWIN"));
    }

    void missingTreesAndCancellation()
    {
        KVNTestTree right, parent;
        right.file("only/here", "x");
        auto built = build(parent.path("missing"), right.root());
        QVERIFY(built->paths == QStringList({"./only", "./only/here"}) && !built->rows[0]->leftNode());
        // An empty table is still told; a cancelled build tells nothing.
        const auto empty = build(parent.path("missing"), parent.path("missing-too"));
        const auto cancelled = build(right.root(), parent.root(), true);
        QVERIFY(empty->rows.empty() && empty->told.size() == 1 && cancelled->rows.empty() && cancelled->told.empty());
    }
};

QTEST_GUILESS_MAIN(TestTableBuilder)
#include "tst_tablebuilder.moc"

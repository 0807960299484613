// Rows: one result read from two nodes, default directions when a result
// arrives, and a directory's direction summed from its children.
#include "KVNArrayController.h"
#include "KVNDirDiffTableElement.h"
#include "KVNNSArrayBatcher.h"

#include <QTest>

namespace {

KVNFileNodePtr fileNode(const QByteArray &path, int64_t mtime = 1700000000, bool directory = false)
{
    auto node = KVNFileNode::make("/base", path, nullptr, 1);
    KVNFileAttributes attrs;
    attrs.fileType = directory ? KVNFileType::Directory : KVNFileType::Regular;
    attrs.hasSize = !directory;
    attrs.modificationDate = {mtime, 0};
    node->setFileAttrs(attrs);
    return node;
}

// A directory row with the given children, linked both ways.
KVNDirDiffTableElementPtr directoryRow(const QByteArray &path, const std::vector<KVNDirDiffTableElementPtr> &children)
{
    auto row = KVNDirDiffTableElement::make(fileNode(path, 1700000000, true), fileNode(path, 1700000000, true));
    for (const auto &child : children) {
        child->setParentElement(row);
        row->addChildElement(child);
    }
    return row;
}

KVNDirDiffTableElementPtr fileRow(const QByteArray &path)
{
    return KVNDirDiffTableElement::make(fileNode(path), fileNode(path));
}

} // namespace

class TestTableElement : public QObject {
    Q_OBJECT

private slots:
    void resultFromTwoNodes_data()
    {
        QTest::addColumn<int>("left");
        QTest::addColumn<int>("right");
        QTest::addColumn<int>("row");
        QTest::newRow("0/2") << 0 << 2 << 2;
        QTest::newRow("2/0") << 2 << 0 << 2;
        QTest::newRow("5/2") << 5 << 2 << 5;
        QTest::newRow("2/5") << 2 << 5 << 5;
        QTest::newRow("3/2") << 3 << 2 << 0;
        QTest::newRow("1/2") << 1 << 2 << 0;
        QTest::newRow("4/4") << 4 << 4 << 4;
        QTest::newRow("only left") << 3 << -1 << 3;
        QTest::newRow("only right") << -1 << 1 << 1;
    }
    void resultFromTwoNodes()
    {
        QFETCH(int, left);
        QFETCH(int, right);
        QFETCH(int, row);
        auto l = left < 0 ? nullptr : fileNode("./x");
        auto r = right < 0 ? nullptr : fileNode("./x");
        if (l)
            l->setDiffResult(left);
        if (r)
            r->setDiffResult(right);
        QCOMPARE(KVNDirDiffTableElement::make(l, r)->diffResult(), row);
    }

    void defaultDirectionFollowsResult()
    {
        auto newerLeft = KVNDirDiffTableElement::make(fileNode("./a", 200), fileNode("./a", 100));
        newerLeft->leftNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(newerLeft->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        auto newerRight = KVNDirDiffTableElement::make(fileNode("./a", 100), fileNode("./a", 200));
        newerRight->rightNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(newerRight->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        auto equalDates = KVNDirDiffTableElement::make(fileNode("./a", 100), fileNode("./a", 100));
        equalDates->setMergeDirection(KVNMergeDirectionLeft);
        equalDates->leftNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(equalDates->mergeDirection(), uint64_t(KVNMergeDirectionNone));
        auto leftOnly = KVNDirDiffTableElement::make(fileNode("./a"), nullptr);
        leftOnly->leftNode()->setDiffResult(KVNDiffResultSingle);
        QCOMPARE(leftOnly->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        auto rightOnly = KVNDirDiffTableElement::make(nullptr, fileNode("./a"));
        rightOnly->rightNode()->setDiffResult(KVNDiffResultSingle);
        QCOMPARE(rightOnly->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        // A pair that became the same drops what the user staged.
        newerLeft->setMergeDirection(KVNMergeDirectionLeft);
        newerLeft->leftNode()->setDiffResult(KVNDiffResultSame);
        newerLeft->rightNode()->setDiffResult(KVNDiffResultSame);
        QCOMPARE(newerLeft->mergeDirection(), uint64_t(KVNMergeDirectionNone));
        // A node that left the row no longer drives it.
        auto old = newerRight->rightNode();
        newerRight->setRightNode(nullptr);
        newerRight->setMergeDirection(KVNMergeDirectionNone);
        old->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(newerRight->mergeDirection(), uint64_t(KVNMergeDirectionNone));
    }

    void directorySummary_data()
    {
        QTest::addColumn<QList<int>>("children");
        QTest::addColumn<int>("before");
        QTest::addColumn<int>("after");
        using L = QList<int>;
        QTest::newRow("left+none") << L{0, 2} << 2 << 4;
        QTest::newRow("right+none") << L{1, 2} << 2 << 5;
        QTest::newRow("left+right") << L{0, 1} << 2 << 3;
        QTest::newRow("children-both") << L{3, 2} << 2 << 3;
        QTest::newRow("cl+cr") << L{4, 5} << 2 << 3;
        QTest::newRow("all none") << L{2, 2} << 0 << 2;
        QTest::newRow("left+children-right keeps") << L{0, 5} << 1 << 1;
        QTest::newRow("right+children-left keeps") << L{1, 4} << 0 << 0;
        QTest::newRow("left+none+children-right keeps") << L{0, 2, 5} << 4 << 4;
        QTest::newRow("right+none+children-left") << L{1, 2, 4} << 0 << 5;
        QTest::newRow("left+none+children-left") << L{0, 2, 4} << 1 << 4;
        QTest::newRow("only left") << L{0} << 2 << 0;
        QTest::newRow("only right") << L{1} << 2 << 1;
        QTest::newRow("none+children-right") << L{2, 5} << 0 << 5;
    }
    void directorySummary()
    {
        QFETCH(QList<int>, children);
        QFETCH(int, before);
        QFETCH(int, after);
        // Children without a parent link, so that staging them does not climb.
        std::vector<KVNDirDiffTableElementPtr> rows;
        auto dir = directoryRow("./d", {});
        for (int i = 0; i < children.size(); ++i) {
            rows.push_back(fileRow("./d/f" + QByteArray::number(i)));
            dir->addChildElement(rows.back());
        }
        dir->setMergeDirection(uint64_t(before));
        QCOMPARE(int(dir->mergeDirection()), before);
        for (int i = 0; i < children.size(); ++i)
            rows[size_t(i)]->setMergeDirection(uint64_t(children[i]));
        QCOMPARE(int(dir->mergeDirection()), before);
        dir->updateMergeDirectionForDirectory();
        QCOMPARE(int(dir->mergeDirection()), after);
    }

    void summaryKeepsStagedValueWhereTheRuleSaysUnchanged()
    {
        auto a = fileRow("./d/a");
        auto b = fileRow("./d/b");
        auto dir = directoryRow("./d", {a, b});
        a->setMergeDirection(KVNMergeDirectionLeft);
        QCOMPARE(dir->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft)); // left + none
        b->setMergeDirection(KVNMergeDirectionChildrenRight);
        // left + children-right: the directory keeps what it had.
        QCOMPARE(dir->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft));
        // An empty directory keeps whatever was staged on it.
        auto empty = directoryRow("./e", {});
        empty->setMergeDirection(KVNMergeDirectionRight);
        QCOMPARE(empty->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    }

    void stagingADirectoryReachesEveryDescendant()
    {
        auto f1 = fileRow("./top/sub/f1");
        auto f2 = fileRow("./top/sub/f2");
        auto sub = directoryRow("./top/sub", {f1, f2});
        auto g = fileRow("./top/g");
        auto top = directoryRow("./top", {sub, g});
        auto other = fileRow("./other");
        auto root = directoryRow("./", {top, other});
        top->setMergeDirection(KVNMergeDirectionLeft);
        for (const auto &row : {f1, f2, sub, g, top})
            QCOMPARE(row->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        // The change climbs: the parent sums left and none.
        QCOMPARE(root->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft));
        f1->setMergeDirection(KVNMergeDirectionRight);
        QCOMPARE(sub->mergeDirection(), uint64_t(KVNMergeDirectionChildrenBoth));
        QCOMPARE(top->mergeDirection(), uint64_t(KVNMergeDirectionChildrenBoth));
        QCOMPARE(root->mergeDirection(), uint64_t(KVNMergeDirectionChildrenBoth));
    }

    void identityAndDescription()
    {
        auto a = KVNDirDiffTableElement::make(fileNode("./Dir/File"), nullptr);
        auto b = KVNDirDiffTableElement::make(nullptr, fileNode("./Dir/File"));
        auto c = KVNDirDiffTableElement::make(fileNode("./dir/file"), nullptr);
        QVERIFY(a->isEqual(*b));
        QVERIFY(!a->isEqual(*c)); // found by exact case, unlike the pairing
        const std::size_t hash = a->hash();
        a->setLeftNode(fileNode("./elsewhere"));
        QCOMPARE(a->hash(), hash); // worked out once
        a->setDepthHint(2);
        a->setMergeDirection(KVNMergeDirectionChildrenRight);
        QCOMPARE(a->description(), QStringLiteral("KVNDirDiffTableElement: depth: 2 left: ./elsewhere right N/A "
                                                  "rowLayerIndex 18446744073709551615 mergeDirection: children-right"));
        QVERIFY(a->labelRight().isNull());
        QCOMPARE(b->labelRight(), QStringLiteral("File"));
        QVERIFY(!KVNDirDiffTableElement::make(nullptr, nullptr)->isDirectory());
    }

    void batcherGrowsWithTheTable()
    {
        struct Counter : KVNNSArrayBatcherDelegate {
            std::vector<size_t> sizes;
            void arrayBatcher(KVNNSArrayBatcher *, const std::vector<KVNDirDiffTableElementPtr> &f) override
            {
                sizes.push_back(f.size());
            }
        } counter;
        auto controller = std::make_shared<KVNArrayController>();
        KVNNSArrayBatcher batcher(controller, 0.5);
        batcher.setDelegate(&counter);
        // The first row goes alone, as does the second; then half the table.
        batcher.addObjectToQueue(fileRow("./1"));
        QCOMPARE(controller->arrangedObjectsCount(), size_t(1));
        batcher.addObjectToQueue(fileRow("./2"));
        QCOMPARE(controller->arrangedObjectsCount(), size_t(2));
        for (int i = 3; i <= 10000; ++i)
            batcher.addObjectToQueue(fileRow("./" + QByteArray::number(i)));
        QCOMPARE(counter.sizes[0], size_t(1));
        QCOMPARE(counter.sizes[1], size_t(1));
        QCOMPARE(counter.sizes[2], size_t(2));
        QCOMPARE(*std::max_element(counter.sizes.begin(), counter.sizes.end()), size_t(1001));
        // The final flush sends the rest without telling the delegate.
        const size_t told = counter.sizes.size();
        batcher.flushQueue();
        QCOMPARE(counter.sizes.size(), told);
        QCOMPARE(controller->arrangedObjectsCount(), size_t(10000));
        auto rows = controller->arrangedObjects();
        QCOMPARE(rows.front()->relativePath(), QByteArray("./1"));
        QCOMPARE(rows.back()->relativePath(), QByteArray("./10000"));
    }
};

QTEST_GUILESS_MAIN(TestTableElement)
#include "tst_tableelement.moc"

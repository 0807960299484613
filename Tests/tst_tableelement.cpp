// ctest-label: concurrency
// Rows: one result read from two nodes, default directions when a result
// arrives, and a directory's direction summed from its children.
#include "KVNArrayController.h"
#include "KVNDirDiffTableElement.h"
#include "KVNNSArrayBatcher.h"

#include <QTest>

#include <thread>

namespace {

KVNFileNodePtr node(const QByteArray &path, int64_t mtime = 1700000000, bool directory = false)
{
    auto node = KVNFileNode::make("/base", path, nullptr, 1);
    KVNFileAttributes attrs;
    attrs.fileType = directory ? KVNFileType::Directory : KVNFileType::Regular;
    attrs.hasSize = !directory;
    attrs.modificationDate = {mtime, 0};
    node->setFileAttrs(attrs);
    return node;
}

KVNDirDiffTableElementPtr fileRow(const QByteArray &path)
{
    return KVNDirDiffTableElement::make(node(path), node(path));
}

// A directory row with the given children; linked both ways unless told.
KVNDirDiffTableElementPtr directoryRow(const QByteArray &path, const std::vector<KVNDirDiffTableElementPtr> &children,
                                       bool linkParents = true)
{
    auto row = KVNDirDiffTableElement::make(node(path, 1700000000, true), node(path, 1700000000, true));
    for (const auto &child : children) {
        if (linkParents)
            child->setParentElement(row);
        row->addChildElement(child);
    }
    return row;
}

} // namespace

class TestTableElement : public QObject {
    Q_OBJECT

private slots:
    void resultFromTwoNodes()
    {
        // left, right (-1: no node), and the row's result.
        const int cases[][3] = {{0, 2, 2}, {2, 0, 2}, {5, 2, 5},  {2, 5, 5}, {3, 2, 0},
                                {1, 2, 0}, {4, 4, 4}, {3, -1, 3}, {-1, 1, 1}};
        for (const auto &c : cases) {
            auto l = c[0] < 0 ? nullptr : node("./x");
            auto r = c[1] < 0 ? nullptr : node("./x");
            if (l)
                l->setDiffResult(c[0]);
            if (r)
                r->setDiffResult(c[1]);
            QCOMPARE(QString::number(c[0]) + '/' + QString::number(c[1]) + " -> " +
                         QString::number(KVNDirDiffTableElement::make(l, r)->diffResult()),
                     QString::number(c[0]) + '/' + QString::number(c[1]) + " -> " + QString::number(c[2]));
        }
    }

    void defaultDirectionFollowsResult()
    {
        auto newerLeft = KVNDirDiffTableElement::make(node("./a", 200), node("./a", 100));
        newerLeft->leftNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(newerLeft->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        auto newerRight = KVNDirDiffTableElement::make(node("./a", 100), node("./a", 200));
        newerRight->rightNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(newerRight->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        auto equalDates = KVNDirDiffTableElement::make(node("./a", 100), node("./a", 100));
        equalDates->setMergeDirection(KVNMergeDirectionLeft);
        equalDates->leftNode()->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(equalDates->mergeDirection(), uint64_t(KVNMergeDirectionNone));
        auto leftOnly = KVNDirDiffTableElement::make(node("./a"), nullptr);
        leftOnly->leftNode()->setDiffResult(KVNDiffResultSingle);
        QCOMPARE(leftOnly->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        auto rightOnly = KVNDirDiffTableElement::make(nullptr, node("./a"));
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
        // 0 left, 1 right, 2 none, 3 children-both, 4 children-left, 5 children-right;
        // "keeps": the rule leaves the directory as it was.
        QTest::newRow("left+none") << L{0, 2} << 2 << 4;
        QTest::newRow("right+none") << L{1, 2} << 2 << 5;
        QTest::newRow("left+right") << L{0, 1} << 2 << 3;
        QTest::newRow("cl+cr") << L{4, 5} << 2 << 3;
        QTest::newRow("all none") << L{2, 2} << 0 << 2;
        QTest::newRow("left+children-right keeps") << L{0, 5} << 1 << 1;
        QTest::newRow("right+none+children-left") << L{1, 2, 4} << 0 << 5;
        QTest::newRow("only left") << L{0} << 2 << 0;
        QTest::newRow("empty keeps") << L{} << 1 << 1;
    }
    void directorySummary()
    {
        QFETCH(QList<int>, children);
        QFETCH(int, before);
        QFETCH(int, after);
        // Children without a parent link, so that staging them does not climb.
        std::vector<KVNDirDiffTableElementPtr> rows;
        for (int i = 0; i < children.size(); ++i)
            rows.push_back(fileRow("./d/f" + QByteArray::number(i)));
        auto dir = directoryRow("./d", rows, false);
        dir->setMergeDirection(uint64_t(before));
        for (int i = 0; i < children.size(); ++i)
            rows[size_t(i)]->setMergeDirection(uint64_t(children[i]));
        QCOMPARE(int(dir->mergeDirection()), before);
        dir->updateMergeDirectionForDirectory();
        QCOMPARE(int(dir->mergeDirection()), after);
    }

    void stagingReachesDescendantsAndClimbs()
    {
        auto f1 = fileRow("./top/sub/f1"), f2 = fileRow("./top/sub/f2"), g = fileRow("./top/g");
        auto sub = directoryRow("./top/sub", {f1, f2});
        auto top = directoryRow("./top", {sub, g});
        auto root = directoryRow("./", {top, fileRow("./other")});
        top->setMergeDirection(KVNMergeDirectionLeft);
        for (const auto &row : {f1, f2, sub, g, top})
            QCOMPARE(row->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        QCOMPARE(root->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft)); // left and none
        f1->setMergeDirection(KVNMergeDirectionRight);
        for (const auto &row : {sub, top, root})
            QCOMPARE(row->mergeDirection(), uint64_t(KVNMergeDirectionChildrenBoth));
        // Where the rule says unchanged, a climbing change leaves what the directory had.
        auto a = fileRow("./d/a"), b = fileRow("./d/b");
        auto dir = directoryRow("./d", {a, b});
        a->setMergeDirection(KVNMergeDirectionLeft);
        QCOMPARE(dir->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft));
        b->setMergeDirection(KVNMergeDirectionChildrenRight);
        QCOMPARE(dir->mergeDirection(), uint64_t(KVNMergeDirectionChildrenLeft));
    }

    // A directory sums up its children from counts it keeps as they change,
    // are added and are removed: the counts must never drift from the list.
    void summaryFollowsTheChildrenItHasNow()
    {
        std::vector<KVNDirDiffTableElementPtr> rows;
        for (int i = 0; i < 2000; ++i)
            rows.push_back(fileRow("./wide/f" + QByteArray::number(i)));
        auto dir = directoryRow("./wide", rows, false);
        const auto summary = [&dir] {
            dir->updateMergeDirectionForDirectory();
            return dir->mergeDirection();
        };
        // Children change from several threads at once, each many times over.
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&rows, t] {
                for (int round = 0; round < 50; ++round)
                    for (std::size_t i = std::size_t(t); i < rows.size(); i += 4)
                        rows[i]->setMergeDirection(uint64_t((round + int(i)) % 6));
            });
        for (auto &thread : threads)
            thread.join();
        for (const auto &row : rows)
            row->setMergeDirection(KVNMergeDirectionNone);
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionNone));
        rows[7]->setMergeDirection(KVNMergeDirectionLeft);
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionChildrenLeft));
        // A removed child no longer counts, whatever it does afterwards.
        dir->removeChildElement(rows[7].get());
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionNone));
        rows[7]->setMergeDirection(KVNMergeDirectionRight);
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionNone));
        // An added child counts with the direction it brings and those it takes later.
        auto added = fileRow("./wide/new");
        added->setMergeDirection(KVNMergeDirectionRight);
        dir->addChildElement(added);
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionChildrenRight));
        added->setMergeDirection(KVNMergeDirectionNone);
        QCOMPARE(summary(), uint64_t(KVNMergeDirectionNone));
        // A child outlives its directory without reaching back into it.
        dir.reset();
        added->setMergeDirection(KVNMergeDirectionLeft);
        QCOMPARE(added->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    }

    void identityAndLabels()
    {
        auto a = KVNDirDiffTableElement::make(node("./Dir/File"), nullptr);
        auto b = KVNDirDiffTableElement::make(nullptr, node("./Dir/File"));
        QVERIFY(a->isEqual(*b));
        QVERIFY(!a->isEqual(*KVNDirDiffTableElement::make(node("./dir/file"), nullptr))); // exact case, unlike pairing
        const std::size_t hash = a->hash();
        a->setLeftNode(node("./elsewhere"));
        QCOMPARE(a->hash(), hash); // worked out once
        QVERIFY(a->labelRight().isNull());
        QCOMPARE(b->labelRight(), QStringLiteral("File"));
        QVERIFY(!KVNDirDiffTableElement::make(nullptr, nullptr)->isDirectory());
    }

    void ownershipOfCountedRows()
    {
        // A parent held only weakly goes with its last strong reference; the
        // child answers nil from then on and keeps working.
        auto child = fileRow("./d/f");
        auto dir = directoryRow("./d", {child});
        QCOMPARE(child->parentElement(), dir);
        dir.reset();
        QVERIFY(!child->parentElement());
        child->setMergeDirection(KVNMergeDirectionRight);
        QCOMPARE(child->mergeDirection(), uint64_t(KVNMergeDirectionRight));

        // A node that outlives its row tells nobody: the row is gone from its observers.
        auto left = node("./g");
        auto right = node("./g");
        {
            auto row = KVNDirDiffTableElement::make(left, right);
            left->setDiffResult(KVNDiffResultSingle);
            QCOMPARE(row->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        }
        left->setDiffResult(KVNDiffResultDiffer);
        right->setDiffResult(KVNDiffResultDiffer);

        // Copies, moves and comparisons keep one object and count it right.
        auto a = fileRow("./a");
        KVNDirDiffTableElementPtr b = a;
        KVNDirDiffTableElementPtr c = std::move(b);
        QVERIFY(!b && c == a && std::hash<KVNDirDiffTableElementPtr>()(c) == std::hash<KVNDirDiffTableElementPtr>()(a));
        c = nullptr;
        QVERIFY(a && a->relativePath() == "./a");
    }

    void parentsGoWhileChildrenClimb()
    {
        // Threads climb from children to a directory while the last strong
        // reference to that directory goes: each climb sees it whole or not at all.
        for (int round = 0; round < 50; ++round) {
            std::vector<KVNDirDiffTableElementPtr> children;
            for (int i = 0; i < 8; ++i)
                children.push_back(fileRow("./d/" + QByteArray::number(i)));
            auto dir = directoryRow("./d", children);
            std::atomic<bool> go{false};
            std::vector<std::thread> threads;
            for (const auto &child : children)
                threads.emplace_back([child, &go] {
                    while (!go.load())
                        std::this_thread::yield();
                    for (int i = 0; i < 200; ++i) {
                        child->setMergeDirection(uint64_t(i % 3));
                        if (auto parent = child->parentElement())
                            QVERIFY(parent->isDirectory());
                    }
                });
            go = true;
            dir.reset();
            for (auto &thread : threads)
                thread.join();
            for (const auto &child : children)
                QVERIFY(!child->parentElement());
        }
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
        QCOMPARE(std::vector<size_t>(counter.sizes.begin(), counter.sizes.begin() + 3), (std::vector<size_t>{1, 1, 2}));
        QCOMPARE(*std::max_element(counter.sizes.begin(), counter.sizes.end()), size_t(1001));
        // The final flush sends the rest without telling the delegate.
        const size_t told = counter.sizes.size();
        batcher.flushQueue();
        QCOMPARE(counter.sizes.size(), told);
        const auto rows = controller->arrangedObjects();
        QCOMPARE(rows.size(), size_t(10000));
        QCOMPARE(rows.front()->relativePath(), QByteArray("./1"));
        QCOMPARE(rows.back()->relativePath(), QByteArray("./10000"));
    }
};

QTEST_GUILESS_MAIN(TestTableElement)
#include "tst_tableelement.moc"

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
        for (const auto &[left, right, result] : cases) {
            auto l = left < 0 ? nullptr : node("./x");
            auto r = right < 0 ? nullptr : node("./x");
            if (l)
                l->setDiffResult(left);
            if (r)
                r->setDiffResult(right);
            QVERIFY2(KVNDirDiffTableElement::make(l, r)->diffResult() == result,
                     qPrintable(QString("%1/%2").arg(left).arg(right)));
        }
    }

    void defaultDirectionFollowsResult()
    {
        // Left and right dates (0: no node), staged, the result each node gets, and the direction.
        const int64_t cases[][5] = {{200, 100, 2, KVNDiffResultDiffer, KVNMergeDirectionRight},
                                    {100, 200, 2, KVNDiffResultDiffer, KVNMergeDirectionLeft},
                                    {100, 100, 0, KVNDiffResultDiffer, KVNMergeDirectionNone},
                                    {100, 0, 2, KVNDiffResultSingle, KVNMergeDirectionRight},
                                    {0, 100, 2, KVNDiffResultSingle, KVNMergeDirectionLeft},
                                    {200, 100, 0, KVNDiffResultSame, KVNMergeDirectionNone}}; // staging dropped
        for (const auto &[left, right, staged, result, direction] : cases) {
            auto row =
                KVNDirDiffTableElement::make(left ? node("./a", left) : nullptr, right ? node("./a", right) : nullptr);
            row->setMergeDirection(uint64_t(staged));
            for (const auto &side : {row->leftNode(), row->rightNode()})
                if (side)
                    side->setDiffResult(int(result));
            QCOMPARE(int64_t(row->mergeDirection()), direction);
        }
        // A node that left the row, or outlived it, no longer drives it.
        auto row = KVNDirDiffTableElement::make(node("./a", 100), node("./a", 200));
        auto old = row->rightNode();
        row->setRightNode(nullptr);
        old->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(row->mergeDirection(), uint64_t(KVNMergeDirectionNone));
        auto left = row->leftNode();
        row.reset();
        left->setDiffResult(KVNDiffResultSingle);
    }

    void directorySummary()
    {
        // Children's directions, the directory's before and after: 0 left, 1 right, 2 none,
        // 3 children-both, 4 children-left, 5 children-right; where before == after the rule keeps it.
        const std::tuple<QList<int>, int, int> cases[] = {{{0, 2}, 2, 4},    {{1, 2}, 2, 5}, {{0, 1}, 2, 3},
                                                          {{4, 5}, 2, 3},    {{2, 2}, 0, 2}, {{0, 5}, 1, 1},
                                                          {{1, 2, 4}, 0, 5}, {{0}, 2, 0},    {{}, 1, 1}};
        for (const auto &[children, before, after] : cases) {
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
        for (int i = 1; i <= 10000; ++i)
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

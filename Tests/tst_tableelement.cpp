// ctest-label: concurrency
// Rows: one result read from two nodes, default directions when a result
// arrives, and a directory's direction summed from its children.
#include "KVNDirDiffTableElement.h"

#include <QTest>

#include <thread>

static KVNFileNodePtr node(const QByteArray &path, int64_t mtime = 1700000000, bool directory = false)
{
    auto node = KVNFileNode::make("/base", path, nullptr, 1);
    node->setFileAttrs(
        KVNFileAttributes{directory ? KVNFileType::Directory : KVNFileType::Regular, !directory, 0, {mtime, 0}});
    return node;
}

static KVNDirDiffTableElementPtr fileRow(const QByteArray &path)
{
    return KVNDirDiffTableElement::make(node(path), node(path));
}

// A directory row with the given children; linked both ways unless told.
static KVNDirDiffTableElementPtr
directoryRow(const QByteArray &path, const std::vector<KVNDirDiffTableElementPtr> &children, bool linkParents = true)
{
    auto row = KVNDirDiffTableElement::make(node(path, 1700000000, true), node(path, 1700000000, true));
    for (const auto &child : children) {
        if (linkParents)
            child->setParentElement(row);
        row->addChildElement(child);
    }
    return row;
}

class TestTableElement : public QObject {
    Q_OBJECT

private slots:
    void resultFromTwoNodes()
    {
        // left, right (-1: no node), and the row's result.
        const int cases[][3] = {{0, 2, 2}, {2, 0, 2}, {5, 2, 5},  {2, 5, 5}, {3, 2, 0},
                                {1, 2, 0}, {4, 4, 4}, {3, -1, 3}, {-1, 1, 1}};
        for (const auto &[left, right, result] : cases) {
            auto l = node("./x"), r = node("./x");
            l->setDiffResult(left), r->setDiffResult(right);
            const auto row = KVNDirDiffTableElement::make(left < 0 ? nullptr : l, right < 0 ? nullptr : r);
            QVERIFY2(row->diffResult() == result, qPrintable(QString("%1/%2").arg(left).arg(right)));
        }
    }

    void defaultDirectionFollowsResult()
    {
        // Left and right dates (0: no node), staged, the result each node gets, and the direction.
        const int64_t cases[][5] = {{200, 100, 2, KVNDiffResultDiffer, KVNMergeDirectionRight},
                                    {100, 100, 0, KVNDiffResultDiffer, KVNMergeDirectionNone},
                                    {100, 0, 2, KVNDiffResultSingle, KVNMergeDirectionRight},
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
        const std::tuple<QList<int>, int, int> cases[] = {
            {{0, 2}, 2, 4}, {{0, 1}, 2, 3}, {{2, 2}, 0, 2}, {{0, 5}, 1, 1}, {{1, 2, 4}, 0, 5}, {{0}, 2, 0}, {{}, 1, 1}};
        for (const auto &[children, before, after] : cases) {
            // Children without a parent link, so that staging them does not climb.
            std::vector<KVNDirDiffTableElementPtr> rows;
            for (int i = 0; i < children.size(); ++i)
                rows.push_back(fileRow("./d/f" + QByteArray::number(i)));
            auto dir = directoryRow("./d", rows, false);
            dir->setMergeDirection(uint64_t(before));
            for (int i = 0; i < children.size(); ++i)
                rows[size_t(i)]->setMergeDirection(uint64_t(children[i]));
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

    // A directory sums up its children from counts it keeps as they change
    // and are removed: the counts must never drift from the list.
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
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&rows, t] {
                for (int round = 0; round < 50; ++round)
                    for (std::size_t i = std::size_t(t); i < rows.size(); i += 4)
                        rows[i]->setMergeDirection(uint64_t((round + int(i)) % 6));
            });
        threads.clear();
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
            std::vector<std::jthread> threads;
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
            threads.clear();
            for (const auto &child : children)
                QVERIFY(!child->parentElement());
        }
    }
};

QTEST_GUILESS_MAIN(TestTableElement)
#include "tst_tableelement.moc"

// ctest-label: concurrency
#include "KVNRescanProbe.h"

#include <QtTest>

namespace {

QStringList childPaths(const KVNDirDiffTableElementPtr &row)
{
    QStringList paths;
    for (const auto &child : row->childElements())
        paths << child->displayRelativePath();
    return paths;
}

} // namespace

class TestReconciliation : public QObject {
    Q_OBJECT

private slots:
    void changeOnOneSideKeepsTheRow_data()
    {
        QTest::addColumn<QByteArray>("entry");
        QTest::addColumn<QByteArray>("leftAfter"); // empty: deleted
        QTest::addColumn<qint64>("mtime");
        QTest::addColumn<bool>("recompared");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QString>("folder");
        QTest::addColumn<int>("direction");
        const auto add = [](const char *name, const char *entry, const char *leftAfter, qint64 mtime, bool recompared,
                            const char *result, const char *folder, int direction) {
            QTest::newRow(name) << QByteArray(entry) << QByteArray(leftAfter) << mtime << recompared << QString(result)
                                << QString(folder) << direction;
        };
        add("new contents", "=d/a", "yyyy", 1700001000, true, "2 2", "2 2", KVNMergeDirectionRight);
        add("same contents", "=d/a", "same", 1700001000, true, "1 1", "1 1", KVNMergeDirectionNone);
        // Change is judged by date: a new size under the old date goes unnoticed, the staged direction stays.
        add("new size, same date", "=d/a", "a great deal longer", 1700000000, false, "1 1", "1 1",
            KVNMergeDirectionLeft);
        add("deleted on the left", "=d/a", "", 0, false, "- 3", "3 3", KVNMergeDirectionLeft);
        add("created on the left, newer", ">d/a", "else", 1700000500, true, "2 2", "2 2", KVNMergeDirectionRight);
    }
    void changeOnOneSideKeepsTheRow()
    {
        QFETCH(QByteArray, entry);
        QFETCH(QByteArray, leftAfter);
        QFETCH(qint64, mtime);
        QFETCH(bool, recompared);
        QFETCH(QString, result);
        QFETCH(QString, folder);
        QFETCH(int, direction);
        KVNTestTree left, right;
        KVNFillTrees(left, right, {entry, "=d/b"});
        auto comparison = KVNTestComparison::run(left, right);
        auto a = comparison.row("./d/a");
        a->setMergeDirection(KVNMergeDirectionLeft);
        const auto leftNode = a->leftNode(), rightNode = a->rightNode();
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(a);

        leftAfter.isEmpty() ? left.remove("d/a") : left.file("d/a", leftAfter, mtime);
        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->recomparedFilePairCount(), std::size_t(recompared));
        // A node that stays keeps its observers; the new attributes move onto it.
        QCOMPARE(a->rightNode(), rightNode);
        QCOMPARE(bool(a->leftNode()), !leftAfter.isEmpty());
        if (leftNode && a->leftNode()) {
            QCOMPARE(a->leftNode(), leftNode);
            QCOMPARE(leftNode->modifiedDate()->seconds, int64_t(mtime));
            QCOMPARE(leftNode->spotlightItemFSSize(), std::optional<uint64_t>(recompared ? leftAfter.size() : 4));
            QCOMPARE(recorder->sawReset(leftNode), recompared);
        }
        QCOMPARE(recorder->sawReset(rightNode), recompared);
        QCOMPARE(KVNRowResults(a), result);
        QCOMPARE(int(a->mergeDirection()), direction);

        KVNRefreshAndReread(comparison);
        QCOMPARE(comparison.paths(), QStringList({"./d", "./d/a", "./d/b"}));
        QCOMPARE(comparison.row("./d/a"), a);
        QCOMPARE(KVNRowResults(comparison.row("./d")), folder);
    }

    void fileDeletedOnBothRemovesTheRow()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"~d/gone", "=d/keep"});
        left.setMtime("d", 1700000500);
        right.setMtime("d", 1700000500);
        auto comparison = KVNTestComparison::run(left, right);
        auto d = comparison.row("./d");
        QCOMPARE(KVNRowResults(d), "2 2");
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(d);

        left.remove("d/gone");
        right.remove("d/gone");
        // The folder's own date is put back: only the removal can send it for recompare.
        left.setMtime("d", 1700000500);
        right.setMtime("d", 1700000500);
        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->removedRowCount(), std::size_t(1));
        QCOMPARE(childPaths(d), QStringList({"./d/keep"}));
        // Compared again without a reset, the folder keeps its result until the refresh.
        for (const auto &node : {d->leftNode(), d->rightNode()})
            QVERIFY(!recorder->results(node).empty() && !recorder->sawReset(node));
        QCOMPARE(KVNRowResults(d), "2 2");

        KVNRefreshAndReread(comparison);
        QCOMPARE(comparison.paths(), QStringList({"./d", "./d/keep"}));
        QCOMPARE(KVNRowResults(d), "1 1");
    }

    void mixedChangesKeepTheOrderOfAFreshComparison()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=a/1", "=a/3", "=b/x/1", "=b/y", "=c", "=e/f/g", "<m/only"});
        left.file("r/Readme.txt", "same");
        right.file("r/readme.txt", "same");
        auto comparison = KVNTestComparison::run(left, right);
        auto readme = comparison.row("./r/Readme.txt");
        QCOMPARE(KVNRowResults(readme), "1 1");
        auto b = comparison.row("./b");
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(b);

        for (const char *path : {"a/3", "b/x"}) {
            left.remove(path);
            right.remove(path);
        }
        left.remove("m");
        KVNFillTrees(left, right, {"<a/2", ">a/0", "<b/w/deep/1", ">bb", "<e/f/G2"});
        // The left side gives a row its path: a case-only rename there makes a new row.
        left.rename("r/Readme.txt", "r/README.txt");
        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->removedRowCount(), std::size_t(6));
        QCOMPARE(reconcile->insertedRowCount(), std::size_t(8));
        // The folder's date changed with its entries: it is reset and compared again.
        QVERIFY(recorder->sawReset(b->leftNode()));
        KVNRefreshAndReread(comparison);
        QCOMPARE(comparison.paths(), KVNTestComparison::run(left, right).paths());
        // The outline differs only where new rows went to the end of their folder.
        QCOMPARE(childPaths(comparison.row("./a")), QStringList({"./a/1", "./a/0", "./a/2"}));
        QCOMPARE(childPaths(b), QStringList({"./b/y", "./b/w"}));
        QCOMPARE(KVNRowResults(comparison.row("./a/0")), "- 3");
        QCOMPARE(KVNRowResults(comparison.row("./b/w/deep/1")), "3 -");
        QCOMPARE(KVNRowResults(comparison.row("./bb")), "- 3");
        // New rows' directions reach the folder's summary through the parent they were given.
        QCOMPARE(KVNRowResults(b), "3 3");
        QCOMPARE(b->mergeDirection(), uint64_t(KVNMergeDirectionChildrenRight));
        // Below a new folder the parent is not in the old table: the row keeps its
        // place in the new folder's children but loses its parent reference...
        auto w = comparison.row("./b/w");
        QVERIFY(w->parentElement() == b && !comparison.row("./b/w/deep")->parentElement());
        QVERIFY(!comparison.row("./b/w/deep/1")->parentElement());
        QCOMPARE(childPaths(w), QStringList({"./b/w/deep"}));
        auto renamed = comparison.row("./r/README.txt");
        QVERIFY(renamed && renamed != readme && !comparison.row("./r/Readme.txt"));
        QCOMPARE(KVNRowResults(renamed), "1 1");
        QCOMPARE(childPaths(comparison.row("./r")), QStringList({"./r/README.txt"}));

        // ...so a later removal of that row cannot reach the folder's children.
        left.remove("b/w/deep");
        // On the right the path, and so the row, stays.
        right.rename("r/readme.txt", "r/READme.txt");
        comparison.update();
        QVERIFY(!comparison.row("./b/w/deep"));
        QCOMPARE(comparison.paths(), KVNTestComparison::run(left, right).paths());
        QCOMPARE(childPaths(w), QStringList({"./b/w/deep"}));
        QCOMPARE(comparison.row("./r/README.txt"), renamed);
    }
};

QTEST_GUILESS_MAIN(TestReconciliation)
#include "tst_reconciliation.moc"

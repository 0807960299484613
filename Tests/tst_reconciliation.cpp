// ctest-label: concurrency
#include "KVNRescanProbe.h"

#include <QtTest>

#include <functional>

namespace {

QStringList childPaths(const KVNDirDiffTableElementPtr &row)
{
    QStringList paths;
    for (const auto &child : row->childElements())
        paths << child->displayRelativePath();
    return paths;
}

// The rows as the outline shows them: top-level rows, each followed by its children.
QStringList outlineOrder(const std::vector<KVNDirDiffTableElementPtr> &rows)
{
    QStringList order;
    std::function<void(const KVNDirDiffTableElementPtr &)> walk = [&](const KVNDirDiffTableElementPtr &row) {
        order << row->displayRelativePath();
        for (const auto &child : row->childElements())
            walk(child);
    };
    for (const auto &row : rows)
        if (row->depthHint() == 1)
            walk(row);
    return order;
}

QStringList freshPaths(const KVNTestTree &left, const KVNTestTree &right)
{
    return KVNTestComparison::run(left, right).paths();
}

} // namespace

class TestReconciliation : public QObject {
    Q_OBJECT

private slots:
    void unchangedDiskTouchesOnlySingleRows()
    {
        // With nothing to recompare the merge still reports.
        auto probe = std::make_shared<KVNFinalProbe>();
        KVNOperationQueue queue;
        KVNDiffSourceArrayControllersOperation empty(nullptr, nullptr, &queue, probe);
        empty.scheduleRowsToRecompare({});
        QTRY_COMPARE_WITH_TIMEOUT(probe->completed(), 1, 10000);
        QVERIFY(probe->calledOnMainThread());

        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=same.txt", "=d/inner", "<d/lsub/x", "<lonly", ">ronly"});
        left.file("changed.txt", "left", 1700000100);
        right.file("changed.txt", "rite");
        auto comparison = KVNTestComparison::run(left, right);
        const auto rowsBefore = comparison.rows;
        std::map<QString, QString> resultsBefore;
        auto recorder = KVNResultRecorder::make();
        for (const auto &row : rowsBefore) {
            resultsBefore[row->displayRelativePath()] = KVNRowResults(row);
            recorder->watchRow(row);
        }
        // Staged by the user, against the defaults.
        comparison.row("./changed.txt")->setMergeDirection(KVNMergeDirectionLeft);
        comparison.row("./lonly")->setMergeDirection(KVNMergeDirectionLeft);
        comparison.row("./ronly")->setMergeDirection(KVNMergeDirectionRight);

        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->removedRowCount(), std::size_t(0));
        QCOMPARE(reconcile->insertedRowCount(), std::size_t(0));
        QCOMPARE(reconcile->recomparedFilePairCount(), std::size_t(0));
        for (const auto &row : rowsBefore) {
            // Single rows are set to 3 again at every rescan; nothing else is touched.
            const bool single = !row->leftNode() || !row->rightNode();
            for (const auto &node : {row->leftNode(), row->rightNode()})
                if (node)
                    QVERIFY2(recorder->results(node) ==
                                 (single ? std::vector<int32_t>{KVNDiffResultSingle} : std::vector<int32_t>{}),
                             qPrintable(row->displayRelativePath()));
        }
        // The staged file pair keeps its direction; the singles get their defaults back.
        QCOMPARE(comparison.row("./changed.txt")->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
        QCOMPARE(comparison.row("./lonly")->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        QCOMPARE(comparison.row("./ronly")->mergeDirection(), uint64_t(KVNMergeDirectionLeft));

        KVNRefreshAndReread(comparison);
        comparison.update(); // the document's own update path ends the same way
        QCOMPARE(comparison.document->completedRuns(), 2);
        QCOMPARE(comparison.rows, rowsBefore);
        for (const auto &row : comparison.rows)
            QCOMPARE(KVNRowResults(row), resultsBefore[row->displayRelativePath()]);
    }

    void dateChangeRecomparesTheRow_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<qint64>("mtime");
        QTest::addColumn<QString>("result");
        QTest::addColumn<int>("direction");
        QTest::newRow("new contents") << QByteArray("yyyy") << qint64(1700001000) << "2 2"
                                      << int(KVNMergeDirectionRight);
        QTest::newRow("same contents") << QByteArray("same") << qint64(1700001000) << "1 1"
                                       << int(KVNMergeDirectionNone);
        // Change is judged by date: a new size under the old date goes unnoticed, the staged direction stays.
        QTest::newRow("new size, same date")
            << QByteArray("a great deal longer") << qint64(1700000000) << "1 1" << int(KVNMergeDirectionLeft);
    }
    void dateChangeRecomparesTheRow()
    {
        QFETCH(QByteArray, contents);
        QFETCH(qint64, mtime);
        QFETCH(QString, result);
        QFETCH(int, direction);
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/a", "=d/b"});
        auto comparison = KVNTestComparison::run(left, right);
        auto a = comparison.row("./d/a");
        auto b = comparison.row("./d/b");
        a->setMergeDirection(KVNMergeDirectionLeft);
        const auto leftNode = a->leftNode();
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(a);
        recorder->watchRow(b);

        left.file("d/a", contents, mtime);
        const bool dated = mtime != 1700000000;
        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->recomparedFilePairCount(), std::size_t(dated));
        // The node stays, with its observers; the new attributes move onto it.
        QCOMPARE(a->leftNode(), leftNode);
        QCOMPARE(leftNode->modifiedDate()->seconds, int64_t(mtime));
        QCOMPARE(leftNode->spotlightItemFSSize(), std::optional<uint64_t>(dated ? contents.size() : 4));
        for (const auto &node : {a->leftNode(), a->rightNode()}) {
            const auto seen = recorder->results(node);
            QCOMPARE(seen.size() >= 2, dated);
            QCOMPARE(recorder->sawReset(node), dated);
        }
        QCOMPARE(KVNRowResults(a), result);
        QCOMPARE(int(a->mergeDirection()), direction);
        QVERIFY(recorder->results(b->leftNode()).empty() && recorder->results(b->rightNode()).empty());

        KVNRefreshAndReread(comparison);
        QCOMPARE(comparison.row("./d/a"), a);
        QCOMPARE(KVNRowResults(comparison.row("./d")), result);
    }

    void oneSidedChangeKeepsTheRow_data()
    {
        QTest::addColumn<bool>("leftBefore");
        QTest::addColumn<QByteArray>("leftAfter"); // empty: deleted
        QTest::addColumn<qint64>("mtime");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QString>("folder");
        QTest::addColumn<int>("direction");
        QTest::newRow("deleted on the left") << true << QByteArray() << qint64(0) << "- 3"
                                             << "3 3" << int(KVNMergeDirectionLeft);
        QTest::newRow("created on the left, same") << false << QByteArray("same") << qint64(1700000000) << "1 1"
                                                   << "1 1" << int(KVNMergeDirectionNone);
        QTest::newRow("created on the left, newer") << false << QByteArray("else") << qint64(1700000500) << "2 2"
                                                    << "2 2" << int(KVNMergeDirectionRight);
    }
    void oneSidedChangeKeepsTheRow()
    {
        QFETCH(bool, leftBefore);
        QFETCH(QByteArray, leftAfter);
        QFETCH(qint64, mtime);
        QFETCH(QString, result);
        QFETCH(QString, folder);
        QFETCH(int, direction);
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"<d/", leftBefore ? "=d/y" : ">d/y"});
        auto comparison = KVNTestComparison::run(left, right);
        auto y = comparison.row("./d/y");
        const auto rightNode = y->rightNode();
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(y);

        if (leftAfter.isEmpty())
            left.remove("d/y");
        else
            left.file("d/y", leftAfter, mtime);
        comparison.update();
        QCOMPARE(comparison.paths(), QStringList({"./d", "./d/y"}));
        QCOMPARE(comparison.row("./d/y"), y);
        QCOMPARE(y->rightNode(), rightNode);
        QCOMPARE(bool(y->leftNode()), !leftAfter.isEmpty());
        if (y->leftNode()) {
            QCOMPARE(y->leftNode()->relativePath(), QByteArray("./d/y"));
            QVERIFY(recorder->sawReset(rightNode));
        }
        QCOMPARE(KVNRowResults(y), result);
        QCOMPARE(int(y->mergeDirection()), direction);
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
        QCOMPARE(comparison.document->sourceArrayController()->arrangedObjects().size(), std::size_t(2));
        QCOMPARE(childPaths(d), QStringList({"./d/keep"}));
        // Compared again without a reset, the folder keeps its result until the refresh.
        for (const auto &node : {d->leftNode(), d->rightNode()})
            QVERIFY(!recorder->results(node).empty() && !recorder->sawReset(node));
        QCOMPARE(KVNRowResults(d), "2 2");

        KVNRefreshAndReread(comparison);
        QCOMPARE(comparison.paths(), QStringList({"./d", "./d/keep"}));
        QCOMPARE(KVNRowResults(d), "1 1");
    }

    void newRowsGoToTheEndOfTheirFolder()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/b", "=d/c"});
        auto comparison = KVNTestComparison::run(left, right);
        auto d = comparison.row("./d");
        auto recorder = KVNResultRecorder::make();
        recorder->watchRow(d);

        KVNFillTrees(left, right, {"<d/a", "<d/n/y", "<d/n/x", "<d/n/sub/z"});
        KVNReconcilePtr reconcile;
        KVNRescanUntilFinalReport(comparison, left, right, reconcile);
        QCOMPARE(reconcile->insertedRowCount(), std::size_t(6));
        // The folder's date changed with the new entries: it is reset and compared again.
        QVERIFY(recorder->sawReset(d->leftNode()));
        KVNRefreshAndReread(comparison);
        const QStringList added{"./d/a", "./d/n", "./d/n/sub", "./d/n/sub/z", "./d/n/x", "./d/n/y"};
        QCOMPARE(comparison.paths(), QStringList({"./d", "./d/a", "./d/b", "./d/c"}) + added.mid(1));
        QCOMPARE(comparison.paths(), freshPaths(left, right));
        // In the outline new rows stand at the end of their folder until a new comparison.
        QCOMPARE(outlineOrder(comparison.rows), QStringList({"./d", "./d/b", "./d/c"}) + added);
        for (const QString &path : added) {
            QCOMPARE(KVNRowResults(comparison.row(path)) + ' ' + path, "3 - " + path);
            QCOMPARE(comparison.row(path)->mergeDirection(), uint64_t(KVNMergeDirectionRight));
        }
        // Their directions reach the folder's summary through the parent they were given.
        QCOMPARE(KVNRowResults(d), "3 3");
        QCOMPARE(d->mergeDirection(), uint64_t(KVNMergeDirectionChildrenRight));
        auto n = comparison.row("./d/n");
        QVERIFY(comparison.row("./d/a")->parentElement() == d && n->parentElement() == d);
        // Below a new folder the parent is not in the old table: the row keeps its
        // place in the new folder's children but loses its parent reference...
        QVERIFY(!comparison.row("./d/n/x")->parentElement());
        QVERIFY(!comparison.row("./d/n/sub/z")->parentElement());
        QCOMPARE(childPaths(n), QStringList({"./d/n/sub", "./d/n/x", "./d/n/y"}));
        // ...so a later removal of that row cannot reach the folder's children.
        left.remove("d/n/x");
        comparison.update();
        QVERIFY(!comparison.row("./d/n/x"));
        QCOMPARE(comparison.paths(), freshPaths(left, right));
        QCOMPARE(childPaths(n), QStringList({"./d/n/sub", "./d/n/x", "./d/n/y"}));
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

        for (const char *path : {"a/3", "b/x"}) {
            left.remove(path);
            right.remove(path);
        }
        left.remove("m");
        KVNFillTrees(left, right, {"<a/2", ">a/0", "<b/w/deep/1", ">bb", "<e/f/G2"});
        // The left side gives a row its path: a case-only rename there makes a new row.
        left.rename("r/Readme.txt", "r/README.txt");
        comparison.update();
        QCOMPARE(comparison.paths(), freshPaths(left, right));
        // The outline differs only where new rows went to the end of their folder.
        QCOMPARE(childPaths(comparison.row("./a")), QStringList({"./a/1", "./a/0", "./a/2"}));
        QCOMPARE(childPaths(comparison.row("./b")), QStringList({"./b/y", "./b/w"}));
        QCOMPARE(KVNRowResults(comparison.row("./a/0")), "- 3");
        QCOMPARE(KVNRowResults(comparison.row("./b/w/deep/1")), "3 -");
        QCOMPARE(KVNRowResults(comparison.row("./bb")), "- 3");
        auto renamed = comparison.row("./r/README.txt");
        QVERIFY(renamed && renamed != readme && !comparison.row("./r/Readme.txt"));
        QCOMPARE(KVNRowResults(renamed), "1 1");
        QCOMPARE(childPaths(comparison.row("./r")), QStringList({"./r/README.txt"}));
        // On the right the path, and so the row, stays.
        right.rename("r/readme.txt", "r/READme.txt");
        comparison.update();
        QCOMPARE(comparison.row("./r/README.txt"), renamed);
    }
};

QTEST_GUILESS_MAIN(TestReconciliation)
#include "tst_reconciliation.moc"

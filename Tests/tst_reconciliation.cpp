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
    // Nothing changed on disk
    void unchangedDiskTouchesOnlySingleRows();
    void emptyRecompareSetStillReports();

    // Changed dates and sides
    void dateChangeRecomparesTheRow_data();
    void dateChangeRecomparesTheRow();
    void sizeChangeUnderSameDateGoesUnnoticed();
    void fileDeletedOnLeftKeepsTheRow();
    void fileCreatedOnLeftIsCompared_data();
    void fileCreatedOnLeftIsCompared();
    void fileDeletedOnBothRemovesTheRow();

    // New rows and the order of the table
    void newFileGoesToTheEndOfItsFolder();
    void newFolderRowsComeInPreOrder();
    void caseOnlyRenameReplacesTheRow();
    void mixedChangesKeepTheOrderOfAFreshComparison();
};

void TestReconciliation::unchangedDiskTouchesOnlySingleRows()
{
    KVNTestTree left, right;
    left.file("same.txt", "same");
    right.file("same.txt", "same");
    left.file("changed.txt", "left", 1700000100);
    right.file("changed.txt", "rite");
    left.file("d/inner", "same");
    right.file("d/inner", "same");
    left.file("d/lsub/x", "x");
    left.file("lonly", "l");
    right.file("ronly", "r");
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
    QVERIFY(reconcile);
    QCOMPARE(reconcile->removedRowCount(), std::size_t(0));
    QCOMPARE(reconcile->insertedRowCount(), std::size_t(0));
    QCOMPARE(reconcile->recomparedFilePairCount(), std::size_t(0));
    for (const auto &row : rowsBefore) {
        const QString path = row->displayRelativePath();
        const bool single = !row->leftNode() || !row->rightNode();
        for (const auto &node : {row->leftNode(), row->rightNode()}) {
            if (!node)
                continue;
            const auto seen = recorder->results(node);
            // Single rows are set to 3 again at every rescan; nothing else is touched.
            const std::vector<int32_t> expected =
                single ? std::vector<int32_t>{KVNDiffResultSingle} : std::vector<int32_t>{};
            QVERIFY2(seen == expected, qPrintable(path));
        }
    }
    QCOMPARE(comparison.row("./changed.txt")->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    QCOMPARE(comparison.row("./lonly")->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    QCOMPARE(comparison.row("./ronly")->mergeDirection(), uint64_t(KVNMergeDirectionLeft));

    KVNRefreshAndReread(comparison);
    QCOMPARE(comparison.rows, rowsBefore);
    for (const auto &row : comparison.rows)
        QCOMPARE(KVNRowResults(row), resultsBefore[row->displayRelativePath()]);
}

void TestReconciliation::emptyRecompareSetStillReports()
{
    auto probe = std::make_shared<KVNFinalProbe>();
    KVNOperationQueue queue;
    KVNDiffSourceArrayControllersOperation reconcile(nullptr, nullptr, &queue, probe);
    reconcile.scheduleRowsToRecompare({});
    QTRY_COMPARE_WITH_TIMEOUT(probe->completed(), 1, 10000);
    QVERIFY(probe->calledOnMainThread());

    // An update of unchanged pairs has nothing to recompare and still ends.
    KVNTestTree left, right;
    left.file("d/a", "a");
    right.file("d/a", "a");
    auto comparison = KVNTestComparison::run(left, right);
    const auto rowsBefore = comparison.rows;
    comparison.update();
    QCOMPARE(comparison.document->completedRuns(), 2);
    QCOMPARE(comparison.rows, rowsBefore);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "1 1");
}

void TestReconciliation::dateChangeRecomparesTheRow_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QString>("result");
    QTest::addColumn<int>("direction");
    QTest::newRow("new contents") << QByteArray("yyyy") << "2 2" << int(KVNMergeDirectionRight);
    QTest::newRow("same contents") << QByteArray("xxxx") << "1 1" << int(KVNMergeDirectionNone);
}

void TestReconciliation::dateChangeRecomparesTheRow()
{
    QFETCH(QByteArray, contents);
    QFETCH(QString, result);
    QFETCH(int, direction);
    KVNTestTree left, right;
    for (const char *path : {"d/a", "d/b"}) {
        left.file(path, "xxxx");
        right.file(path, "xxxx");
    }
    auto comparison = KVNTestComparison::run(left, right);
    auto a = comparison.row("./d/a");
    QCOMPARE(KVNRowResults(a), "1 1");
    a->setMergeDirection(KVNMergeDirectionLeft);
    const auto leftNode = a->leftNode();
    auto recorder = KVNResultRecorder::make();
    recorder->watchRow(a);
    recorder->watchRow(comparison.row("./d/b"));

    left.file("d/a", contents, 1700001000); // same size: only the date can tell
    KVNReconcilePtr reconcile;
    KVNRescanUntilFinalReport(comparison, left, right, reconcile);
    QCOMPARE(reconcile->recomparedFilePairCount(), std::size_t(1));
    // The node stays, with its observers; the new attributes move onto it.
    QCOMPARE(a->leftNode(), leftNode);
    QCOMPARE(leftNode->modifiedDate()->seconds, int64_t(1700001000));
    for (const auto &node : {a->leftNode(), a->rightNode()}) {
        const auto seen = recorder->results(node);
        QVERIFY(seen.size() >= 2);
        QCOMPARE(seen.front(), int32_t(KVNDiffResultUnknown));
    }
    QCOMPARE(KVNRowResults(a), result);
    QCOMPARE(int(a->mergeDirection()), direction);
    auto b = comparison.row("./d/b");
    QVERIFY(recorder->results(b->leftNode()).empty());
    QVERIFY(recorder->results(b->rightNode()).empty());

    KVNRefreshAndReread(comparison);
    QCOMPARE(comparison.row("./d/a"), a);
    QCOMPARE(KVNRowResults(comparison.row("./d")), result);
}

void TestReconciliation::sizeChangeUnderSameDateGoesUnnoticed()
{
    KVNTestTree left, right;
    left.file("d/a", "same");
    right.file("d/a", "same");
    auto comparison = KVNTestComparison::run(left, right);
    auto a = comparison.row("./d/a");
    auto recorder = KVNResultRecorder::make();
    recorder->watchRow(a);

    left.file("d/a", "a great deal longer than before"); // the same date as before
    comparison.update();
    QCOMPARE(comparison.row("./d/a"), a);
    QCOMPARE(KVNRowResults(a), "1 1");
    QCOMPARE(a->leftNode()->spotlightItemFSSize(), std::optional<uint64_t>(4));
    QVERIFY(recorder->results(a->leftNode()).empty());
    QVERIFY(recorder->results(a->rightNode()).empty());
}

void TestReconciliation::fileDeletedOnLeftKeepsTheRow()
{
    KVNTestTree left, right;
    for (const char *path : {"d/x", "d/y"}) {
        left.file(path, "same");
        right.file(path, "same");
    }
    auto comparison = KVNTestComparison::run(left, right);
    auto x = comparison.row("./d/x");
    const auto rightNode = x->rightNode();

    left.remove("d/x");
    comparison.update();
    QCOMPARE(comparison.row("./d/x"), x);
    QCOMPARE(comparison.paths(), QStringList({"./d", "./d/x", "./d/y"}));
    QVERIFY(!x->leftNode());
    QCOMPARE(x->rightNode(), rightNode);
    QCOMPARE(KVNRowResults(x), "- 3");
    QCOMPARE(x->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    QCOMPARE(KVNRowResults(comparison.row("./d")), "3 3");
}

void TestReconciliation::fileCreatedOnLeftIsCompared_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<qint64>("mtime");
    QTest::addColumn<QString>("result");
    QTest::addColumn<int>("direction");
    QTest::newRow("same file") << QByteArray("same") << qint64(1700000000) << "1 1" << int(KVNMergeDirectionNone);
    QTest::newRow("newer other file") << QByteArray("else") << qint64(1700000500) << "2 2"
                                      << int(KVNMergeDirectionRight);
}

void TestReconciliation::fileCreatedOnLeftIsCompared()
{
    QFETCH(QByteArray, contents);
    QFETCH(qint64, mtime);
    QFETCH(QString, result);
    QFETCH(int, direction);
    KVNTestTree left, right;
    left.dir("d");
    right.file("d/y", "same");
    auto comparison = KVNTestComparison::run(left, right);
    auto y = comparison.row("./d/y");
    QCOMPARE(KVNRowResults(y), "- 3");
    QCOMPARE(y->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    auto recorder = KVNResultRecorder::make();
    recorder->watchRow(y);

    left.file("d/y", contents, mtime);
    comparison.update();
    QCOMPARE(comparison.row("./d/y"), y);
    QVERIFY(y->leftNode());
    QCOMPARE(y->leftNode()->relativePath(), QByteArray("./d/y"));
    QVERIFY(recorder->sawReset(y->rightNode()));
    QCOMPARE(KVNRowResults(y), result);
    QCOMPARE(int(y->mergeDirection()), direction);
    QCOMPARE(KVNRowResults(comparison.row("./d")), result);
}

void TestReconciliation::fileDeletedOnBothRemovesTheRow()
{
    KVNTestTree left, right;
    left.file("d/gone", "left");
    right.file("d/gone", "rite");
    left.file("d/keep", "same");
    right.file("d/keep", "same");
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
    for (const auto &node : {d->leftNode(), d->rightNode()}) {
        QVERIFY(!recorder->results(node).empty());
        QVERIFY(!recorder->sawReset(node));
    }
    QCOMPARE(KVNRowResults(d), "2 2");

    KVNRefreshAndReread(comparison);
    QCOMPARE(comparison.paths(), QStringList({"./d", "./d/keep"}));
    QCOMPARE(KVNRowResults(d), "1 1");
}

void TestReconciliation::newFileGoesToTheEndOfItsFolder()
{
    KVNTestTree left, right;
    for (const char *path : {"d/b", "d/c"}) {
        left.file(path, "same");
        right.file(path, "same");
    }
    auto comparison = KVNTestComparison::run(left, right);
    auto d = comparison.row("./d");
    auto recorder = KVNResultRecorder::make();
    recorder->watchRow(d);

    left.file("d/a", "new");
    KVNReconcilePtr reconcile;
    KVNRescanUntilFinalReport(comparison, left, right, reconcile);
    QCOMPARE(reconcile->insertedRowCount(), std::size_t(1));
    // The folder's date changed with the new entry: it is reset and compared again.
    QVERIFY(recorder->sawReset(d->leftNode()));
    KVNRefreshAndReread(comparison);

    const QStringList fresh = freshPaths(left, right);
    QCOMPARE(fresh, QStringList({"./d", "./d/a", "./d/b", "./d/c"}));
    QCOMPARE(comparison.paths(), fresh);
    // In the outline the new row stands at the end of its folder until a new comparison.
    QCOMPARE(childPaths(d), QStringList({"./d/b", "./d/c", "./d/a"}));
    QCOMPARE(outlineOrder(comparison.rows), QStringList({"./d", "./d/b", "./d/c", "./d/a"}));
    auto a = comparison.row("./d/a");
    QCOMPARE(a->parentElement(), d);
    QCOMPARE(KVNRowResults(a), "3 -");
    QCOMPARE(KVNRowResults(d), "3 3");
    // Its direction reaches the folder's summary through the parent it was given.
    QCOMPARE(a->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    QCOMPARE(d->mergeDirection(), uint64_t(KVNMergeDirectionChildrenRight));
}

void TestReconciliation::newFolderRowsComeInPreOrder()
{
    KVNTestTree left, right;
    left.file("d/k", "same");
    right.file("d/k", "same");
    auto comparison = KVNTestComparison::run(left, right);
    auto d = comparison.row("./d");

    left.file("d/n/y", "y");
    left.file("d/n/x", "x");
    left.file("d/n/sub/z", "z");
    comparison.update();
    const QStringList fresh = freshPaths(left, right);
    QCOMPARE(fresh, QStringList({"./d", "./d/k", "./d/n", "./d/n/sub", "./d/n/sub/z", "./d/n/x", "./d/n/y"}));
    QCOMPARE(comparison.paths(), fresh);
    for (const char *path : {"./d/n", "./d/n/sub", "./d/n/sub/z", "./d/n/x", "./d/n/y"}) {
        QCOMPARE(KVNRowResults(comparison.row(path)) + ' ' + path, QStringLiteral("3 - ") + path);
        QCOMPARE(comparison.row(path)->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    }
    auto n = comparison.row("./d/n");
    auto x = comparison.row("./d/n/x");
    QCOMPARE(n->parentElement(), d);
    // Below a new folder the parent is not in the old table: the row keeps its
    // place in the new folder's children but loses its parent reference.
    QVERIFY(!x->parentElement());
    QVERIFY(!comparison.row("./d/n/sub/z")->parentElement());
    QCOMPARE(childPaths(n), QStringList({"./d/n/sub", "./d/n/x", "./d/n/y"}));

    // So a later removal of that row cannot reach the folder's children.
    left.remove("d/n/x");
    comparison.update();
    QVERIFY(!comparison.row("./d/n/x"));
    QCOMPARE(comparison.paths(), freshPaths(left, right));
    QCOMPARE(childPaths(n), QStringList({"./d/n/sub", "./d/n/x", "./d/n/y"}));
}

void TestReconciliation::caseOnlyRenameReplacesTheRow()
{
    KVNTestTree left, right;
    left.file("d/Readme.txt", "same");
    right.file("d/readme.txt", "same");
    auto comparison = KVNTestComparison::run(left, right);
    auto before = comparison.row("./d/Readme.txt");
    QCOMPARE(KVNRowResults(before), "1 1");

    // The left side gives the row its path: a new path is a new row.
    left.rename("d/Readme.txt", "d/README.txt");
    comparison.update();
    QVERIFY(!comparison.row("./d/Readme.txt"));
    auto after = comparison.row("./d/README.txt");
    QVERIFY(after);
    QVERIFY(after != before);
    QCOMPARE(KVNRowResults(after), "1 1");
    QCOMPARE(comparison.paths(), freshPaths(left, right));
    QCOMPARE(childPaths(comparison.row("./d")), QStringList({"./d/README.txt"}));

    // On the other side the path stays, and so does the row.
    right.rename("d/readme.txt", "d/READme.txt");
    comparison.update();
    QCOMPARE(comparison.row("./d/README.txt"), after);
    QCOMPARE(comparison.paths(), QStringList({"./d", "./d/README.txt"}));
}

void TestReconciliation::mixedChangesKeepTheOrderOfAFreshComparison()
{
    KVNTestTree left, right;
    for (const char *path : {"a/1", "a/3", "b/x/1", "b/y", "c", "e/f/g"}) {
        left.file(path, "same");
        right.file(path, "same");
    }
    left.file("m/only", "l");
    auto comparison = KVNTestComparison::run(left, right);

    left.remove("a/3");
    right.remove("a/3");
    left.file("a/2", "new");
    right.file("a/0", "new");
    left.remove("b/x");
    right.remove("b/x");
    left.file("b/w/deep/1", "new");
    right.file("bb", "new");
    left.remove("m");
    left.file("e/f/G2", "new");
    comparison.update();

    const QStringList fresh = freshPaths(left, right);
    QCOMPARE(comparison.paths(), fresh);
    // The outline differs only where new rows went to the end of their folder.
    QCOMPARE(childPaths(comparison.row("./a")), QStringList({"./a/1", "./a/0", "./a/2"}));
    QCOMPARE(childPaths(comparison.row("./b")), QStringList({"./b/y", "./b/w"}));
    QCOMPARE(KVNRowResults(comparison.row("./a/0")), "- 3");
    QCOMPARE(KVNRowResults(comparison.row("./b/w/deep/1")), "3 -");
    QCOMPARE(KVNRowResults(comparison.row("./bb")), "- 3");
}

QTEST_GUILESS_MAIN(TestReconciliation)
#include "tst_reconciliation.moc"

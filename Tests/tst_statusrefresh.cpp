// ctest-label: concurrency
#include "KVNOperationQueue.h"
#include "KVNPredicate.h"
#include "KVNRefreshProbe.h"
#include "KVNRefreshTableOperation.h"
#include "KVNTestTree.h"

#include <QtTest>

#include <optional>

namespace {

const QString kLogExclusion = QStringLiteral("spotlightItemFSName LIKE[c] \"*.log\"");

KVNPredicatePtr predicate(const QString &format)
{
    auto parsed = KVNPredicate::predicateWithFormat(format);
    if (!parsed)
        qFatal("malformed predicate in test: %s", qPrintable(format));
    return parsed;
}

// One refresh over rows, on a queue of its own, from the last row down as the
// document schedules it (an empty table passes the all-ones index).
void refresh(const std::vector<KVNDirDiffTableElementPtr> &rows, const KVNPredicatePtr &exclusion,
             const std::shared_ptr<KVNRefreshProbe> &probe = nullptr, std::optional<uint64_t> start = std::nullopt)
{
    auto operation =
        std::make_shared<KVNRefreshTableOperation>(exclusion, start ? *start : uint64_t(rows.size()) - 1, rows);
    if (probe)
        operation->setDelegate(probe);
    KVNOperationQueue queue;
    queue.addOperation(operation);
    queue.waitUntilAllOperationsAreFinished();
}

void setBoth(const KVNDirDiffTableElementPtr &row, int32_t result)
{
    QVERIFY(row);
    if (auto left = row->leftNode())
        left->setDiffResult(result);
    if (auto right = row->rightNode())
        right->setDiffResult(result);
}

QByteArray numbered(const char *prefix, int i)
{
    return prefix + QByteArray::number(i).rightJustified(3, '0');
}

// n identical files on both sides: n rows, all the same.
void flatPair(KVNTestTree &left, KVNTestTree &right, int n)
{
    for (int i = 0; i < n; ++i) {
        left.file(numbered("f", i), "same");
        right.file(numbered("f", i), "same");
    }
}

} // namespace

class TestStatusRefresh : public QObject {
    Q_OBJECT

private slots:
    // Reporting and the walk
    void emptyTableStillCompletes();
    void stepsGoBackwardsEveryHundredRows();
    void stepCount_data();
    void stepCount();
    void cancelStopsTheWalkButStillCompletes();
    void startingIndexBoundsTheWalk();

    // The roll-up
    void rollUpOfChildResults_data();
    void rollUpOfChildResults();
    void changedAndSingleChildrenGiveBoth();
    void childDirectoryIsFinalBeforeItsParent();
    void excludedChangeLeavesDirectorySame();
    void changingExclusionTouchesDirectoriesOnly();
    void excludedDirectoryKeepsItsResultAndDoesNotCount();
    void applicationsAreNotRolledUp();
    void directoriesOnOneSide();
    void mixedKindPairsFollowTheLeftNode();
};

void TestStatusRefresh::emptyTableStillCompletes()
{
    auto probe = std::make_shared<KVNRefreshProbe>();
    refresh({}, nullptr, probe);
    QCOMPARE(probe->completed(), 1);
    QVERIFY(probe->steps().empty());
    QVERIFY(probe->calledOffMainThread());

    // Two empty folders: a run with no rows still ends, by way of its refresh.
    KVNTestTree left, right;
    auto comparison = KVNTestComparison::run(left, right);
    QVERIFY(comparison.rows.empty());
    QCOMPARE(comparison.document->completedRuns(), 1);
}

void TestStatusRefresh::stepsGoBackwardsEveryHundredRows()
{
    KVNTestTree left, right;
    flatPair(left, right, 250);
    auto comparison = KVNTestComparison::run(left, right);
    const auto &rows = comparison.rows;
    QCOMPARE(rows.size(), std::size_t(250));

    auto probe = std::make_shared<KVNRefreshProbe>();
    refresh(rows, nullptr, probe);
    const auto steps = probe->steps();
    QCOMPARE(steps.size(), std::size_t(3));
    QCOMPARE(steps[0], rows[249]);
    QCOMPARE(steps[1], rows[149]);
    QCOMPARE(steps[2], rows[49]);
    QCOMPARE(probe->completed(), 1);
    QVERIFY(probe->calledOffMainThread());
}

void TestStatusRefresh::stepCount_data()
{
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("steps");
    QTest::newRow("one row") << 1 << 1;
    QTest::newRow("hundred rows") << 100 << 1;
    QTest::newRow("hundred and one rows") << 101 << 2;
    QTest::newRow("two hundred and one rows") << 201 << 3;
}

void TestStatusRefresh::stepCount()
{
    QFETCH(int, rows);
    QFETCH(int, steps);
    KVNTestTree left, right;
    flatPair(left, right, rows);
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(int(comparison.rows.size()), rows);

    auto probe = std::make_shared<KVNRefreshProbe>();
    refresh(comparison.rows, nullptr, probe);
    QCOMPARE(int(probe->steps().size()), steps);
    QCOMPARE(probe->completed(), 1);
}

void TestStatusRefresh::cancelStopsTheWalkButStillCompletes()
{
    // Five folders of 60 same files: 305 rows, folders at 0, 61, 122, 183, 244.
    KVNTestTree left, right;
    for (int d = 0; d < 5; ++d)
        for (int i = 0; i < 60; ++i) {
            const QByteArray path = numbered("d", d) + '/' + numbered("f", i);
            left.file(path, "same");
            right.file(path, "same");
        }
    auto comparison = KVNTestComparison::run(left, right);
    const auto &rows = comparison.rows;
    QCOMPARE(rows.size(), std::size_t(305));
    for (const auto &row : rows)
        if (row->isDirectory())
            setBoth(row, KVNDiffResultIncomplete); // a value the roll-up never gives

    // Cancelled at the second report: the rows from there down are not visited.
    auto probe = std::make_shared<KVNRefreshProbe>();
    probe->onStep = [](KVNRefreshTableOperation *operation, std::size_t step) {
        if (step == 1)
            operation->cancel();
    };
    refresh(rows, nullptr, probe);
    QCOMPARE(probe->steps().size(), std::size_t(2));
    QCOMPARE(probe->completed(), 1);
    const std::size_t lastVisited = rows.size() - 1 - KVNRefreshTableOperation::kStepInterval;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (!rows[i]->isDirectory())
            continue;
        const QString expected = i >= lastVisited ? QStringLiteral("1 1") : QStringLiteral("4 4");
        QCOMPARE(KVNRowResults(rows[i]) + ' ' + rows[i]->displayRelativePath(),
                 expected + ' ' + rows[i]->displayRelativePath());
    }
}

void TestStatusRefresh::startingIndexBoundsTheWalk()
{
    KVNTestTree left, right;
    for (const char *path : {"a/x", "b/x", "c/x"}) {
        left.file(path, "same");
        right.file(path, "same");
    }
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(comparison.paths(), QStringList({"./a", "./a/x", "./b", "./b/x", "./c", "./c/x"}));
    for (const char *path : {"./a", "./b", "./c"})
        setBoth(comparison.row(path), KVNDiffResultIncomplete);

    auto probe = std::make_shared<KVNRefreshProbe>();
    refresh(comparison.rows, nullptr, probe, 2); // from "./b" down
    QCOMPARE(KVNRowResults(comparison.row("./a")), "1 1");
    QCOMPARE(KVNRowResults(comparison.row("./b")), "1 1");
    QCOMPARE(KVNRowResults(comparison.row("./c")), "4 4");
    QCOMPARE(probe->steps().front(), comparison.row("./b"));
}

void TestStatusRefresh::rollUpOfChildResults_data()
{
    QTest::addColumn<int>("a");
    QTest::addColumn<int>("b");
    QTest::addColumn<int>("directory");
    // 0 (a stopped run), 1 and 4 report nothing; 2 and 3 mark, 5 marks both.
    QTest::newRow("unknown children") << 0 << 0 << 1;
    QTest::newRow("unknown and single") << 0 << 3 << 3;
    QTest::newRow("incomplete and same") << 4 << 1 << 1;
    QTest::newRow("differ and unknown") << 2 << 0 << 2;
    QTest::newRow("differ and single") << 2 << 3 << 5;
    QTest::newRow("both and same") << 5 << 1 << 5;
    QTest::newRow("single and incomplete") << 3 << 4 << 3;
}

void TestStatusRefresh::rollUpOfChildResults()
{
    QFETCH(int, a);
    QFETCH(int, b);
    QFETCH(int, directory);
    KVNTestTree left, right;
    for (const char *path : {"d/a", "d/b"}) {
        left.file(path, "same");
        right.file(path, "same");
    }
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "1 1");
    setBoth(comparison.row("./d/a"), a);
    setBoth(comparison.row("./d/b"), b);
    setBoth(comparison.row("./d"), KVNDiffResultIncomplete);

    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(comparison.row("./d")), QStringLiteral("%1 %1").arg(directory));
    // Files are never rolled up.
    QCOMPARE(KVNRowResults(comparison.row("./d/a")), QStringLiteral("%1 %1").arg(a));
    QCOMPARE(KVNRowResults(comparison.row("./d/b")), QStringLiteral("%1 %1").arg(b));
}

void TestStatusRefresh::changedAndSingleChildrenGiveBoth()
{
    KVNTestTree left, right;
    left.file("d/changed", "left");
    right.file("d/changed", "rite");
    left.file("d/lonly", "x");
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./d/changed")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./d/lonly")), "3 -");
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");

    setBoth(comparison.row("./d"), KVNDiffResultSame);
    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");
}

void TestStatusRefresh::childDirectoryIsFinalBeforeItsParent()
{
    KVNTestTree left, right;
    left.file("d/sub/changed", "left");
    right.file("d/sub/changed", "rite");
    left.file("d/sub/lonly", "x");
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./d/sub")), "5 5");
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");

    // With the child folder at a value that counts for nothing, its parent can
    // only come out 5 if the child was rolled up first.
    setBoth(comparison.row("./d/sub"), KVNDiffResultIncomplete);
    setBoth(comparison.row("./d"), KVNDiffResultIncomplete);
    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(comparison.row("./d/sub")), "5 5");
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");
}

void TestStatusRefresh::excludedChangeLeavesDirectorySame()
{
    KVNTestTree left, right;
    left.file("d/x.log", "left");
    right.file("d/x.log", "rite");
    left.file("d/same.txt", "same");
    right.file("d/same.txt", "same");
    auto comparison = KVNTestComparison::run(left, right, kLogExclusion);
    QCOMPARE(KVNRowResults(comparison.row("./d/x.log")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./d")), "1 1");

    auto plain = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(plain.row("./d")), "2 2");
}

void TestStatusRefresh::changingExclusionTouchesDirectoriesOnly()
{
    KVNTestTree left, right;
    left.file("d/x.log", "left");
    right.file("d/x.log", "rite");
    left.file("d/e/only.log", "x");
    left.file("d/e/same", "same");
    right.file("d/e/same", "same");
    left.file("top.log", "x");
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");
    QCOMPARE(KVNRowResults(comparison.row("./d/e")), "3 3");
    std::map<QString, QString> files;
    for (const auto &row : comparison.rows)
        if (!row->isDirectory())
            files[row->displayRelativePath()] = KVNRowResults(row);

    auto &document = *comparison.document;
    document.setExclusionPredicate(predicate(kLogExclusion));
    document.scheduleRefreshDiffStatus();
    KVNWaitUntilIdle(document);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "1 1");
    QCOMPARE(KVNRowResults(comparison.row("./d/e")), "1 1");
    for (const auto &[path, before] : files)
        QCOMPARE(KVNRowResults(comparison.row(path)) + ' ' + path, before + ' ' + path);

    document.setExclusionPredicate(nullptr);
    document.scheduleRefreshDiffStatus();
    KVNWaitUntilIdle(document);
    QCOMPARE(KVNRowResults(comparison.row("./d")), "5 5");
    QCOMPARE(KVNRowResults(comparison.row("./d/e")), "3 3");
    for (const auto &[path, before] : files)
        QCOMPARE(KVNRowResults(comparison.row(path)) + ' ' + path, before + ' ' + path);
}

void TestStatusRefresh::excludedDirectoryKeepsItsResultAndDoesNotCount()
{
    KVNTestTree left, right;
    left.file("p/skip.log/inner.txt", "left");
    right.file("p/skip.log/inner.txt", "rite");
    left.file("p/plain.txt", "same");
    right.file("p/plain.txt", "same");
    auto comparison = KVNTestComparison::run(left, right, kLogExclusion);
    QCOMPARE(KVNRowResults(comparison.row("./p/skip.log")), "2 2"); // from the folder comparison
    QCOMPARE(KVNRowResults(comparison.row("./p")), "1 1");

    // A value that would show in the parent if the folder counted, and that a
    // roll-up of the folder would replace by 2.
    setBoth(comparison.row("./p/skip.log"), KVNDiffResultSingle);
    refresh(comparison.rows, predicate(kLogExclusion));
    QCOMPARE(KVNRowResults(comparison.row("./p/skip.log")), "3 3");
    QCOMPARE(KVNRowResults(comparison.row("./p")), "1 1");

    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(comparison.row("./p/skip.log")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./p")), "2 2");
}

void TestStatusRefresh::applicationsAreNotRolledUp()
{
    KVNTestTree left, right;
    left.file("pa/Thing.app/Contents/bin", "left");
    right.file("pa/Thing.app/Contents/bin", "rite");
    left.file("pb/Thing.bundle/Contents/bin", "left");
    right.file("pb/Thing.bundle/Contents/bin", "rite");
    left.file("pc/Only.app/x", "x");
    right.dir("pc");
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./pa/Thing.app")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./pa")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./pb")), "2 2");
    // Nobody gives an application on one side a result, so its parent sees nothing.
    QCOMPARE(KVNRowResults(comparison.row("./pc/Only.app")), "0 -");
    QCOMPARE(KVNRowResults(comparison.row("./pc/Only.app/x")), "3 -");
    QCOMPARE(KVNRowResults(comparison.row("./pc")), "1 1");

    // The application keeps what it has and its parent takes that in; a bundle
    // that is not an application is rolled up like any folder.
    setBoth(comparison.row("./pa/Thing.app"), KVNDiffResultSingle);
    setBoth(comparison.row("./pb/Thing.bundle"), KVNDiffResultSingle);
    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(comparison.row("./pa/Thing.app")), "3 3");
    QCOMPARE(KVNRowResults(comparison.row("./pa/Thing.app/Contents")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./pa")), "3 3");
    QCOMPARE(KVNRowResults(comparison.row("./pb/Thing.bundle")), "2 2");
    QCOMPARE(KVNRowResults(comparison.row("./pb")), "2 2");
}

void TestStatusRefresh::directoriesOnOneSide()
{
    KVNTestTree left, right;
    left.file("onlyleft/a", "a");
    left.file("onlyleft/b/c", "c");
    left.dir("emptyleft");
    right.file("onlyright/x", "x");
    auto comparison = KVNTestComparison::run(left, right);
    QCOMPARE(KVNRowResults(comparison.row("./onlyleft")), "3 -");
    QCOMPARE(KVNRowResults(comparison.row("./onlyleft/b")), "3 -");
    QCOMPARE(KVNRowResults(comparison.row("./onlyright")), "- 3");
    // Nothing below it to report: an empty folder on one side is 1.
    QCOMPARE(KVNRowResults(comparison.row("./emptyleft")), "1 -");

    // The result reaches the row's observer, which gives the branch its direction.
    QCOMPARE(comparison.row("./onlyleft")->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    QCOMPARE(comparison.row("./onlyleft/b/c")->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    QCOMPARE(comparison.row("./onlyright")->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    QCOMPARE(comparison.row("./emptyleft")->mergeDirection(), uint64_t(KVNMergeDirectionNone));
}

void TestStatusRefresh::mixedKindPairsFollowTheLeftNode()
{
    KVNTestTree left, right;
    left.file("x/c", "c"); // folder on the left, file on the right
    right.file("x", "x");
    left.file("y", "y"); // file on the left, folder on the right
    right.file("y/c", "c");
    auto comparison = KVNTestComparison::run(left, right);
    auto x = comparison.row("./x");
    auto y = comparison.row("./y");
    QVERIFY(x && y);
    QVERIFY(x->isDirectory());
    QVERIFY(!y->isDirectory());
    QCOMPARE(KVNRowResults(x), "3 3"); // the right node is a file, and still gets the roll-up

    setBoth(x, KVNDiffResultIncomplete);
    setBoth(y, KVNDiffResultSame);
    refresh(comparison.rows, nullptr);
    QCOMPARE(KVNRowResults(x), "3 3");
    QCOMPARE(KVNRowResults(y), "1 1"); // its single child would have made it 3
}

QTEST_GUILESS_MAIN(TestStatusRefresh)
#include "tst_statusrefresh.moc"

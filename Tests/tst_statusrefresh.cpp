// ctest-label: concurrency
#include "KVNOperationQueue.h"
#include "KVNPredicate.h"
#include "KVNRefreshProbe.h"
#include "KVNRefreshTableOperation.h"
#include "KVNTestTree.h"

#include <QtTest>

namespace {

const QString kLogExclusion = QStringLiteral("spotlightItemFSName LIKE[c] \"*.log\"");

// One refresh over rows on a queue of its own, from the last row down as the document schedules it.
void refresh(const std::vector<KVNDirDiffTableElementPtr> &rows, const KVNPredicatePtr &exclusion,
             const std::shared_ptr<KVNRefreshProbe> &probe = nullptr, uint64_t start = ~uint64_t(0))
{
    auto operation = std::make_shared<KVNRefreshTableOperation>(exclusion, std::min(start, rows.size() - 1), rows);
    operation->setDelegate(probe);
    KVNOperationQueue queue;
    queue.addOperation(operation);
    queue.waitUntilAllOperationsAreFinished();
}

void setBoth(const KVNDirDiffTableElementPtr &row, int32_t result)
{
    QVERIFY(row);
    for (const auto &node : {row->leftNode(), row->rightNode()})
        if (node)
            node->setDiffResult(result);
}

// Every row's results, with its path, so that a mismatch names the row.
QStringList results(const KVNTestComparison &c)
{
    QStringList list;
    for (const auto &row : c.rows)
        list << row->displayRelativePath() + ' ' + KVNRowResults(row);
    return list;
}

// The list results() gave with some rows' results replaced.
QStringList with(QStringList list, std::initializer_list<const char *> rows)
{
    for (const char *row : rows)
        for (QString &entry : list)
            if (entry.section(u' ', 0, 0) == QString::fromLatin1(row).section(u' ', 0, 0))
                entry = QString::fromLatin1(row);
    return list;
}

} // namespace

class TestStatusRefresh : public QObject {
    Q_OBJECT

private slots:
    void cancelAndStartBoundTheWalk()
    {
        // Five folders of 60 files: 305 rows.
        KVNTestTree left, right;
        for (int d = 0; d < 5; ++d)
            for (int i = 0; i < 60; ++i)
                KVNFillTrees(left, right, {"=d" + QByteArray::number(d) + "/f" + QByteArray::number(100 + i)});
        auto comparison = KVNTestComparison::run(left, right);
        const auto &rows = comparison.rows;
        QCOMPARE(rows.size(), std::size_t(305));
        const std::size_t folders[] = {0, 61, 122, 183, 244};
        const auto folderResults = [&](const std::shared_ptr<KVNRefreshProbe> &probe, uint64_t start) {
            for (std::size_t i : folders)
                setBoth(rows[i], KVNDiffResultIncomplete); // a value the roll-up never gives
            refresh(rows, nullptr, probe, start);
            QStringList list;
            for (std::size_t i : folders)
                list << KVNRowResults(rows[i]);
            return list;
        };
        // Cancelled at the second report: the rows from there down are not visited.
        auto probe = std::make_shared<KVNRefreshProbe>();
        probe->onStep = [](KVNRefreshTableOperation *operation, std::size_t step) {
            if (step == 1)
                operation->cancel();
        };
        QCOMPARE(folderResults(probe, rows.size() - 1), QStringList({"4 4", "4 4", "4 4", "4 4", "1 1"}));
        QCOMPARE(probe->steps().size(), std::size_t(2));
        QCOMPARE(probe->completed(), 1);
        // Started part-way, the walk covers that row and those above it.
        QCOMPARE(folderResults(nullptr, 183), QStringList({"1 1", "1 1", "1 1", "1 1", "4 4"}));
    }

    // 0 (a stopped run), 1 and 4 report nothing; 2 and 3 mark, 5 marks both.
    void rollUpOfChildResults_data()
    {
        QTest::addColumn<int>("a");
        QTest::addColumn<int>("b");
        QTest::addColumn<int>("directory");
        for (const auto &[a, b, directory] :
             {std::array{0, 0, 1}, {0, 3, 3}, {4, 1, 1}, {2, 0, 2}, {2, 3, 5}, {5, 1, 5}, {3, 4, 3}})
            QTest::addRow("%d and %d", a, b) << a << b << directory;
    }
    void rollUpOfChildResults()
    {
        QFETCH(int, a);
        QFETCH(int, b);
        QFETCH(int, directory);
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/a", "=d/b"});
        auto comparison = KVNTestComparison::run(left, right);
        for (const auto &[path, result] : {std::pair{"./d/a", a}, {"./d/b", b}, {"./d", int(KVNDiffResultIncomplete)}})
            setBoth(comparison.row(path), result);
        refresh(comparison.rows, nullptr);
        // Files are never rolled up.
        QCOMPARE(results(comparison),
                 QStringList({QStringLiteral("./d %1 %1").arg(directory), QStringLiteral("./d/a %1 %1").arg(a),
                              QStringLiteral("./d/b %1 %1").arg(b)}));
    }

    void rollUpRecomputesEveryFolder()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right,
                     {"~d/sub/changed", "<d/sub/lonly", "~pa/Thing.app/Contents/bin", "~pb/Thing.bundle/Contents/bin",
                      "<pc/Only.app/x", ">pc/", "<onlyleft/b/c", "<emptyleft/", ">onlyright/x", "<x/c",
                      ">x",           // a folder on the left, a file on the right
                      "<y", ">y/c"}); // and the other way round
        auto comparison = KVNTestComparison::run(left, right);
        const QStringList afterRun = results(comparison);
        for (const char *row : {"./d 5 5", "./d/sub 5 5", "./pa 2 2", "./pa/Thing.app 2 2", "./pb 2 2",
                                // Nobody gives an application on one side a result, so its parent sees nothing.
                                "./pc 1 1", "./pc/Only.app 0 -", "./pc/Only.app/x 3 -", "./onlyleft 3 -",
                                "./onlyleft/b 3 -", "./onlyright - 3", "./emptyleft 1 -", "./x 3 3"})
            QVERIFY2(afterRun.contains(row), row);

        // Every folder at a value the roll-up never gives: a parent comes out right
        // only if its child folders were rolled up before it.
        for (const auto &row : comparison.rows)
            if (row->isDirectory() && !row->displayRelativePath().endsWith(QStringLiteral("Only.app")))
                setBoth(row, KVNDiffResultIncomplete);
        // An application keeps what it has and its parent takes that in; a bundle
        // that is not an application is rolled up like any folder.
        setBoth(comparison.row("./pa/Thing.app"), KVNDiffResultSingle);
        setBoth(comparison.row("./pb/Thing.bundle"), KVNDiffResultSingle);
        setBoth(comparison.row("./y"), KVNDiffResultSame); // a file on the left: its single child does not count
        refresh(comparison.rows, nullptr);
        QCOMPARE(results(comparison), with(afterRun, {"./pa 3 3", "./pa/Thing.app 3 3", "./y 1 1"}));
    }

    void exclusionIsLeftOutOfTheRollUp()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right,
                     {"~d/x.log", "<d/e/only.log", "=d/e/same", "<top.log", "~p/skip.log/inner.txt", "=p/plain.txt"});
        auto comparison = KVNTestComparison::run(left, right, kLogExclusion);
        const QStringList excluded = results(comparison);
        // Excluded items are still compared; only their folders leave them out.
        for (const char *row : {"./d 1 1", "./d/e 1 1", "./d/x.log 2 2", "./p 1 1", "./p/skip.log 2 2"})
            QVERIFY2(excluded.contains(row), row);

        // An excluded folder keeps its result, whatever it is, and does not count.
        setBoth(comparison.row("./p/skip.log"), KVNDiffResultSingle);
        refresh(comparison.rows, KVNPredicate::predicateWithFormat(kLogExclusion));
        QCOMPARE(results(comparison), with(excluded, {"./p/skip.log 3 3"}));

        // A new exclusion changes folders only.
        comparison.document->setExclusionPredicate(nullptr);
        comparison.document->scheduleRefreshDiffStatus();
        KVNWaitUntilIdle(*comparison.document);
        QCOMPARE(results(comparison), with(excluded, {"./d 5 5", "./d/e 3 3", "./p 2 2"}));
    }
};

QTEST_GUILESS_MAIN(TestStatusRefresh)
#include "tst_statusrefresh.moc"

// ctest-label: concurrency
// Whole comparisons of real trees: what every node and row ends with, the
// default merge directions, and the order of the rows.
#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNCompareTreeOperation.h"
#include "KVNDiffResult.h"
#include "KVNMergeDirection.h"
#include "KVNTestTree.h"

#include <QTest>

#include <atomic>
#include <mutex>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// "left right row direction", with "-" for a missing node.
QString describe(const KVNDirDiffTableElementPtr &row)
{
    if (!row)
        return QStringLiteral("no row");
    auto side = [](const KVNFileNodePtr &node) { return node ? QString::number(node->diffResult()) : "-"; };
    return side(row->leftNode()) + ' ' + side(row->rightNode()) + ' ' + QString::number(row->diffResult()) + ' ' +
           QString::fromLatin1(KVNMergeDirectionWord(row->mergeDirection()));
}

// Two trees of a few hundred pairs and what each node must end with after the
// second stage alone (no status refresh). Directories get 2 or 1 from the pairs
// below them, which only holds if every file pair was decided first; a single
// marked afterwards turns a 2 above it into 5, and a 5 climbs.
struct WindowTrees {
    KVNTestTree left, right;
    std::map<QByteArray, int32_t> leftExpected, rightExpected; // by relative path
    int filePairs = 0, dirPairs = 0;

    WindowTrees()
    {
        for (int d = 0; d < 24; ++d) {
            const QByteArray dir = "d" + QByteArray::number(d);
            const QByteArray sub = d % 5 == 0 ? "/sub" : "";
            bool differs = false, leftSingle = false, rightSingle = false;
            for (int f = 0; f < 20; ++f) {
                const QByteArray path = dir + sub + "/f" + QByteArray::number(f);
                char kind = '=';
                if (d % 4 == 1 || d % 4 == 2)
                    kind = f % 7 == 3 ? '~' : kind;
                if (d % 4 == 2 || d % 4 == 3)
                    kind = f % 9 == 4 ? '<' : kind;
                if (d % 4 == 2)
                    kind = f % 13 == 6 ? '>' : kind;
                KVNFillTrees(left, right, {kind + path});
                if (kind == '<' || kind == '>') {
                    (kind == '<' ? leftExpected : rightExpected)[path] = KVNDiffResultSingle;
                    (kind == '<' ? leftSingle : rightSingle) = true;
                    continue;
                }
                differs = differs || kind == '~';
                leftExpected[path] = rightExpected[path] = kind == '~' ? KVNDiffResultDiffer : KVNDiffResultSame;
                ++filePairs;
            }
            const auto result = [differs](bool single) {
                return !differs ? KVNDiffResultSame : single ? KVNDiffResultDifferSingle : KVNDiffResultDiffer;
            };
            QList<QByteArray> dirs{dir};
            if (!sub.isEmpty())
                dirs << dir + sub;
            for (const QByteArray &path : dirs) {
                leftExpected[path] = result(leftSingle);
                rightExpected[path] = result(rightSingle);
                ++dirPairs;
            }
        }
    }
};

// The scans and the second stage of a comparison, run by hand on a queue of
// its own with a small window, watching what the queue goes through.
class WindowedRun {
public:
    struct Delegate : KVNFinalOperationDelegate {
        std::atomic<int> calls{0};
        void completedFinalOperation(KVNFinalOperation *) override { ++calls; }
    };
    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    KVNBuildTreeFastOperationPtr left, right;
    std::shared_ptr<KVNCompareTreeOperation> tree;
    std::atomic<int> fileOperations{0}, dirOperations{0};
    std::function<void(KVNOperationQueue &, int)> onFileOperation; // with the count of those started
    std::mutex mutex;
    std::size_t mostLive = 0;            // the queue's count as compare operations start
    std::atomic<int> starts{0}, ends{0}; // of the queue's count, from and to zero
    QString seen;                        // every change told, under the mutex
    KVNOperationQueue queue;             // last: it goes first, waiting for its workers

    WindowedRun(const WindowTrees &trees, std::size_t window, int width)
    {
        queue.setMaxConcurrentOperationCount(width);
        queue.setOperationCountObserver([this](std::size_t now, std::size_t old) {
            std::lock_guard lock(mutex);
            starts += old == 0 && now > 0;
            ends += now == 0;
            seen += QStringLiteral(" %1<-%2").arg(now).arg(old);
        });
        queue.setOperationRunObserver([this](const KVNOperation &operation, bool started) {
            if (!started)
                return;
            const bool file = dynamic_cast<const KVNCompareFileOperation *>(&operation);
            if (!file && !dynamic_cast<const KVNCompareDirOperation *>(&operation))
                return;
            {
                std::lock_guard lock(mutex);
                mostLive = std::max(mostLive, queue.operationCount());
            }
            if (!file)
                ++dirOperations;
            else if (const int started = ++fileOperations; onFileOperation)
                onFileOperation(queue, started);
        });
        left = KVNBuildTreeFastOperation::make(trees.left.root());
        right = KVNBuildTreeFastOperation::make(trees.right.root());
        tree = std::make_shared<KVNCompareTreeOperation>(left, right, &queue, delegate);
        tree->setWindow(window);
        tree->addDependency(left);
        tree->addDependency(right);
    }

    QString history()
    {
        std::lock_guard lock(mutex);
        return seen;
    }

    void run()
    {
        queue.addOperations({tree, left, right}); // waiting first: the count cannot touch zero in between
        queue.waitUntilAllOperationsAreFinished();
        QCoreApplication::processEvents(); // the final report, if any, is posted
    }

    // Every node of one side whose result is not the expected one, as "path: got".
    static QStringList mismatches(const KVNBuildTreeFastOperationPtr &scan,
                                  const std::map<QByteArray, int32_t> &expected)
    {
        QStringList wrong;
        for (const KVNFileNodePtr &node : *scan->fileTree()->relativeLookupDict()) {
            QByteArray path = node->relativePath();
            if (path.startsWith("./"))
                path = path.mid(2);
            const auto it = expected.find(path);
            const int32_t want = it == expected.end() ? -1 : it->second;
            if (node->diffResult() != want)
                wrong << QString::fromUtf8(path + ": " + QByteArray::number(node->diffResult()));
        }
        return wrong;
    }
    // How many nodes of one side carry a result.
    static int decided(const KVNBuildTreeFastOperationPtr &scan)
    {
        int count = 0;
        for (const KVNFileNodePtr &node : *scan->fileTree()->relativeLookupDict())
            count += node->diffResult() != KVNDiffResultUnknown;
        return count;
    }
};

} // namespace

class TestComparePipeline : public QObject {
    Q_OBJECT

    // One comparison of trees that hold every kind of pair, shared by the rows of pairs().
    KVNTestTree left_, right_;
    KVNTestComparison c_;

private slots:
    void initTestCase();
    void pairs_data();
    void pairs();
    void orderNamesAndLinks();
    void deepAndWideTrees();
    void unreadableItemsForAnotherUser();
    void windowedRunDecidesEveryPair_data();
    void windowedRunDecidesEveryPair();
    void cancelWhileFeedingEndsTheRun_data();
    void cancelWhileFeedingEndsTheRun();
};

void TestComparePipeline::initTestCase()
{
    KVNTestTree &left = left_, &right = right_;
    const QByteArray page(4096, 'p');
    // Regular files: contents decide; equal contents under other dates are the
    // same, and for different contents the newer side wins the direction.
    const struct {
        const char *name;
        QByteArray left, right;
        int64_t leftTime, rightTime;
    } files[] = {
        {"f/empty-both", "", "", 1700000000, 1700000000},
        {"f/empty-vs-full", "", "x", 1700000000, 1700000000},
        {"f/page-plus", page + 'z', page + 'z', 1700000000, 1700000000},
        {"f/page-vs-plus", page, page + 'z', 1700000000, 1700000000},
        {"f/prefix", "abc", "abcd", 1700000000, 1700000000},
        {"f/late-change", QByteArray(3 * 4096, 'a') + "b", QByteArray(3 * 4096, 'a') + "c", 1700000000, 1700000000},
        {"f/dates-differ", "same", "same", 1700000000, 1800000000},
        {"f/newer-left", "one", "two", 1800000000, 1700000000},
        {"f/newer-right", "one", "two", 1700000000, 1800000000},
    };
    for (const auto &f : files) {
        left.file(f.name, f.left, f.leftTime);
        right.file(f.name, f.right, f.rightTime);
    }
    // Links are leaves compared by their own date when the left one is a link;
    // a regular file on the left is read, through a link on the right.
    KVNFillTrees(left, right, {"=l/target-a", "=l/target-b", "=l/real-dir/inside"});
    left.symlink("l/same-date", "target-a", 1700000000);
    right.symlink("l/same-date", "target-b", 1700000000);
    left.symlink("l/other-date", "target-a", 1700000000);
    right.symlink("l/other-date", "target-a", 1700000500);
    left.symlink("l/link-vs-file", "target-a", 1700000000);
    right.file("l/link-vs-file", "whatever", 1700000000);
    left.file("l/file-vs-link", "same");
    right.symlink("l/file-vs-link", "target-a");
    left.file("l/file-vs-broken", "A"); // a broken link cannot be opened: both sides end single
    right.symlink("l/file-vs-broken", "nowhere");
    left.symlink("l/dir-link", "real-dir");
    right.symlink("l/dir-link", "real-dir");
    // A left file against a right directory is a file pair that reads a
    // directory; the directory's single children lift its node to 5. An empty
    // left file against a directory is the same: a quirk kept on purpose.
    left.file("x", "contents", 1800000000);
    right.file("x/y", "y");
    right.setMtime("x", 1700000000);
    left.file("e");
    KVNFillTrees(left, right, {">e/", "<d/f", ">d"});
    // Directories roll up their children.
    KVNFillTrees(left, right,
                 {"~changed/f", "=extra/common", "<extra/only-left", "~mixed/f", "<mixed/only-left", "=empty/",
                  "<one-sided/a/b", "<one-sided-empty/", "~nested/inner/f", ">nested/inner/new"});
    c_ = KVNTestComparison::run(left, right);
}

void TestComparePipeline::pairs_data()
{
    QTest::addColumn<QString>("expected");
    const char *const rows[][2] = {
        {"f/empty-both", "1 1 1 none"},
        {"f/empty-vs-full", "2 2 2 none"},
        {"f/page-plus", "1 1 1 none"},
        {"f/page-vs-plus", "2 2 2 none"},
        {"f/prefix", "2 2 2 none"},
        {"f/late-change", "2 2 2 none"},
        {"f/dates-differ", "1 1 1 none"},
        {"f/newer-left", "2 2 2 right"},
        {"f/newer-right", "2 2 2 left"},
        {"l/same-date", "1 1 1 none"}, // other targets, same date
        {"l/other-date", "2 2 2 left"},
        {"l/link-vs-file", "1 1 1 none"},
        {"l/file-vs-link", "1 1 1 none"},
        {"l/file-vs-broken", "3 3 3 right"},
        {"l/dir-link", "1 1 1 none"},
        {"x", "2 5 5 right"},
        {"x/y", "- 3 3 left"},
        {"e", "1 1 1 none"},
        {"d", "3 3 3 right"}, // a left directory against a right file: its children roll it up
        {"d/f", "3 - 3 right"},
        {"changed", "2 2 2 none"},
        {"extra", "3 3 3 children-right"}, // a directory's direction sums its children's
        {"extra/only-left", "3 - 3 right"},
        {"mixed", "5 5 5 children-right"},
        {"empty", "1 1 1 none"},
        {"one-sided", "3 - 3 right"},
        {"one-sided/a", "3 - 3 right"},
        {"one-sided-empty", "1 - 1 none"}, // nothing below it to report
        {"nested/inner", "5 5 5 children-left"},
        {"nested", "5 5 5 children-left"},
    };
    for (const auto &row : rows)
        QTest::newRow(row[0]) << QStringLiteral("./%1 %2").arg(row[0], row[1]);
}

void TestComparePipeline::pairs()
{
    QFETCH(QString, expected);
    const QString path = expected.section(u' ', 0, 0);
    QCOMPARE(path + ' ' + describe(c_.row(path)), expected);
}

void TestComparePipeline::orderNamesAndLinks()
{
    // A link to a directory is a leaf: nothing below it is scanned.
    QVERIFY(!c_.row("./l/dir-link/inside"));
    QVERIFY(!c_.row("./l/dir-link")->isDirectory());
    QVERIFY(!c_.row("./x")->isDirectory());

    KVNTestTree left, right;
    left.file("Docs/Readme.TXT", "same");
    right.file("docs/readme.txt", "same");
    KVNFillTrees(left, right, {"<b", ">A", "=caf\xe9-latin1.txt", "<only\xff", "~odd %#?:name"});
    auto c = KVNTestComparison::run(left, right);
    // Paired and sorted by name without regard to case, left and right mixed, in pre-order.
    QCOMPARE(c.paths(), QStringList({"./A", "./b", "./caf\\xE9-latin1.txt", "./Docs", "./Docs/Readme.TXT",
                                     "./odd %#?:name", "./only\\xFF"}));
    auto readme = c.row("./Docs/Readme.TXT");
    QCOMPARE(describe(readme), "1 1 1 none");
    QCOMPARE(readme->labelLeft(), QStringLiteral("Readme.TXT"));
    QCOMPARE(readme->labelRight(), QStringLiteral("readme.txt"));
    QCOMPARE(readme->depthHint(), 2u);
    QCOMPARE(c.row("./A")->depthHint(), 1u);
    // Names are bytes; only their display escapes what is not text.
    QCOMPARE(describe(c.row("./caf\\xE9-latin1.txt")), "1 1 1 none");
    QCOMPARE(describe(c.row("./odd %#?:name")), "2 2 2 none");
    QCOMPARE(describe(c.row("./only\\xFF")), "3 - 3 right");
    QCOMPARE(c.row("./only\\xFF")->relativePath(), QByteArray("./only\xff"));
    QCOMPARE(c.row("./only\\xFF")->leftNode()->absolutePath(), left.path("only\xff"));
}

void TestComparePipeline::deepAndWideTrees()
{
    KVNTestTree left, right;
    QByteArray deep;
    for (int i = 0; i < 120; ++i)
        deep += "level" + QByteArray::number(i) + '/';
    KVNFillTrees(left, right, {'~' + deep + "bottom"});
    for (int i = 0; i < 3000; ++i)
        KVNFillTrees(left, right, {(i == 1234 ? "~wide/file" : "=wide/file") + QByteArray::number(i)});
    auto c = KVNTestComparison::run(left, right);
    QCOMPARE(int(c.rows.size()), 120 + 1 + 1 + 3000);
    QCOMPARE(c.row("./level0")->diffResult(), 2);
    QCOMPARE(c.row("./" + QString::fromLatin1(deep) + "bottom")->diffResult(), 2);
    QCOMPARE(c.row("./wide")->diffResult(), 2);
    QCOMPARE(c.row("./wide/file1234")->diffResult(), 2);
    QCOMPARE(c.row("./wide/file1233")->diffResult(), 1);
    // Siblings sort by name without regard to case: file10 before file2.
    QVERIFY(c.paths().indexOf("./wide/file10") < c.paths().indexOf("./wide/file2"));
    // Workers open files through the directories they hold, and let them go
    // once the queue is idle: nothing of either tree stays open after a run.
    const auto holdsSomethingInside = [&] {
        DIR *fds = ::opendir("/proc/self/fd");
        bool held = false;
        while (dirent *entry = fds ? ::readdir(fds) : nullptr) {
            char target[4096];
            const ssize_t n = ::readlinkat(::dirfd(fds), entry->d_name, target, sizeof target);
            const QByteArray path(target, n > 0 ? n : 0);
            held = held || path.startsWith(left.root()) || path.startsWith(right.root());
        }
        if (fds)
            ::closedir(fds);
        return held;
    };
    QTRY_VERIFY_WITH_TIMEOUT(!holdsSomethingInside(), 10000);
    QVERIFY(c.document->refreshOperationQueue().operationCount() == 0);
}

void TestComparePipeline::unreadableItemsForAnotherUser()
{
    if (::geteuid() != 0)
        QSKIP("only root can run the comparison as another user");
    KVNTestTree left, right, out;
    KVNFillTrees(left, right, {"=locked/a", "=secret", "=open"});
    for (const auto *tree : {&left, &right}) {
        KVNOpenUpForUnprivileged(tree->root());
        for (const char *path : {"locked", "locked/a", "secret", "open"})
            ::chmod(tree->path(path).constData(), QByteArray(path) == "locked" ? 0755 : 0644);
    }
    ::chmod(left.path("locked").constData(), 0700); // the other user may not enter it
    ::chmod(left.path("secret").constData(), 0600);
    // The comparison runs in a process of its own, writing to a file opened before privileges go.
    const int fd = ::open(out.path("rows").constData(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
    QVERIFY(fd >= 0);
    const int code = KVNRunUnprivileged([&] {
        ::dup2(fd, STDOUT_FILENO);
        ::execl(KVN_COMPARE_PROBE, KVN_COMPARE_PROBE, left.root().constData(), right.root().constData(), nullptr);
        return 127;
    });
    ::close(fd);
    if (code < 0)
        QSKIP("cannot drop privileges here");
    QCOMPARE(code, 0);
    QFile file(QFile::decodeName(out.path("rows")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QMap<QString, QString> rows;
    for (const QString &line : QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts))
        rows[line.section(u'\t', 0, 0)] = line.section(u'\t', 1).replace(u'\t', u' ');
    // An unreadable directory is an empty one: its partner's children are single.
    QCOMPARE(rows.value("./locked"), "3 3 3 0");
    QCOMPARE(rows.value("./locked/a"), "- 3 3 0");
    // A file that cannot be opened leaves the pair undecided, and both sides end single.
    QCOMPARE(rows.value("./secret"), "3 3 3 1");
    QCOMPARE(rows.value("./open"), "1 1 1 2");
}

void TestComparePipeline::windowedRunDecidesEveryPair_data()
{
    QTest::addColumn<int>("window");
    QTest::addColumn<int>("width");
    QTest::newRow("window 1, one worker") << 1 << 1;
    QTest::newRow("window 7, four workers") << 7 << 4;
    QTest::newRow("window 64, two workers") << 64 << 2;
    QTest::newRow("one window for all") << 100000 << 4;
}

void TestComparePipeline::windowedRunDecidesEveryPair()
{
    QFETCH(int, window);
    QFETCH(int, width);
    static const WindowTrees trees;
    WindowedRun run(trees, std::size_t(window), width);
    run.run();
    // Every pair decided, files before directories (a directory that looked
    // early would miss a difference below it), singles marked last.
    const QStringList wrongLeft = WindowedRun::mismatches(run.left, trees.leftExpected);
    QVERIFY2(wrongLeft.isEmpty(), qPrintable(wrongLeft.join(", ")));
    const QStringList wrongRight = WindowedRun::mismatches(run.right, trees.rightExpected);
    QVERIFY2(wrongRight.isEmpty(), qPrintable(wrongRight.join(", ")));
    QCOMPARE(run.fileOperations.load(), trees.filePairs);
    QCOMPARE(run.dirOperations.load(), trees.dirPairs);
    QCOMPARE(run.tree->filePairCount(), std::size_t(trees.filePairs));
    QCOMPARE(run.tree->dirPairCount(), std::size_t(trees.dirPairs));
    QTRY_COMPARE(run.delegate->calls.load(), 1);
    // The queue held about a window of compare operations at a time, and its
    // count never fell to zero before the end.
    if (window < trees.filePairs)
        QVERIFY2(run.mostLive <= std::size_t(2 * window + width + 10), qPrintable(QString::number(run.mostLive)));
    QTRY_COMPARE(run.ends.load(), 1); // told just after the wait returns
    QVERIFY2(run.starts == 1, qPrintable(run.history()));
    QCOMPARE(run.queue.operationCount(), std::size_t(0));
}

void TestComparePipeline::cancelWhileFeedingEndsTheRun_data()
{
    QTest::addColumn<int>("cancelAt"); // the compare operation whose start cancels
    QTest::addColumn<int>("width");
    for (int at : {1, 5, 6, 40, 133})
        for (int width : {1, 3})
            QTest::addRow("at %d, width %d", at, width) << at << width;
}

void TestComparePipeline::cancelWhileFeedingEndsTheRun()
{
    QFETCH(int, cancelAt);
    QFETCH(int, width);
    static const WindowTrees trees;
    constexpr int window = 5;
    WindowedRun run(trees, window, width);
    std::atomic<int> startedByCancel{0}; // compare operations started once the cancel had returned
    run.onFileOperation = [&, cancelAt](KVNOperationQueue &queue, int started) {
        if (started != cancelAt)
            return;
        queue.cancelAllOperations(); // from a worker, while feeders come and go
        startedByCancel = run.fileOperations.load();
    };
    run.run();
    // Only what had started before the cancel ran a body (the one that
    // cancelled saw its flag first), and nothing queued later slipped through.
    const int decided = WindowedRun::decided(run.left);
    QVERIFY(startedByCancel >= cancelAt);
    QVERIFY2(decided < startedByCancel, qPrintable(QStringLiteral("%1 of %2").arg(decided).arg(startedByCancel)));
    QCOMPARE(WindowedRun::decided(run.right), decided);
    // Feeding stopped: far fewer pairs were queued than there are, no directory
    // pair was looked at, and the marking of singles and the final report were skipped.
    QVERIFY(run.tree->filePairCount() <= std::size_t(startedByCancel + 2 * window + width));
    QCOMPARE(run.tree->dirPairCount(), std::size_t(0));
    QCOMPARE(run.dirOperations.load(), 0);
    QCoreApplication::processEvents();
    QCOMPARE(run.delegate->calls.load(), 0);
    QTRY_COMPARE(run.ends.load(), 1); // told just after the wait returns
    QVERIFY2(run.starts == 1, qPrintable(run.history()));
    QCOMPARE(run.queue.operationCount(), std::size_t(0));
}

QTEST_GUILESS_MAIN(TestComparePipeline)
#include "tst_comparepipeline.moc"

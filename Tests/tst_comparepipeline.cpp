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
#include <filesystem>

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

// Regular files: contents decide; equal contents under other dates are the
// same, and for different contents the newer side wins the direction.
const QByteArray kPage(4096, 'p'), kPages(3 * 4096, 'a');
const struct {
    const char *name;
    QByteArray left, right;
    const char *expected;
    int64_t leftTime = 1700000000, rightTime = 1700000000;
} kFiles[] = {
    {"f/empty-both", "", "", "1 1 1 none"},
    {"f/empty-vs-full", "", "x", "2 2 2 none"},
    {"f/page-plus", kPage + 'z', kPage + 'z', "1 1 1 none"},
    {"f/page-vs-plus", kPage, kPage + 'z', "2 2 2 none"},
    {"f/late-change", kPages + "b", kPages + "c", "2 2 2 none"},
    {"f/dates-differ", "same", "same", "1 1 1 none", 1700000000, 1800000000},
    {"f/newer-left", "one", "two", "2 2 2 right", 1800000000, 1700000000},
    {"f/newer-right", "one", "two", "2 2 2 left", 1700000000, 1800000000},
};

// Two trees of a few hundred pairs and what each node must end with after the
// second stage alone. Directories get 2 or 1 from the pairs below them, which
// only holds if every file pair was decided first; a single marked afterwards
// turns a 2 above it into 5.
struct WindowTrees {
    KVNTestTree left, right;
    std::map<QByteArray, int32_t> expected[2]; // left, right, by relative path
    int filePairs = 0, dirPairs = 0;

    WindowTrees()
    {
        for (int d = 0; d < 24; ++d) {
            const QByteArray dir = "d" + QByteArray::number(d), sub = d % 5 ? "" : "/sub";
            const int m = d % 4; // all same; some differ; differ and singles on both sides; left singles only
            for (int f = 0; f < 20; ++f) {
                const QByteArray path = dir + sub + "/f" + QByteArray::number(f);
                const char kind = m == 2 && f % 13 == 6              ? '>'
                                  : m >= 2 && f % 9 == 4             ? '<'
                                  : (m == 1 || m == 2) && f % 7 == 3 ? '~'
                                                                     : '=';
                KVNFillTrees(left, right, {kind + path});
                const int32_t result = kind == '='   ? KVNDiffResultSame
                                       : kind == '~' ? KVNDiffResultDiffer
                                                     : KVNDiffResultSingle;
                if (kind != '>')
                    expected[0][path] = result;
                if (kind != '<')
                    expected[1][path] = result;
                filePairs += kind == '=' || kind == '~';
            }
            const int32_t result = m == 1   ? KVNDiffResultDiffer
                                   : m == 2 ? KVNDiffResultDifferSingle
                                            : KVNDiffResultSame;
            for (const QByteArray &path : sub.isEmpty() ? QList{dir} : QList{dir, dir + sub})
                expected[0][path] = expected[1][path] = result;
            dirPairs += sub.isEmpty() ? 1 : 2;
        }
    }
};

// The scans and the second stage of a comparison, run by hand on a queue of
// its own with a small window, watching what the queue goes through.
struct WindowedRun {
    struct Delegate : KVNFinalOperationDelegate {
        std::atomic<int> calls{0};
        void completedFinalOperation(KVNFinalOperation *) override { ++calls; }
    };
    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    KVNBuildTreeFastOperationPtr left, right;
    std::shared_ptr<KVNCompareTreeOperation> tree;
    std::atomic<int> fileOperations{0}, dirOperations{0}, starts{0}, ends{0}; // starts and ends of the queue's count
    std::atomic<std::size_t> mostLive{0};                    // the queue's count as compare operations start
    std::function<void(WindowedRun &, int)> onFileOperation; // with the count of those started
    KVNOperationQueue queue;                                 // last: it goes first, waiting for its workers

    WindowedRun(const WindowTrees &trees, std::size_t window, int width,
                std::function<void(WindowedRun &, int)> onFile = {})
        : onFileOperation(std::move(onFile))
    {
        queue.setMaxConcurrentOperationCount(width);
        queue.setOperationCountObserver([this](std::size_t now, std::size_t old) {
            starts += old == 0 && now > 0;
            ends += now == 0;
        });
        queue.setOperationRunObserver([this](const KVNOperation &operation, bool started) {
            const bool file = dynamic_cast<const KVNCompareFileOperation *>(&operation);
            if (!started || (!file && !dynamic_cast<const KVNCompareDirOperation *>(&operation)))
                return;
            const std::size_t live = queue.operationCount();
            for (std::size_t most = mostLive; live > most && !mostLive.compare_exchange_weak(most, live);) {
            }
            if (!file)
                ++dirOperations;
            else if (const int started = ++fileOperations; onFileOperation)
                onFileOperation(*this, started);
        });
        left = KVNBuildTreeFastOperation::make(trees.left.root());
        right = KVNBuildTreeFastOperation::make(trees.right.root());
        tree = std::make_shared<KVNCompareTreeOperation>(left, right, &queue, delegate);
        tree->setWindow(window);
        tree->addDependency(left);
        tree->addDependency(right);
        queue.addOperations({tree, left, right}); // waiting first: the count cannot touch zero in between
        queue.waitUntilAllOperationsAreFinished();
        QCoreApplication::processEvents(); // the final report, if any, is posted
    }

    // Every node of one side whose result is not the expected one (undecided
    // when not listed), as "path: got".
    static QStringList mismatches(const KVNBuildTreeFastOperationPtr &scan,
                                  const std::map<QByteArray, int32_t> &expected = {})
    {
        QStringList wrong;
        for (const KVNFileNodePtr &node : *scan->fileTree()->relativeLookupDict()) {
            const QByteArray path = node->relativePath().mid(node->relativePath().startsWith("./") ? 2 : 0);
            const auto it = expected.find(path);
            if (node->diffResult() != (it == expected.end() ? KVNDiffResultUnknown : it->second))
                wrong << QString::fromUtf8(path + ": " + QByteArray::number(node->diffResult()));
        }
        return wrong;
    }
};

} // namespace

class TestComparePipeline : public QObject {
    Q_OBJECT

    // One comparison of trees that hold every kind of pair, shared by the rows of pairs().
    KVNTestTree left_, right_;
    KVNTestComparison c_;

private slots:
    void initTestCase()
    {
        KVNTestTree &left = left_, &right = right_;
        for (const auto &f : kFiles) {
            left.file(f.name, f.left, f.leftTime);
            right.file(f.name, f.right, f.rightTime);
        }
        // Links are leaves compared by their own date when the left one is a link;
        // a regular file on the left is read, through a link on the right.
        KVNFillTrees(left, right, {"=l/target-a", "=l/target-b", "=l/real-dir/inside"});
        left.symlink("l/same-date", "target-a");
        right.symlink("l/same-date", "target-b");
        left.symlink("l/other-date", "target-a");
        right.symlink("l/other-date", "target-a", 1700000500);
        left.symlink("l/link-vs-file", "target-a");
        right.file("l/link-vs-file", "whatever");
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
        KVNFillTrees(left, right,
                     {"=extra/common", "<extra/only-left", "~mixed/f", "<mixed/only-left", "=empty/", "<one-sided/a/b",
                      "<one-sided-empty/", "~nested/inner/f", ">nested/inner/new"});
        QByteArray deep = "deep/"; // no recursion limit on the way down
        for (int i = 0; i < 120; ++i)
            deep += "level" + QByteArray::number(i) + '/';
        KVNFillTrees(left, right, {'~' + deep + "bottom"});
        c_ = KVNTestComparison::run(left, right);
    }

    void pairs_data()
    {
        QTest::addColumn<QString>("expected");
        for (const auto &f : kFiles)
            QTest::newRow(f.name) << QStringLiteral("./%1 %2").arg(f.name, f.expected);
        const char *const rows[][2] = {
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
            {"extra", "3 3 3 children-right"}, // a directory's direction sums its children's
            {"extra/only-left", "3 - 3 right"},
            {"mixed", "5 5 5 children-right"},
            {"empty", "1 1 1 none"},
            {"one-sided/a", "3 - 3 right"},
            {"one-sided-empty", "1 - 1 none"}, // nothing below it to report
            {"nested/inner", "5 5 5 children-left"},
            {"nested", "5 5 5 children-left"},
            {"deep", "2 2 2 none"},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QStringLiteral("./%1 %2").arg(row[0], row[1]);
    }

    void pairs()
    {
        QFETCH(QString, expected);
        const QString path = expected.section(u' ', 0, 0);
        QCOMPARE(path + ' ' + describe(c_.row(path)), expected);
    }

    void orderNamesAndLinks()
    {
        // A link to a directory is a leaf: nothing below it is scanned.
        QVERIFY(!c_.row("./l/dir-link/inside"));
        QVERIFY(!c_.row("./l/dir-link")->isDirectory());
        QVERIFY(!c_.row("./x")->isDirectory());

        KVNTestTree left, right;
        left.file("Docs/Readme.TXT", "same");
        right.file("docs/readme.txt", "same");
        KVNFillTrees(left, right,
                     {"<b", ">A", "=caf\xe9-latin1.txt", "<only\xff", "~odd %#?:name", "=n/file10", "=n/file2"});
        auto c = KVNTestComparison::run(left, right);
        // Paired and sorted by name without regard to case, left and right mixed, in pre-order; digits are not numbers.
        QCOMPARE(c.paths(), QStringList({"./A", "./b", "./caf\\xE9-latin1.txt", "./Docs", "./Docs/Readme.TXT", "./n",
                                         "./n/file10", "./n/file2", "./odd %#?:name", "./only\\xFF"}));
        auto readme = c.row("./Docs/Readme.TXT");
        QCOMPARE(describe(readme), "1 1 1 none");
        QCOMPARE(readme->labelLeft(), QStringLiteral("Readme.TXT"));
        QCOMPARE(readme->labelRight(), QStringLiteral("readme.txt"));
        QCOMPARE(readme->depthHint(), 2u);
        // Names are bytes; only their display escapes what is not text.
        QCOMPARE(describe(c.row("./caf\\xE9-latin1.txt")), "1 1 1 none");
        QCOMPARE(describe(c.row("./odd %#?:name")), "2 2 2 none");
        QCOMPARE(describe(c.row("./only\\xFF")), "3 - 3 right");
        QCOMPARE(c.row("./only\\xFF")->leftNode()->absolutePath(), left.path("only\xff"));
    }

    void runLeavesNothingOpen()
    {
        // Workers open files through directories they hold, and let them go once the queue is idle.
        const auto holdsSomethingInside = [this] {
            std::error_code error;
            for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd", error)) {
                const QByteArray target(std::filesystem::read_symlink(fd.path(), error).c_str());
                if (target.startsWith(left_.root()) || target.startsWith(right_.root()))
                    return true;
            }
            return false;
        };
        QTRY_VERIFY_WITH_TIMEOUT(!holdsSomethingInside(), 10000);
        QCOMPARE(c_.document->refreshOperationQueue().operationCount(), std::size_t(0));
    }

    void unreadableItemsForAnotherUser()
    {
        if (::geteuid() != 0)
            QSKIP("only root can run the comparison as another user");
        KVNTestTree left, right, out;
        KVNFillTrees(left, right, {"=locked/a", "=secret", "=open"});
        for (const auto *tree : {&left, &right}) {
            KVNOpenUpForUnprivileged(tree->root());
            const bool shut = tree == &left; // the other user may not enter or read these
            ::chmod(tree->path("locked").constData(), shut ? 0700 : 0755);
            ::chmod(tree->path("secret").constData(), shut ? 0600 : 0644);
            for (const char *path : {"locked/a", "open"})
                ::chmod(tree->path(path).constData(), 0644);
        }
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
        // An unreadable directory is an empty one: its partner's children are single.
        // A file that cannot be opened leaves the pair undecided, and both sides end single.
        QCOMPARE(QString::fromUtf8(file.readAll()).replace(u'\t', u' ').split(u'\n', Qt::SkipEmptyParts),
                 QStringList({"./locked 3 3 3 0", "./locked/a - 3 3 0", "./open 1 1 1 2", "./secret 3 3 3 1"}));
    }

    void windowedRun_data()
    {
        QTest::addColumn<int>("window");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("cancelAt"); // the compare operation whose start cancels, if any
        QTest::newRow("window 1, one worker") << 1 << 1 << 0;
        QTest::newRow("window 7, four workers") << 7 << 4 << 0;
        QTest::newRow("window 64, two workers") << 64 << 2 << 0;
        QTest::newRow("one window for all") << 100000 << 4 << 0;
        for (int at : {1, 5, 6, 40, 133})
            for (int width : {1, 3})
                QTest::addRow("cancel at %d, width %d", at, width) << 5 << width << at;
    }
    void windowedRun()
    {
        QFETCH(int, window);
        QFETCH(int, width);
        QFETCH(int, cancelAt);
        static const WindowTrees trees;
        std::atomic<int> startedByCancel{0}; // compare operations started once the cancel had returned
        WindowedRun run(trees, window, width, [&](WindowedRun &run, int started) {
            if (started == cancelAt) {
                run.queue.cancelAllOperations(); // from a worker, while feeders come and go
                startedByCancel = run.fileOperations.load();
            }
        });
        // Its count never fell to zero before the end.
        QTRY_COMPARE(run.ends.load(), 1); // told just after the wait returns
        QCOMPARE(run.starts.load(), 1);
        QCOMPARE(run.queue.operationCount(), std::size_t(0));
        if (cancelAt) {
            // Only what had started before the cancel ran a body (the one that
            // cancelled saw its flag first), and nothing queued later slipped through.
            const qsizetype decided = WindowedRun::mismatches(run.left).size();
            QVERIFY2(decided < startedByCancel,
                     qPrintable(QStringLiteral("%1 of %2").arg(decided).arg(startedByCancel)));
            QCOMPARE(WindowedRun::mismatches(run.right).size(), decided);
            // Feeding stopped, no directory pair was looked at, and the marking
            // of singles and the final report were skipped.
            QVERIFY(run.tree->filePairCount() <= std::size_t(startedByCancel + 2 * window + width));
            QCOMPARE(run.tree->dirPairCount(), std::size_t(0));
            QCOMPARE(run.delegate->calls.load(), 0);
            return;
        }
        // Every pair decided, files before directories, singles marked last.
        for (int side : {0, 1}) {
            const QStringList wrong = WindowedRun::mismatches(side ? run.right : run.left, trees.expected[side]);
            QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join(", ")));
        }
        QCOMPARE(run.fileOperations.load(), trees.filePairs);
        QCOMPARE(run.dirOperations.load(), trees.dirPairs);
        QCOMPARE(run.tree->filePairCount(), std::size_t(trees.filePairs));
        QCOMPARE(run.tree->dirPairCount(), std::size_t(trees.dirPairs));
        QTRY_COMPARE(run.delegate->calls.load(), 1);
        // The queue held about a window of compare operations at a time.
        if (window < trees.filePairs)
            QVERIFY2(run.mostLive <= std::size_t(2 * window + width + 10), qPrintable(QString::number(run.mostLive)));
    }
};

QTEST_GUILESS_MAIN(TestComparePipeline)
#include "tst_comparepipeline.moc"

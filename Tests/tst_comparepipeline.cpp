// ctest-label: concurrency
// Whole comparisons of real trees: what every node and row ends with, and the
// default merge directions.
#include "KVNCompareFileOperation.h"
#include "KVNCompareTreeOperation.h"
#include "KVNDiffResult.h"
#include "KVNMergeDirection.h"
#include "KVNTestTree.h"

#include <QTest>

#include <array>
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

// A few hundred pairs and what each node must end with after the second stage
// alone. Directories get 2 or 1 from the pairs below them, which only holds if
// every file pair was decided first; a single marked afterwards turns a 2 into 5.
struct WindowTrees {
    KVNTestTree left, right;
    std::map<QByteArray, int32_t> expected[2]; // left, right, by relative path ("./a")
    int filePairs = 0, dirPairs = 0;

    WindowTrees()
    {
        // By d % 4, the kinds of a directory's files, and what the directory ends with.
        const char *const kinds[] = {
            "====================", "===~======~======~==", "===~<=>===~==<===~==", "====<========<======"};
        const int32_t dirResults[] = {KVNDiffResultSame, KVNDiffResultDiffer, KVNDiffResultDifferSingle,
                                      KVNDiffResultSame};
        const std::map<char, int32_t> fileResults = {{'=', KVNDiffResultSame},
                                                     {'~', KVNDiffResultDiffer},
                                                     {'<', KVNDiffResultSingle},
                                                     {'>', KVNDiffResultSingle}};
        for (int d = 0; d < 24; ++d) {
            const QByteArray dir = "./d" + QByteArray::number(d), sub = d % 5 ? "" : "/sub";
            for (int f = 0; f < 20; ++f) {
                const QByteArray path = dir + sub + "/f" + QByteArray::number(f);
                const char kind = kinds[d % 4][f];
                KVNFillTrees(left, right, {kind + path.mid(2)});
                for (int side : {0, 1})
                    if (kind != "><"[side])
                        expected[side][path] = fileResults.at(kind);
                filePairs += kind == '=' || kind == '~';
            }
            for (const QByteArray &path : {dir, dir + sub}) // the same one twice without sub
                expected[0][path] = expected[1][path] = dirResults[d % 4];
            dirPairs += sub.isEmpty() ? 1 : 2;
        }
    }
};

struct FinalReports : KVNFinalOperationDelegate {
    std::atomic<int> calls{0};
    void completedFinalOperation(KVNFinalOperation *) override { ++calls; }
};

// Every node of one side whose result is not the expected one (undecided
// when not listed), as "path: got".
QStringList mismatches(const KVNBuildTreeFastOperationPtr &scan, const std::map<QByteArray, int32_t> &expected = {})
{
    QStringList wrong;
    for (const KVNFileNodePtr &node : *scan->fileTree()->relativeLookupDict()) {
        const auto it = expected.find(node->relativePath());
        if (node->diffResult() != (it == expected.end() ? KVNDiffResultUnknown : it->second))
            wrong << QString::fromUtf8(node->relativePath() + ": " + QByteArray::number(node->diffResult()));
    }
    return wrong;
}

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
        // Regular files: contents decide; equal contents under other dates are the
        // same, and for different contents the newer side wins the direction.
        const QByteArray page(4096, 'p'), pages(3 * 4096, 'a');
        const std::tuple<const char *, QByteArray, QByteArray, int64_t, int64_t> files[] = {
            {"f/empty-both", "", "", 0, 0},
            {"f/empty-vs-full", "", "x", 0, 0},
            {"f/page-vs-plus", page, page + 'z', 0, 0},
            {"f/late-change", pages + "b", pages + "c", 0, 0},
            {"f/dates-differ", "same", "same", 0, 100000000},
            {"f/newer-left", "one", "two", 100000000, 0},
            {"f/newer-right", "one", "two", 0, 100000000}};
        for (const auto &[name, l, r, lt, rt] : files) {
            left.file(name, l, 1700000000 + lt);
            right.file(name, r, 1700000000 + rt);
        }
        // Names are bytes; only their display escapes what is not text.
        KVNFillTrees(left, right,
                     {"=l/target-a", "=l/target-b", "=l/real-dir/inside", ">e/", "<d/f", ">d", "=extra/common",
                      "<extra/only-left", "~mixed/f", "<mixed/only-left", "=empty/", "<one-sided-empty/",
                      "~nested/inner/f", ">nested/inner/new", "=caf\xe9-latin1.txt", "<only\xff", "~odd %#?:name"});
        // Links are leaves compared by their own date when the left one is a link;
        // a regular file on the left is read, through a link on the right.
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
        QByteArray deep = "deep/"; // no recursion limit on the way down
        for (int i = 0; i < 120; ++i)
            deep += "level" + QByteArray::number(i) + '/';
        KVNFillTrees(left, right, {'~' + deep + "bottom"});
        c_ = KVNTestComparison::run(left, right);
    }

    void pairs()
    {
        // A left directory against a right file is rolled up from its children;
        // a directory's direction sums its children's; an empty one-sided
        // directory has nothing below it to report; links with other targets
        // and the same date are the same.
        const char *const expected =
            "./l/same-date 1 1 1 none|./l/other-date 2 2 2 left|./l/link-vs-file 1 1 1 none|"
            "./l/file-vs-link 1 1 1 none|./l/file-vs-broken 3 3 3 right|./l/dir-link 1 1 1 none|"
            "./x 2 5 5 right|./x/y - 3 3 left|./e 1 1 1 none|./d 3 3 3 right|./d/f 3 - 3 right|"
            "./extra 3 3 3 children-right|./mixed 5 5 5 children-right|./empty 1 1 1 none|"
            "./one-sided-empty 1 - 1 none|./nested/inner 5 5 5 children-left|./nested 5 5 5 children-left|"
            "./f/empty-both 1 1 1 none|./f/empty-vs-full 2 2 2 none|./f/page-vs-plus 2 2 2 none|"
            "./f/late-change 2 2 2 none|./f/dates-differ 1 1 1 none|./f/newer-left 2 2 2 right|"
            "./f/newer-right 2 2 2 left|./caf\\xE9-latin1.txt 1 1 1 none|./only\\xFF 3 - 3 right|"
            "./odd %#?:name 2 2 2 none|./deep 2 2 2 none";
        for (const QString &row : QString::fromLatin1(expected).split(u'|')) {
            const QString path = row.section(u' ', 0, -5);
            QCOMPARE(path + ' ' + describe(c_.row(path)), row);
        }
    }

    void linksAreLeavesAndNothingStaysOpen()
    {
        QVERIFY(!c_.row("./l/dir-link/inside"));
        QVERIFY(!c_.row("./l/dir-link")->isDirectory() && !c_.row("./x")->isDirectory());
        QCOMPARE(c_.row("./only\\xFF")->leftNode()->absolutePath(), left_.path("only\xff"));
        // Workers open files through directories they hold, and let them go once the queue is idle.
        const auto holdsSomethingInside = [this] {
            std::error_code error;
            for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd", error))
                if (const QByteArray target(std::filesystem::read_symlink(fd.path(), error).c_str());
                    target.startsWith(left_.root()) || target.startsWith(right_.root()))
                    return true;
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
            // The other user may not enter or read these on the left.
            const int dir = tree == &left ? 0700 : 0755, file = tree == &left ? 0600 : 0644;
            for (const auto &[path, mode] :
                 {std::pair{"locked", dir}, {"secret", file}, {"locked/a", 0644}, {"open", 0644}})
                ::chmod(tree->path(path).constData(), mode);
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

    void windowedRun()
    {
        static const WindowTrees trees;
        // Window, workers, and the compare operation whose start cancels, if any.
        for (const auto &[window, width, cancelAt] : {std::array{1, 1, 0}, std::array{7, 4, 0}, std::array{5, 3, 6}}) {
            // The scans and the second stage of a comparison, run by hand on a queue of its own.
            auto delegate = std::make_shared<FinalReports>();
            // File compares started, and the queue's count leaving and reaching zero.
            std::atomic<int> fileOperations{0}, startedByCancel{0}, starts{0}, ends{0};
            KVNOperationQueue queue; // after what its observers touch: it goes first, waiting for its workers
            queue.setMaxConcurrentOperationCount(width);
            queue.setOperationCountObserver([&](std::size_t now, std::size_t old) {
                starts += old == 0 && now > 0;
                ends += now == 0;
            });
            queue.setOperationRunObserver([&](const KVNOperation &operation, bool started) {
                if (started && dynamic_cast<const KVNCompareFileOperation *>(&operation) &&
                    ++fileOperations == cancelAt) {
                    queue.cancelAllOperations(); // from a worker, while feeders come and go
                    startedByCancel = fileOperations.load();
                }
            });
            auto left = KVNBuildTreeFastOperation::make(trees.left.root());
            auto right = KVNBuildTreeFastOperation::make(trees.right.root());
            auto tree = std::make_shared<KVNCompareTreeOperation>(left, right, &queue, delegate);
            tree->setWindow(window);
            tree->addDependency(left);
            tree->addDependency(right);
            queue.addOperations({tree, left, right}); // waiting first: the count cannot touch zero in between
            queue.waitUntilAllOperationsAreFinished();
            // Its count never fell to zero before the end.
            QTRY_COMPARE(ends.load(), 1); // told just after the wait returns
            QCOMPARE(starts.load(), 1);
            if (cancelAt) {
                // Only what had started before the cancel ran a body (the one that
                // cancelled saw its flag first), and nothing queued later slipped through.
                const qsizetype decided = mismatches(left).size();
                QVERIFY2(decided < startedByCancel,
                         qPrintable(QStringLiteral("%1 of %2").arg(decided).arg(startedByCancel)));
                QCOMPARE(mismatches(right).size(), decided);
                // Feeding stopped, no directory pair was looked at, and the marking
                // of singles and the final report were skipped.
                QVERIFY(tree->filePairCount() <= std::size_t(startedByCancel + 2 * window + width));
                QCOMPARE(tree->dirPairCount(), std::size_t(0));
                QCoreApplication::processEvents(); // the final report, if any, is posted
                QCOMPARE(delegate->calls.load(), 0);
                continue;
            }
            // Every pair decided, files before directories, singles marked last.
            for (int side : {0, 1}) {
                const QStringList wrong = mismatches(side ? right : left, trees.expected[side]);
                QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join(", ")));
            }
            QCOMPARE(fileOperations.load(), trees.filePairs);
            QCOMPARE(tree->filePairCount(), std::size_t(trees.filePairs));
            QCOMPARE(tree->dirPairCount(), std::size_t(trees.dirPairs));
            QTRY_COMPARE(delegate->calls.load(), 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestComparePipeline)
#include "tst_comparepipeline.moc"

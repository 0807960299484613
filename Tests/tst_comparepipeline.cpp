// ctest-label: concurrency
// Whole comparisons of real trees: what every node and row ends with, the
// default merge directions, and the order of the rows.
#include "KVNDiffResult.h"
#include "KVNMergeDirection.h"
#include "KVNTestTree.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

class TestComparePipeline : public QObject {
    Q_OBJECT

private:
    struct Expect {
        int left; // -1: no node on that side
        int right;
        int row;
        int direction;
    };
    static void checkRow(const KVNTestComparison &c, const QString &path, Expect e)
    {
        auto row = c.row(path);
        QVERIFY2(row, qPrintable(QStringLiteral("no row %1 in %2").arg(path, c.paths().join(u' '))));
        auto left = row->leftNode();
        auto right = row->rightNode();
        QCOMPARE(left ? left->diffResult() : -1, e.left);
        QCOMPARE(right ? right->diffResult() : -1, e.right);
        QCOMPARE(row->diffResult(), e.row);
        QCOMPARE(int(row->mergeDirection()), e.direction);
    }

#define check(...)                                                                                                     \
    do {                                                                                                               \
        checkRow(__VA_ARGS__);                                                                                         \
        if (QTest::currentTestFailed())                                                                                \
            return;                                                                                                    \
    } while (0)

private slots:
    void emptyTreesStillReport()
    {
        KVNTestTree left, right;
        auto c = KVNTestComparison::run(left, right);
        QVERIFY(c.rows.empty());
        QCOMPARE(c.document->completedRuns(), 1);
    }

    void contentsDecideRegularFiles()
    {
        KVNTestTree left, right;
        const QByteArray page(4096, 'p');
        left.file("empty-both");
        right.file("empty-both");
        left.file("empty-vs-full");
        right.file("empty-vs-full", "x");
        left.file("page", page);
        right.file("page", page);
        left.file("page-plus", page + 'z');
        right.file("page-plus", page + 'z');
        left.file("page-vs-plus", page);
        right.file("page-vs-plus", page + 'z');
        left.file("prefix", "abc");
        right.file("prefix", "abcd");
        left.file("late-change", QByteArray(3 * 4096, 'a') + "b");
        right.file("late-change", QByteArray(3 * 4096, 'a') + "c");
        // Equal contents with different dates are the same; the newer side does not matter.
        left.file("dates-differ", "same", 1700000000);
        right.file("dates-differ", "same", 1800000000);
        // Different contents: the newer side wins the default direction.
        left.file("newer-left", "one", 1800000000);
        right.file("newer-left", "two", 1700000000);
        left.file("newer-right", "one", 1700000000);
        right.file("newer-right", "two", 1800000000);
        auto c = KVNTestComparison::run(left, right);

        check(c, "./empty-both", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./empty-vs-full", {2, 2, 2, KVNMergeDirectionNone});
        check(c, "./page", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./page-plus", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./page-vs-plus", {2, 2, 2, KVNMergeDirectionNone});
        check(c, "./prefix", {2, 2, 2, KVNMergeDirectionNone});
        check(c, "./late-change", {2, 2, 2, KVNMergeDirectionNone});
        check(c, "./dates-differ", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./newer-left", {2, 2, 2, KVNMergeDirectionRight});
        check(c, "./newer-right", {2, 2, 2, KVNMergeDirectionLeft});
    }

    void linksAreLeavesComparedByTheirOwnDate()
    {
        KVNTestTree left, right;
        left.file("target-a", "A");
        right.file("target-a", "A");
        left.file("target-b", "B");
        right.file("target-b", "B");
        // Different targets, same date: same. Same target, other date: different.
        left.symlink("link-same-date", "target-a", 1700000000);
        right.symlink("link-same-date", "target-b", 1700000000);
        left.symlink("link-other-date", "target-a", 1700000000);
        right.symlink("link-other-date", "target-a", 1700000500);
        // A link on the left decides the method: dates only, against a regular file.
        left.symlink("link-vs-file", "target-a", 1700000000);
        right.file("link-vs-file", "whatever", 1700000000);
        // A regular file on the left: contents, and the right link is followed.
        left.file("file-vs-link", "A");
        right.symlink("file-vs-link", "target-a");
        // A broken link cannot be opened: both sides end single.
        left.file("file-vs-broken", "A");
        right.symlink("file-vs-broken", "nowhere");
        // A link to a directory is a leaf: nothing below it is scanned.
        left.dir("real-dir");
        left.file("real-dir/inside", "i");
        right.dir("real-dir");
        right.file("real-dir/inside", "i");
        left.symlink("dir-link", "real-dir");
        right.symlink("dir-link", "real-dir");
        auto c = KVNTestComparison::run(left, right);

        check(c, "./link-same-date", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./link-other-date", {2, 2, 2, KVNMergeDirectionLeft});
        check(c, "./link-vs-file", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./file-vs-link", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./file-vs-broken", {3, 3, 3, KVNMergeDirectionRight});
        check(c, "./dir-link", {1, 1, 1, KVNMergeDirectionNone});
        QVERIFY(!c.row("./dir-link/inside"));
        QVERIFY(!c.row("./dir-link")->isDirectory());
    }

    void fileAgainstDirectoryBothWays()
    {
        KVNTestTree left, right;
        // Left file, right directory: a file pair that reads a directory, so different;
        // the directory's children are single and lift the right node to 5.
        left.file("x", "contents", 1800000000);
        right.dir("x");
        right.file("x/y", "y");
        right.setMtime("x", 1700000000);
        // An empty left file against a directory is the same: a quirk kept on purpose.
        left.file("e");
        right.dir("e");
        // Left directory, right file: a directory pair; its children roll it up.
        left.dir("d");
        left.file("d/f", "f");
        right.file("d", "plain");
        auto c = KVNTestComparison::run(left, right);

        check(c, "./x", {2, 5, 5, KVNMergeDirectionRight});
        check(c, "./x/y", {-1, 3, 3, KVNMergeDirectionLeft});
        QVERIFY(!c.row("./x")->isDirectory());
        check(c, "./e", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./d", {3, 3, 3, KVNMergeDirectionRight});
        check(c, "./d/f", {3, -1, 3, KVNMergeDirectionRight});
    }

    void directoriesRollUpTheirChildren()
    {
        KVNTestTree left, right;
        left.file("changed/f", "1");
        right.file("changed/f", "2");
        left.file("extra/common", "c");
        right.file("extra/common", "c");
        left.file("extra/only-left", "o");
        left.file("mixed/f", "1");
        right.file("mixed/f", "2");
        left.file("mixed/only-left", "o");
        left.dir("empty");
        right.dir("empty");
        left.file("one-sided/a/b", "b");
        left.dir("one-sided-empty");
        left.file("nested/inner/f", "1");
        right.file("nested/inner/f", "2");
        right.file("nested/inner/new", "n");
        auto c = KVNTestComparison::run(left, right);

        check(c, "./changed", {2, 2, 2, KVNMergeDirectionNone});
        // A directory pair's direction is the summary of its children's.
        check(c, "./extra", {3, 3, 3, KVNMergeDirectionChildrenRight});
        check(c, "./extra/only-left", {3, -1, 3, KVNMergeDirectionRight});
        check(c, "./mixed", {5, 5, 5, KVNMergeDirectionChildrenRight});
        check(c, "./empty", {1, 1, 1, KVNMergeDirectionNone});
        // One side only: single, and an empty one has nothing to report.
        check(c, "./one-sided", {3, -1, 3, KVNMergeDirectionRight});
        check(c, "./one-sided/a", {3, -1, 3, KVNMergeDirectionRight});
        check(c, "./one-sided-empty", {1, -1, 1, KVNMergeDirectionNone});
        check(c, "./nested/inner", {5, 5, 5, KVNMergeDirectionChildrenLeft});
        check(c, "./nested", {5, 5, 5, KVNMergeDirectionChildrenLeft});
    }

    void exclusionKeepsDirectoriesSame()
    {
        KVNTestTree left, right;
        left.file("logs/run.log", "1");
        right.file("logs/run.log", "2");
        left.file("logs/keep.txt", "k");
        right.file("logs/keep.txt", "k");
        auto excluded = KVNTestComparison::run(left, right, QStringLiteral("spotlightItemFSName LIKE[c] '*.LOG'"));
        check(excluded, "./logs", {1, 1, 1, KVNMergeDirectionNone});
        // The file itself is still compared; only the roll-up leaves it out.
        QCOMPARE(excluded.row("./logs/run.log")->diffResult(), 2);
        auto plain = KVNTestComparison::run(left, right);
        QCOMPARE(plain.row("./logs")->diffResult(), 2);
    }

    void pairingIgnoresCase()
    {
        KVNTestTree left, right;
        left.file("Docs/Readme.TXT", "same");
        right.file("docs/readme.txt", "same");
        left.file("b", "b");
        right.file("A", "a");
        auto c = KVNTestComparison::run(left, right);
        check(c, "./Docs/Readme.TXT", {1, 1, 1, KVNMergeDirectionNone});
        auto row = c.row("./Docs/Readme.TXT");
        QCOMPARE(row->labelLeft(), QStringLiteral("Readme.TXT"));
        QCOMPARE(row->labelRight(), QStringLiteral("readme.txt"));
        // Sorted by name without regard to case, left and right mixed, pre-order.
        QCOMPARE(c.paths(), QStringList({"./A", "./b", "./Docs", "./Docs/Readme.TXT"}));
        QCOMPARE(c.row("./A")->depthHint(), 1u);
        QCOMPARE(c.row("./Docs/Readme.TXT")->depthHint(), 2u);
    }

    void namesAreBytes()
    {
        KVNTestTree left, right;
        const QByteArray odd("caf\xe9-latin1.txt"); // not UTF-8
        left.file(odd, "same");
        right.file(odd, "same");
        left.file("only\xff", "x");
        left.file("odd %#?:name", "1");
        right.file("odd %#?:name", "2");
        auto c = KVNTestComparison::run(left, right);
        check(c, "./caf\\xE9-latin1.txt", {1, 1, 1, KVNMergeDirectionNone});
        check(c, "./only\\xFF", {3, -1, 3, KVNMergeDirectionRight});
        check(c, "./odd %#?:name", {2, 2, 2, KVNMergeDirectionNone});
        QCOMPARE(c.row("./only\\xFF")->relativePath(), QByteArray("./only\xff"));
        QCOMPARE(c.row("./only\\xFF")->leftNode()->absolutePath(), left.path("only\xff"));
    }

    void deepAndWideTrees()
    {
        KVNTestTree left, right;
        QByteArray deep;
        for (int i = 0; i < 120; ++i)
            deep += "level" + QByteArray::number(i) + '/';
        left.file(deep + "bottom", "1");
        right.file(deep + "bottom", "2");
        for (int i = 0; i < 3000; ++i) {
            const QByteArray name = "wide/file" + QByteArray::number(i);
            left.file(name, "w");
            right.file(name, i == 1234 ? "W" : "w");
        }
        auto c = KVNTestComparison::run(left, right);
        QCOMPARE(int(c.rows.size()), 120 + 1 + 1 + 3000);
        QCOMPARE(c.row("./level0")->diffResult(), 2);
        QCOMPARE(c.row("./" + QString::fromLatin1(deep) + "bottom")->diffResult(), 2);
        QCOMPARE(c.row("./wide")->diffResult(), 2);
        QCOMPARE(c.row("./wide/file1234")->diffResult(), 2);
        QCOMPARE(c.row("./wide/file1233")->diffResult(), 1);
        // Siblings sort by name without regard to case: file10 before file2.
        QVERIFY(c.paths().indexOf("./wide/file10") < c.paths().indexOf("./wide/file2"));
    }

    void unreadableItemsForAnotherUser()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
            QSKIP("setpriv is needed to run the comparison as an unprivileged user");
        KVNTestTree left, right;
        left.file("locked/a", "a");
        right.file("locked/a", "a");
        left.file("secret", "s");
        right.file("secret", "s");
        left.file("open", "o");
        right.file("open", "o");
        for (const auto *tree : {&left, &right}) {
            KVNOpenUpForUnprivileged(tree->root());
            for (const char *p : {"locked", "locked/a", "secret", "open"})
                ::chmod(tree->path(p).constData(), QByteArray(p) == "locked" ? 0755 : 0644);
        }
        ::chmod(left.path("locked").constData(), 0700); // the other user may not enter it
        ::chmod(left.path("secret").constData(), 0600);
        QProcess probe;
        probe.start(QStringLiteral("setpriv"),
                    {"--reuid=65534", "--regid=65534", "--clear-groups", KVN_COMPARE_PROBE,
                     QString::fromLocal8Bit(left.root()), QString::fromLocal8Bit(right.root())});
        QVERIFY(probe.waitForFinished(60000));
        if (probe.exitCode() != 0)
            QSKIP(qPrintable("could not run as an unprivileged user: " + probe.readAllStandardError()));
        QMap<QString, QStringList> rows;
        for (const QByteArray &line : probe.readAllStandardOutput().split('\n'))
            if (!line.isEmpty())
                rows[QString::fromUtf8(line.split('\t').first())] = QString::fromUtf8(line).split(u'\t').mid(1);
        // An unreadable directory is an empty one: its partner's children are single.
        QCOMPARE(rows.value("./locked"), QStringList({"3", "3", "3", "0"}));
        QCOMPARE(rows.value("./locked/a"), QStringList({"-", "3", "3", "0"}));
        // A file that cannot be opened leaves the pair undecided, and both sides end single.
        QCOMPARE(rows.value("./secret"), QStringList({"3", "3", "3", "1"}));
        QCOMPARE(rows.value("./open"), QStringList({"1", "1", "1", "2"}));
    }
};

QTEST_GUILESS_MAIN(TestComparePipeline)
#include "tst_comparepipeline.moc"

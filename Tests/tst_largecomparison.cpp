// ctest-label: concurrency
// A comparison of 100,000 files per side runs to its end with every node
// decided; under the sanitizers this is the leak and race check of a whole run.
#include "KVNTestTree.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

#include <map>

class TestLargeComparison : public QObject {
    Q_OBJECT

private slots:
    void hundredThousandFiles()
    {
        constexpr int kDirectories = 400, kFilesPerDirectory = 250;
        // In memory where the machine has it: the point is the comparison, not the disk.
        const QString parent =
            QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm") : QDir::tempPath();
        KVNTestTree left(parent), right(parent);
        int kinds[4] = {}; // same, left only, right only, changed
        for (int d = 0; d < kDirectories; ++d) {
            for (int f = 0; f < kFilesPerDirectory; ++f) {
                const QByteArray name = "d" + QByteArray::number(d) + "/f" + QByteArray::number(f);
                const QByteArray contents = QByteArray::number(d * 7919 + f);
                const int r = (d * kFilesPerDirectory + f) % 997, kind = r < 4 ? r : 0;
                if (kind != 2)
                    left.file(name, contents);
                if (kind != 1)
                    right.file(name, kind == 3 ? contents + "!" : contents);
                ++kinds[kind];
            }
        }
        auto c = KVNTestComparison::run(left, right);
        QCOMPARE(int(c.rows.size()), kDirectories + kDirectories * kFilesPerDirectory);
        std::map<int, int> files; // by result; every one decided
        for (const auto &row : c.rows)
            if (!row->isDirectory())
                ++files[row->diffResult()];
        QCOMPARE(files, (std::map<int, int>{{KVNDiffResultSame, kinds[0]},
                                            {KVNDiffResultDiffer, kinds[3]},
                                            {KVNDiffResultSingle, kinds[1] + kinds[2]}}));
        // The update path over the same trees touches nothing but the singles.
        c.update();
        QCOMPARE(int(c.rows.size()), kDirectories + kDirectories * kFilesPerDirectory);
        QCOMPARE(c.row("./d0/f3")->diffResult(), int(KVNDiffResultDiffer));
    }
};

QTEST_GUILESS_MAIN(TestLargeComparison)
#include "tst_largecomparison.moc"

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
        constexpr int kDirectories = 400;
        constexpr int kFilesPerDirectory = 250;
        // In memory where the machine has it: the point is the comparison, not the disk.
        const QString parent =
            QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm") : QDir::tempPath();
        KVNTestTree left(parent), right(parent);
        int changed = 0, leftOnly = 0, rightOnly = 0;
        for (int d = 0; d < kDirectories; ++d) {
            const QByteArray dir = "d" + QByteArray::number(d) + '/';
            for (int f = 0; f < kFilesPerDirectory; ++f) {
                const QByteArray name = dir + "f" + QByteArray::number(f);
                const QByteArray contents = QByteArray::number(d * 7919 + f);
                const int kind = (d * kFilesPerDirectory + f) % 997;
                if (kind == 1) {
                    left.file(name, contents);
                    ++leftOnly;
                } else if (kind == 2) {
                    right.file(name, contents);
                    ++rightOnly;
                } else {
                    left.file(name, contents);
                    right.file(name, kind == 3 ? contents + "!" : contents);
                    changed += kind == 3;
                }
            }
        }
        auto c = KVNTestComparison::run(left, right);
        QCOMPARE(int(c.rows.size()), kDirectories + kDirectories * kFilesPerDirectory);
        std::map<int, int> files; // by result; every one decided
        for (const auto &row : c.rows)
            if (!row->isDirectory())
                ++files[row->diffResult()];
        QCOMPARE(files, (std::map<int, int>{
                            {KVNDiffResultSame, kDirectories * kFilesPerDirectory - changed - leftOnly - rightOnly},
                            {KVNDiffResultDiffer, changed},
                            {KVNDiffResultSingle, leftOnly + rightOnly}}));
        // The update path over the same trees touches nothing but the singles.
        c.update();
        QCOMPARE(int(c.rows.size()), kDirectories + kDirectories * kFilesPerDirectory);
        QCOMPARE(c.row("./d0/f3")->diffResult(), int(KVNDiffResultDiffer));
    }
};

QTEST_GUILESS_MAIN(TestLargeComparison)
#include "tst_largecomparison.moc"

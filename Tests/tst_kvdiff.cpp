// kvdiff as a user runs it: real process, real trees, exit status and output.
#include "KVNTestTree.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTest>

class TestKvdiff : public QObject {
    Q_OBJECT

    struct Run {
        int exitCode;
        QByteArray out;
        QByteArray err;
    };
    static Run kvdiff(const QList<QByteArray> &arguments)
    {
        QProcess process;
        QStringList args;
        for (const auto &a : arguments)
            args << QString::fromLocal8Bit(a);
        process.start(QStringLiteral(KVDIFF_BINARY), args);
        process.waitForFinished(60000);
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

private slots:
    void samplePairDiffers()
    {
        auto run = kvdiff({KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/modified"});
        QCOMPARE(run.exitCode, 1);
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 5);
        QVERIFY(run.out.contains("Only in " KVN_SAMPLES_DIR "/modified: build\n"));
        QVERIFY(run.out.contains("/docs/Guide.txt and "));
        QVERIFY(!run.out.contains("README"));
    }

    void identicalTreesExitZero()
    {
        auto run = kvdiff({KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/original/"});
        QCOMPARE(run.exitCode, 0);
        QVERIFY(run.out.isEmpty());
    }

    void troubleExitsTwoWithAMessage()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        auto missing = kvdiff({tree.path("nope"), tree.root()});
        QCOMPARE(missing.exitCode, 2);
        QVERIFY(missing.err.contains("not a directory"));
        QCOMPARE(kvdiff({tree.path("plain"), tree.root()}).exitCode, 2);
        QCOMPARE(kvdiff({tree.root()}).exitCode, 2);
        auto version = kvdiff({"--version"});
        QCOMPARE(version.exitCode, 0);
        QVERIFY(QRegularExpression("^\\d+\\.\\d+\\.\\d+\\n").match(QString::fromUtf8(version.out)).hasMatch());
    }

    void namesThatAreNotTextShowEscaped()
    {
        KVNTestTree left, right;
        left.file("d\xff/a", "1");
        right.file("d\xff/a", "2");
        right.file("new\xfe", "n");
        auto run = kvdiff({left.root(), right.root()});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.out.contains("/d\\xFF/a differ"), run.out.constData());
        QVERIFY(run.out.contains(": new\\xFE\n"));
    }
};

QTEST_GUILESS_MAIN(TestKvdiff)
#include "tst_kvdiff.moc"

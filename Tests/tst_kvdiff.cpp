// kvdiff as a user runs it: real process, real trees, exit status and output.
#include "KVNTestTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
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
        // Every row the outline shows, expanded, in outline order.
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 8);
        QCOMPARE(lines[0], QByteArray("Only in " KVN_SAMPLES_DIR "/modified: build"));
        QCOMPARE(lines[1], QByteArray("Only in " KVN_SAMPLES_DIR "/modified/build: app.out"));
        QVERIFY(lines[4].endsWith("/docs/Guide.txt and " KVN_SAMPLES_DIR "/modified/docs/guide.txt differ"));
        QVERIFY(!run.out.contains("README"));
        auto same = kvdiff({KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/original/"});
        QCOMPARE(same.exitCode, 0);
        QVERIFY(same.out.isEmpty());
    }

    void filtersChooseRowsNotTheExitStatus()
    {
        auto same = kvdiff({"--filter=same", KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/modified"});
        QCOMPARE(same.exitCode, 1);
        QVERIFY(same.out.contains("README.md are identical"));
        QVERIFY(!same.out.contains("differ"));
        // Repeated exclusions add up.
        auto repeated =
            kvdiff({"--exclude", "spotlightItemFSName == 'build'", "--exclude=spotlightItemFSName == 'docs'",
                    KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/modified"});
        QCOMPARE(repeated.exitCode, 1);
        QCOMPARE(repeated.out.trimmed().split('\n').size(), 2); // src and src/main.c
    }

    void jsonReportsEveryRow()
    {
        auto run = kvdiff({"--report=json", "--filter=all", KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/modified"});
        QCOMPARE(run.exitCode, 1);
        const QJsonObject report = QJsonDocument::fromJson(run.out).object();
        const QJsonArray rows = report.value("rows").toArray();
        QCOMPARE(rows.size(), 12);
        QVERIFY(report.value("original").toString().endsWith("/samples/original"));
        const QJsonObject first = rows[0].toObject();
        QCOMPARE(first.value("path").toString(), QStringLiteral("./assets"));
        QCOMPARE(first.value("depth").toInt(), 1);
        QCOMPARE(first.value("left").toObject().value("type").toString(), QStringLiteral("directory"));
        QJsonObject build;
        for (const auto &row : rows)
            if (row.toObject().value("path") == QStringLiteral("./build/app.out"))
                build = row.toObject();
        QVERIFY(build.value("left").isNull());
        QCOMPARE(build.value("diffResult").toInt(), 3);
        QCOMPARE(build.value("mergeDirection").toString(), QStringLiteral("left"));
        QCOMPARE(build.value("right").toObject().value("size").toInt(), 7);
    }

    void troubleExitsTwoWithAMessage()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        const std::pair<QList<QByteArray>, QByteArray> cases[] = {
            {{tree.path("nope"), tree.root()}, "not a directory"},
            {{tree.path("plain"), tree.root()}, ""},
            {{tree.root()}, ""},
            {{"--exclude=name LIKE 'x", tree.root(), tree.root()}, "bad --exclude predicate"},
            {{"--filter=sometimes", tree.root(), tree.root()}, ""},
            {{"--session", tree.path("plain")}, ""}};
        for (const auto &[arguments, message] : cases) {
            const auto run = kvdiff(arguments);
            QCOMPARE(run.exitCode, 2);
            QVERIFY2(run.err.contains(message), run.err.constData());
        }
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

// kvdiff as a user runs it: real process, real trees, exit status and output.
#include "KVNTestTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

class TestKvdiff : public QObject {
    Q_OBJECT

    struct Run {
        int exitCode;
        QByteArray out, err;
    };
    static Run kvdiff(const QList<QByteArray> &arguments)
    {
        QProcess process;
        process.start(QStringLiteral(KVDIFF_BINARY), QStringList(arguments.begin(), arguments.end()));
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

    void jsonReportsEveryRow()
    {
        auto run = kvdiff({"--report=json", "--filter=all", KVN_SAMPLES_DIR "/original", KVN_SAMPLES_DIR "/modified"});
        QCOMPARE(run.exitCode, 1);
        const QJsonArray rows = QJsonDocument::fromJson(run.out)["rows"].toArray();
        QCOMPARE(rows.size(), 12);
        QCOMPARE(rows[0]["path"].toString(), QStringLiteral("./assets"));
        QCOMPARE(rows[0]["left"]["type"].toString(), QStringLiteral("directory"));
        QJsonValue build;
        for (const QJsonValue row : rows)
            if (row["path"] == QStringLiteral("./build/app.out"))
                build = row;
        QVERIFY(build["left"].isNull());
        QCOMPARE(build["diffResult"].toInt(), 3);
        QCOMPARE(build["mergeDirection"].toString(), QStringLiteral("left"));
        QCOMPARE(build["right"]["size"].toInt(), 7);
    }

    void troubleExitsTwoWithAMessage()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        const std::pair<QList<QByteArray>, QByteArray> cases[] = {
            {{tree.path("nope"), tree.root()}, "not a directory"},
            {{tree.root()}, ""},
            {{"--exclude=name LIKE 'x", tree.root(), tree.root()}, "bad --exclude predicate"},
            {{"--filter=sometimes", tree.root(), tree.root()}, ""},
            {{"--session", tree.path("plain")}, ""}};
        for (const auto &[arguments, message] : cases) {
            const auto run = kvdiff(arguments);
            QCOMPARE(run.exitCode, 2);
            QVERIFY2(run.err.contains(message), run.err.constData());
        }
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

// ctest-label: concurrency
// kvdiff --watch as a script uses it: a live comparison in another process,
// changed from here, read line by line, stopped by end of input or a signal.
#include "KVNTestTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

#include <csignal>

class TestKvdiffWatch : public QObject {
    Q_OBJECT

    struct Watch {
        QProcess process;
        QList<QJsonObject> reports;

        Watch(const QStringList &options, const KVNTestTree &left, const KVNTestTree &right)
        {
            process.start(QStringLiteral(KVDIFF_BINARY), options + QStringList{left.root(), right.root()});
        }
        // Waits for the report with the given sequence number.
        bool waitFor(int sequence)
        {
            const auto arrived = [&] {
                while (process.canReadLine())
                    reports << QJsonDocument::fromJson(process.readLine()).object();
                return reports.size() >= sequence;
            };
            return QTest::qWaitFor(arrived, 30000);
        }
        QJsonArray rows(int sequence) const { return reports[sequence - 1].value("rows").toArray(); }
        QStringList paths(int sequence) const
        {
            QStringList list;
            for (const auto &row : rows(sequence))
                list << row.toObject().value("path").toString();
            return list;
        }
        // End of input, or a signal, ends it cleanly with the status of the last report.
        void finish(int exitCode, bool bySignal = false)
        {
            bySignal ? void(::kill(pid_t(process.processId()), SIGTERM)) : process.closeWriteChannel();
            QVERIFY(process.waitForFinished(30000));
            QCOMPARE(process.exitStatus(), QProcess::NormalExit);
            QCOMPARE(process.exitCode(), exitCode);
        }
    };

private slots:
    void updatesFollowTheDisk()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=docs/a.txt", "=docs/z.txt"});
        Watch watch({"--watch=json", "--filter=all", "--until-eof"}, left, right);
        QVERIFY(watch.waitFor(1));
        QCOMPARE(watch.paths(1), QStringList({"./docs", "./docs/a.txt", "./docs/z.txt"}));

        // A new file under an existing directory stands at the end of it, not sorted in.
        right.file("docs/m.txt", "m");
        QVERIFY(watch.waitFor(2));
        QCOMPARE(watch.reports[1].value("sequence").toInt(), 2);
        QVERIFY(watch.reports[1].value("trigger").toString().endsWith("/docs"));
        QCOMPARE(watch.paths(2), QStringList({"./docs", "./docs/a.txt", "./docs/z.txt", "./docs/m.txt"}));

        // A root that vanishes is rescanned as what is there: every row is left-only.
        // A change made while an update scans goes unseen until the next event, so
        // a fresh file pokes the watch once the removal is surely under way.
        right.remove("");
        QTest::qWait(1500);
        left.file("poke", "p");
        bool leftOnly = false;
        for (int sequence = 3; !leftOnly && watch.waitFor(sequence); ++sequence) {
            const QJsonArray rows = watch.rows(sequence);
            leftOnly = !rows.isEmpty() && std::all_of(rows.begin(), rows.end(), [](const QJsonValue &row) {
                return row.toObject().value("right").isNull();
            });
        }
        QVERIFY(leftOnly);
        watch.finish(1);
    }

    void textShowsOnlyWhatChangedUntilASignal()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=same"});
        Watch watch({"--watch"}, left, right);
        QTest::qWait(1500);
        QVERIFY(watch.process.readAllStandardOutput().isEmpty()); // nothing differs: the default filter shows nothing
        right.file("added", "a");
        QByteArray out;
        QTRY_VERIFY_WITH_TIMEOUT((out += watch.process.readAllStandardOutput()).contains(": added\n"), 30000);
        QVERIFY(out.startsWith("@ "));
        QVERIFY(out.contains("\n+ Only in "));
        watch.finish(1, true);
        QVERIFY(watch.process.readAllStandardOutput().isEmpty()); // no partial line after the signal
    }
};

QTEST_GUILESS_MAIN(TestKvdiffWatch)
#include "tst_kvdiffwatch.moc"

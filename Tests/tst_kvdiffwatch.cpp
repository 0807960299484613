// ctest-label: concurrency
// kvdiff --watch as a script uses it: a live comparison in another process,
// changed from here, read line by line, stopped by end of input or a signal.
#include "KVNTestTree.h"

#include <QElapsedTimer>
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
            process.start(QStringLiteral(KVDIFF_BINARY), options + QStringList{QString::fromLocal8Bit(left.root()),
                                                                               QString::fromLocal8Bit(right.root())});
        }
        // Waits for the report with the given sequence number.
        bool waitFor(int sequence, int timeoutMs = 30000)
        {
            QElapsedTimer clock;
            clock.start();
            while (reports.size() < sequence && clock.elapsed() < timeoutMs) {
                if (!process.canReadLine())
                    process.waitForReadyRead(200);
                while (process.canReadLine())
                    reports << QJsonDocument::fromJson(process.readLine()).object();
            }
            return reports.size() >= sequence;
        }
        QJsonArray rows(int sequence) const { return reports[sequence - 1].value("rows").toArray(); }
        QStringList paths(int sequence) const
        {
            QStringList list;
            for (const auto &row : rows(sequence))
                list << row.toObject().value("path").toString();
            return list;
        }
        QString result(int sequence, const QString &path) const
        {
            for (const auto &row : rows(sequence))
                if (row.toObject().value("path") == path)
                    return row.toObject().value("result").toString();
            return QStringLiteral("no row");
        }
        // End of input ends it cleanly, with the status of the last report.
        void finish(int exitCode)
        {
            process.closeWriteChannel();
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
        QCOMPARE(watch.reports[0].value("sequence").toInt(), 1);
        QCOMPARE(watch.paths(1), QStringList({"./docs", "./docs/a.txt", "./docs/z.txt"}));

        // A new file under an existing directory stands at the end of it, not sorted in.
        right.file("docs/m.txt", "m");
        QVERIFY(watch.waitFor(2));
        QCOMPARE(watch.reports[1].value("sequence").toInt(), 2);
        QVERIFY(watch.reports[1].value("trigger").toString().endsWith("/docs"));
        QCOMPARE(watch.paths(2), QStringList({"./docs", "./docs/a.txt", "./docs/z.txt", "./docs/m.txt"}));

        // An edit that keeps the date is not seen; a touched file is compared again.
        // Written beside the tree and moved in whole, so no scan can see it half done.
        KVNTestTree scratch;
        scratch.file("a.txt", "SAME");
        QVERIFY(::rename(scratch.path("a.txt").constData(), right.path("docs/a.txt").constData()) == 0);
        QVERIFY(watch.waitFor(3));
        QCOMPARE(watch.result(3, "./docs/a.txt"), QStringLiteral("same"));
        right.setMtime("docs/a.txt", 1700000500);
        QVERIFY(watch.waitFor(4));
        QCOMPARE(watch.result(4, "./docs/a.txt"), QStringLiteral("different"));
        watch.finish(1);
    }

    void rowsFollowStructuralChanges()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=a/one", "=a/two"});
        Watch watch({"--watch=json", "--filter=all", "--until-eof"}, left, right);
        QVERIFY(watch.waitFor(1));
        // Reads reports until the newest one satisfies the condition; changes may
        // arrive in one update or in several. A change made while an update scans
        // goes unseen until the next event, so a fresh file pokes the watch first.
        int pokes = 0;
        const auto until = [&](const std::function<bool(const QStringList &, const QJsonArray &)> &condition) {
            QTest::qWait(1500);
            left.file("poke" + QByteArray::number(++pokes), "p");
            for (int sequence = watch.reports.size() + 1; watch.waitFor(sequence); ++sequence)
                if (condition(watch.paths(sequence), watch.rows(sequence)))
                    return true;
            return false;
        };
        // A new directory with files: rows for all of them, in pre-order.
        KVNFillTrees(left, right, {">b/inner/x", ">b/y"});
        QVERIFY(until([](const QStringList &p, const QJsonArray &) {
            return p.contains("./b/y") && p.indexOf("./b") < p.indexOf("./b/inner") &&
                   p.indexOf("./b/inner") < p.indexOf("./b/inner/x");
        }));
        // A root that vanishes is rescanned as what is there: every row is left-only.
        right.remove("");
        QVERIFY(until([](const QStringList &, const QJsonArray &rows) {
            return !rows.isEmpty() && std::all_of(rows.begin(), rows.end(), [](const QJsonValue &row) {
                return row.toObject().value("right").isNull();
            });
        }));
        watch.finish(1);
    }

    void excludedNamesDoNotTrigger()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=keep", "=skip.tmp/"});
        Watch watch({"--watch=json", "--exclude=spotlightItemFSName ENDSWITH '.tmp'"}, left, right);
        QVERIFY(watch.waitFor(1));
        right.file("skip.tmp/inner", "x"); // its event names the excluded directory
        QVERIFY(!watch.waitFor(2, 6000));
        right.file("visible", "v");
        QVERIFY(watch.waitFor(2));
        QVERIFY(watch.reports[1].value("trigger").toString().endsWith(QString::fromLocal8Bit(right.root())));
        ::kill(pid_t(watch.process.processId()), SIGTERM);
        QVERIFY(watch.process.waitForFinished(30000));
        QCOMPARE(watch.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(watch.process.exitCode(), 1);                    // the last report has an extra file on one side
        QVERIFY(watch.process.readAllStandardOutput().isEmpty()); // no partial line after the signal
    }

    void textShowsOnlyWhatChanged()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=same"});
        Watch watch({"--watch", "--until-eof"}, left, right);
        QTest::qWait(1500);
        QVERIFY(watch.process.readAllStandardOutput().isEmpty()); // nothing differs: the default filter shows nothing
        right.file("added", "a");
        QByteArray out;
        QTRY_VERIFY_WITH_TIMEOUT((out += watch.process.readAllStandardOutput()).contains(": added\n"), 30000);
        QVERIFY(out.startsWith("@ "));
        QVERIFY(out.contains("\n+ Only in "));
        watch.finish(1);
    }
};

QTEST_GUILESS_MAIN(TestKvdiffWatch)
#include "tst_kvdiffwatch.moc"

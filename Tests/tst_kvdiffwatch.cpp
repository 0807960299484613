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
#include <cstdio>
#include <functional>

class TestKvdiffWatch : public QObject {
    Q_OBJECT

    struct Watch {
        QProcess process;
        QList<QJsonObject> reports;

        void start(const QStringList &arguments)
        {
            process.start(QStringLiteral(KVDIFF_BINARY), arguments);
            QVERIFY(process.waitForStarted());
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
        QStringList paths(int sequence) const
        {
            QStringList list;
            for (const auto &row : reports[sequence - 1].value("rows").toArray())
                list << row.toObject().value("path").toString();
            return list;
        }
    };

private slots:
    void updatesFollowTheDisk()
    {
        KVNTestTree left, right;
        left.file("docs/a.txt", "a");
        right.file("docs/a.txt", "a");
        left.file("docs/z.txt", "z");
        right.file("docs/z.txt", "z");
        Watch watch;
        watch.start({"--watch=json", "--filter=all", "--until-eof", QString::fromLocal8Bit(left.root()),
                     QString::fromLocal8Bit(right.root())});
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
        scratch.file("a.txt", "A", 1700000000);
        QVERIFY(::rename(scratch.path("a.txt").constData(), right.path("docs/a.txt").constData()) == 0);
        QVERIFY(watch.waitFor(3));
        const auto rowA = [&](int sequence) {
            for (const auto &row : watch.reports[sequence - 1].value("rows").toArray())
                if (row.toObject().value("path") == QStringLiteral("./docs/a.txt"))
                    return row.toObject();
            return QJsonObject();
        };
        QCOMPARE(rowA(3).value("result").toString(), QStringLiteral("same"));
        right.setMtime("docs/a.txt", 1700000500);
        QVERIFY(watch.waitFor(4));
        QCOMPARE(rowA(4).value("result").toString(), QStringLiteral("different"));

        // End of input ends it cleanly, with the status of the last report.
        watch.process.closeWriteChannel();
        QVERIFY(watch.process.waitForFinished(30000));
        QCOMPARE(watch.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(watch.process.exitCode(), 1);
    }

    void rowsFollowStructuralChanges()
    {
        KVNTestTree left, right;
        for (auto *tree : {&left, &right}) {
            tree->file("a/one", "1");
            tree->file("a/two", "2");
            tree->file("Case.txt", "c");
        }
        Watch watch;
        watch.start({"--watch=json", "--filter=all", "--until-eof", QString::fromLocal8Bit(left.root()),
                     QString::fromLocal8Bit(right.root())});
        QVERIFY(watch.waitFor(1));
        // Reads reports until the newest one satisfies the condition; changes may
        // arrive in one update or in several. A change made while an update scans
        // goes unseen until the next event, so a fresh file pokes the watch first.
        int pokes = 0;
        const auto until = [&](const std::function<bool(const QStringList &, const QJsonArray &)> &condition) {
            QTest::qWait(1500);
            left.file("poke" + QByteArray::number(++pokes), "p");
            for (int sequence = watch.reports.size() + 1; watch.waitFor(sequence, 30000); ++sequence) {
                const QJsonArray rows = watch.reports[sequence - 1].value("rows").toArray();
                if (condition(watch.paths(sequence), rows))
                    return true;
            }
            return false;
        };

        // A new directory with files: rows for all of them, in pre-order.
        right.file("b/inner/x", "x");
        right.file("b/y", "y");
        QVERIFY(until(
            [](const QStringList &p, const QJsonArray &) { return p.contains("./b/inner/x") && p.contains("./b/y"); }));
        const QStringList paths = watch.paths(watch.reports.size());
        QVERIFY(paths.indexOf("./b") < paths.indexOf("./b/inner"));
        QVERIFY(paths.indexOf("./b/inner") < paths.indexOf("./b/inner/x"));

        // Deleted on one side: the row stays, single; on both sides: the row goes.
        left.remove("a/one");
        right.remove("a/two");
        left.remove("a/two");
        QVERIFY(until(
            [](const QStringList &p, const QJsonArray &) { return !p.contains("./a/two") && p.contains("./a/one"); }));

        // A case-only rename on the left: the old path goes, the new one comes.
        left.rename("Case.txt", "CASE.txt");
        QVERIFY(until([](const QStringList &p, const QJsonArray &) {
            return p.contains("./CASE.txt") && !p.contains("./Case.txt");
        }));

        // A root that vanishes is rescanned as what is there: every row is left-only.
        right.remove("");
        QVERIFY(until([](const QStringList &, const QJsonArray &rows) {
            for (const auto &row : rows)
                if (!row.toObject().value("right").isNull())
                    return false;
            return !rows.isEmpty();
        }));
        watch.process.closeWriteChannel();
        QVERIFY(watch.process.waitForFinished(30000));
        QCOMPARE(watch.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(watch.process.exitCode(), 1);
    }

    void excludedNamesDoNotTrigger()
    {
        KVNTestTree left, right;
        left.file("keep", "k");
        right.file("keep", "k");
        left.dir("skip.tmp");
        right.dir("skip.tmp");
        Watch watch;
        watch.start({"--watch=json", "--exclude=spotlightItemFSName ENDSWITH '.tmp'",
                     QString::fromLocal8Bit(left.root()), QString::fromLocal8Bit(right.root())});
        QVERIFY(watch.waitFor(1));
        QCOMPARE(watch.process.state(), QProcess::Running);
        right.file("skip.tmp/inner", "x"); // its event names the excluded directory
        QVERIFY(!watch.waitFor(2, 6000));
        right.file("visible", "v");
        QVERIFY(watch.waitFor(2));
        QVERIFY(watch.reports[1].value("trigger").toString().endsWith(QString::fromLocal8Bit(right.root())));
        ::kill(pid_t(watch.process.processId()), SIGTERM);
        QVERIFY(watch.process.waitForFinished(30000));
        QCOMPARE(watch.process.exitStatus(), QProcess::NormalExit);
        // The last report has an extra file on one side.
        QCOMPARE(watch.process.exitCode(), 1);
        QVERIFY(watch.process.readAllStandardOutput().isEmpty()); // no partial line after the signal
    }

    void textShowsOnlyWhatChanged()
    {
        KVNTestTree left, right;
        left.file("same", "s");
        right.file("same", "s");
        QProcess process;
        process.start(QStringLiteral(KVDIFF_BINARY), {"--watch", "--until-eof", QString::fromLocal8Bit(left.root()),
                                                      QString::fromLocal8Bit(right.root())});
        QVERIFY(process.waitForStarted());
        QTest::qWait(1500);
        QVERIFY(process.readAllStandardOutput().isEmpty()); // nothing differs: the default filter shows nothing
        right.file("added", "a");
        QByteArray out;
        QTRY_VERIFY_WITH_TIMEOUT((out += process.readAllStandardOutput()).contains(": added\n"), 30000);
        QVERIFY(out.startsWith("@ "));
        QVERIFY(out.contains("\n+ Only in "));
        process.closeWriteChannel();
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitCode(), 1);
    }
};

QTEST_GUILESS_MAIN(TestKvdiffWatch)
#include "tst_kvdiffwatch.moc"

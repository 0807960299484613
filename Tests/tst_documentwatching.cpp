// ctest-label: concurrency
#include "KVNDirCompDocument.h"
#include "KVNTestTree.h"

#include <QtTest>

namespace {

// A watch that would have fired has fired well within this (latency 0.3 s).
constexpr int kQuietMs = 1500;

// One headless, watching document on two trees, run once to its end.
struct WatchedSession : KVNDirCompDocumentView {
    WatchedSession(const KVNTestTree &left, const KVNTestTree &right) : doc(KVNDirCompDocument::make())
    {
        doc->setWatchLatency(0.3);
        doc->setOriginalURL(left.root(), right.root());
        doc->setView(this);
        doc->awakeFromNib();
        if (!QTest::qWaitFor([this] { return settled(1); }, 30000))
            qWarning("the first run did not end");
    }
    ~WatchedSession() override
    {
        doc->goodByeKiss();
        doc->setView(nullptr);
    }
    bool settled(int runs) const
    {
        return doc->completedRuns() >= runs && !doc->isBusy() && isSpinnerHidden() && doc->isWatching();
    }
    KVNDirDiffTableElementPtr row(const QByteArray &path) const
    {
        for (const auto &r : doc->sourceArrayController()->arrangedObjects())
            if (r->relativePath() == "./" + path)
                return r;
        return nullptr;
    }

    std::shared_ptr<KVNDirCompDocument> doc;
};

// The inotify instances this process holds: one per running watcher.
int inotifyInstances()
{
    int count = 0;
    const QDir fds(QStringLiteral("/proc/self/fd"));
    for (const QString &fd : fds.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System))
        count += QFile::symLinkTarget(fds.filePath(fd)).contains(QStringLiteral("inotify"));
    return count;
}

} // namespace

class TestDocumentWatching : public QObject {
    Q_OBJECT

    QTemporaryDir settingsDir_;

private slots:
    void initTestCase() { KVNUseIsolatedDefaults(settingsDir_); }

    void updatesFollowTheDiskWhileWatching()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=a"});
        WatchedSession s(left, right);
        QVERIFY(s.settled(1));
        const auto a = s.row("a");
        const int watching = inotifyInstances();
        QVERIFY(watching >= 1);
        left.file("new.txt", "fresh");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("new.txt"), 30000);
        QCOMPARE(s.doc->lastTriggeringEventPath(), left.root());
        QCOMPARE(s.row("new.txt")->diffResult(), KVNDiffResultSingle);
        QCOMPARE(s.row("a"), a); // reconciled, not rebuilt
        // And once more: the watch is back after the update, and only one.
        right.file("new.txt", "fresh");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(3) && s.row("new.txt")->diffResult() == KVNDiffResultSame, 30000);
        QCOMPARE(s.doc->lastTriggeringEventPath(), right.root());
        QCOMPARE(inotifyInstances(), watching);

        // Turning it off or on twice is the same as once.
        s.doc->disableFSWatchers();
        s.doc->disableFSWatchers();
        QVERIFY(!s.doc->isWatching());
        QCOMPARE(inotifyInstances(), watching - 1);
        left.file("while-off");
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 3);
        s.doc->enableFSWatchers();
        s.doc->enableFSWatchers();
        QVERIFY(s.doc->isWatching());
        QCOMPARE(inotifyInstances(), watching);
        // A watch starts now: the change made while off is not reported late.
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 3);
        left.file("while-on");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(4) && s.row("while-on") && s.row("while-off"), 30000);
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 4); // one watch, one update
    }

    void theFolderThatChangedTriggersUnlessExcluded()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/e/x", "<.git/HEAD", "<.git/objects/ab/cd"});
        WatchedSession s(left, right);
        left.file(".git/x", "ignored");
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 1);
        QVERIFY(s.doc->lastTriggeringEventPath().isEmpty());

        right.file("d/e/x", "else", 1700000500);
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("d/e/x")->diffResult() == KVNDiffResultDiffer, 30000);
        QCOMPARE(s.doc->lastTriggeringEventPath(), right.path("d/e"));
        // With no directory row to recompare, the update may report before its file
        // compare is in, so its own refresh can miss it; the next refresh rolls it up.
        s.doc->scheduleRefreshDiffStatus();
        QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isBusy() && s.row("d")->diffResult() == KVNDiffResultDiffer, 30000);
        QCOMPARE(s.row("d/e")->diffResult(), KVNDiffResultDiffer);

        // The name of the folder the event names is what counts, not its ancestors.
        left.file(".git/objects/ab/ef", "blob");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(3), 30000);
        QCOMPARE(s.doc->lastTriggeringEventPath(), left.path(".git/objects/ab"));
    }
};

QTEST_GUILESS_MAIN(TestDocumentWatching)
#include "tst_documentwatching.moc"

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
        (void)QTest::qWaitFor([this] { return settled(1); }, 30000); // the tests check settled(1)
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
        const auto rows = doc->sourceArrayController()->arrangedObjects();
        const auto it = std::ranges::find(rows, "./" + path, &KVNDirDiffTableElement::relativePath);
        return it == rows.end() ? nullptr : *it;
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
        KVNFillTrees(left, right, {"=a", "<.git/HEAD"});
        WatchedSession s(left, right);
        QVERIFY(s.settled(1));
        const auto a = s.row("a");
        const int watching = inotifyInstances();
        QVERIFY(watching >= 1);
        left.file("new.txt", "fresh");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("new.txt"), 30000);
        QCOMPARE(s.doc->lastTriggeringEventPath(), left.root());
        QCOMPARE(s.row("a"), a); // reconciled, not rebuilt
        // And once more: the watch is back after the update, and only one.
        right.file("new.txt", "fresh");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(3) && s.row("new.txt")->diffResult() == KVNDiffResultSame, 30000);
        QCOMPARE(inotifyInstances(), watching);

        // Turning it on twice is the same as once.
        s.doc->disableFSWatchers();
        QVERIFY(!s.doc->isWatching() && inotifyInstances() == watching - 1);
        left.file("while-off");
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 3);
        s.doc->enableFSWatchers();
        s.doc->enableFSWatchers();
        QVERIFY(s.doc->isWatching() && inotifyInstances() == watching);
        // A watch starts now: the change made while off is not reported late, and a change
        // in a folder whose own name is excluded triggers nothing.
        left.file(".git/x", "ignored");
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 3);
        left.file("while-on");
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(4) && s.row("while-on") && s.row("while-off"), 30000);
        QTest::qWait(kQuietMs);
        QCOMPARE(s.doc->completedRuns(), 4); // one watch, one update
    }
};

QTEST_GUILESS_MAIN(TestDocumentWatching)
#include "tst_documentwatching.moc"

// ctest-label: concurrency
#include "KVNDirCompDocument.h"
#include "KVNTestTree.h"
#include "KVNUserDefaults.h"

#include <QtTest>

#include <unistd.h>

namespace {

// A watch that would have fired has fired well within this (latency 0.3 s).
constexpr int kQuietMs = 1500;

class StatusView : public KVNDirCompDocumentView {
public:
    void setStatusText(const QString &text) override { statusTexts << text; }
    QStringList statusTexts;
};

// One headless, watching document on two trees.
struct WatchedSession {
    WatchedSession(const KVNTestTree &left, const KVNTestTree &right) : doc(KVNDirCompDocument::make())
    {
        doc->setWatchLatency(0.3);
        doc->setOriginalURL(left.root(), right.root());
        doc->setView(&view);
    }
    ~WatchedSession()
    {
        doc->goodByeKiss();
        doc->setView(nullptr);
    }
    bool settled(int runs) const
    {
        return doc->completedRuns() >= runs && !doc->isBusy() && view.isSpinnerHidden() && doc->isWatching();
    }
    KVNDirDiffTableElementPtr row(const QByteArray &path) const
    {
        for (const auto &r : doc->sourceArrayController()->arrangedObjects())
            if (r->relativePath() == "./" + path)
                return r;
        return nullptr;
    }

    StatusView view;
    std::shared_ptr<KVNDirCompDocument> doc;
};

#define START_AND_SETTLE(s)                                                                                            \
    (s).doc->awakeFromNib();                                                                                           \
    QTRY_VERIFY_WITH_TIMEOUT((s).settled(1), 30000)

// The inotify instances this process holds: one per running watcher.
int inotifyInstances()
{
    int count = 0;
    const QDir fds(QStringLiteral("/proc/self/fd"));
    for (const QString &fd : fds.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        char target[256] = {};
        const QByteArray link = QFile::encodeName(fds.filePath(fd));
        const ssize_t n = ::readlink(link.constData(), target, sizeof target - 1);
        if (n > 0 && QByteArray(target, int(n)).contains("inotify"))
            ++count;
    }
    return count;
}

} // namespace

class TestDocumentWatching : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    // Changes that reach the table
    void newFileReachesTheRowsByItself();
    void changeInANestedFolderNamesThatFolder();
    void stagedDirectionOnAnUnrelatedRowSurvives();
    void editUnderTheSameDateGoesUnnoticedUntilTouched();

    // Changes that do not
    void changeInAnExcludedFolderCausesNoUpdate();

    // The watch itself
    void enableAndDisableAreIdempotent();

private:
    QTemporaryDir settingsDir_;
};

void TestDocumentWatching::initTestCase()
{
    QVERIFY(settingsDir_.isValid());
    KVNUserDefaults::standardUserDefaults().setStoragePath(settingsDir_.filePath(QStringLiteral("defaults.ini")));
    KVNRegisterApplicationDefaults();
}

void TestDocumentWatching::newFileReachesTheRowsByItself()
{
    KVNTestTree left, right;
    left.file("a", "same");
    right.file("a", "same");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);
    QVERIFY(s.doc->lastTriggeringEventPath().isEmpty());
    const auto a = s.row("a");

    left.file("new.txt", "fresh");
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("new.txt"), 30000);
    QCOMPARE(s.doc->lastTriggeringEventPath(), left.root());
    QCOMPARE(s.row("new.txt")->diffResult(), KVNDiffResultSingle);
    QCOMPARE(s.row("a"), a); // an update reconciles rows, it does not rebuild them
    QVERIFY(s.doc->filteredTopLevelRows() == std::vector<KVNDirDiffTableElementPtr>{s.row("new.txt")});
    QCOMPARE(s.view.statusTexts.count(QStringLiteral("Comparing Files and Folders") + QChar(0x2026)), 2);

    // And once more: the watch is back after the update.
    right.file("new.txt", "fresh");
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(3) && s.row("new.txt")->diffResult() == KVNDiffResultSame, 30000);
    QCOMPARE(s.doc->lastTriggeringEventPath(), right.root());
}

void TestDocumentWatching::changeInANestedFolderNamesThatFolder()
{
    KVNTestTree left, right;
    left.file("d/e/x", "1");
    right.file("d/e/x", "1");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);

    right.file("d/e/x", "2", 1700000500);
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("d/e/x")->diffResult() == KVNDiffResultDiffer, 30000);
    QCOMPARE(s.doc->lastTriggeringEventPath(), right.path("d/e"));
    // With no directory row to recompare, the update may report before its file
    // compare is in, so its own refresh can miss it; the next refresh rolls it up.
    s.doc->scheduleRefreshDiffStatus();
    QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isBusy() && s.row("d")->diffResult() == KVNDiffResultDiffer, 30000);
    QCOMPARE(s.row("d/e")->diffResult(), KVNDiffResultDiffer);
}

void TestDocumentWatching::stagedDirectionOnAnUnrelatedRowSurvives()
{
    KVNTestTree left, right;
    left.file("changed.txt", "left", 1700000100); // newer on the left: flows right by default
    right.file("changed.txt", "rite");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);
    const auto changed = s.row("changed.txt");
    QCOMPARE(changed->mergeDirection(), uint64_t(KVNMergeDirectionRight));
    changed->setMergeDirection(KVNMergeDirectionLeft); // staged by the user, against the default

    right.file("unrelated.txt", "new");
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("unrelated.txt"), 30000);
    QCOMPARE(s.row("changed.txt"), changed);
    QCOMPARE(changed->mergeDirection(), uint64_t(KVNMergeDirectionLeft));
    QCOMPARE(changed->diffResult(), KVNDiffResultDiffer);
}

void TestDocumentWatching::editUnderTheSameDateGoesUnnoticedUntilTouched()
{
    KVNTestTree left, right;
    left.file("f.txt", "abcd", 1700000000);
    right.file("f.txt", "abcd", 1700000000);
    right.file("other", "x");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);
    QCOMPARE(s.row("f.txt")->diffResult(), KVNDiffResultSame);

    // New contents, old date: the update runs, but change is judged by date.
    left.file("f.txt", "wxyz", 1700000000);
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
    QCOMPARE(s.doc->lastTriggeringEventPath(), left.root());
    QCOMPARE(s.row("f.txt")->diffResult(), KVNDiffResultSame);

    left.setMtime("f.txt", 1700000200);
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(3), 30000);
    QCOMPARE(s.row("f.txt")->diffResult(), KVNDiffResultDiffer);
}

void TestDocumentWatching::changeInAnExcludedFolderCausesNoUpdate()
{
    KVNTestTree left, right;
    left.file(".git/HEAD", "ref");
    left.file(".git/objects/ab/cd", "blob");
    left.file("a");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);

    left.file(".git/x", "ignored");
    QTest::qWait(kQuietMs);
    QCOMPARE(s.doc->completedRuns(), 1);
    QVERIFY(s.doc->lastTriggeringEventPath().isEmpty());
    QVERIFY(s.doc->isWatching());

    // The name of the folder the event names is what counts, not its ancestors.
    left.file(".git/objects/ab/ef", "blob");
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
    QCOMPARE(s.doc->lastTriggeringEventPath(), left.path(".git/objects/ab"));
}

void TestDocumentWatching::enableAndDisableAreIdempotent()
{
    KVNTestTree left, right;
    left.file("a");
    WatchedSession s(left, right);
    START_AND_SETTLE(s);
    const int watching = inotifyInstances();
    QVERIFY(watching >= 1);

    s.doc->disableFSWatchers();
    s.doc->disableFSWatchers();
    QVERIFY(!s.doc->isWatching());
    QCOMPARE(inotifyInstances(), watching - 1);
    left.file("while-off");
    QTest::qWait(kQuietMs);
    QCOMPARE(s.doc->completedRuns(), 1);

    s.doc->enableFSWatchers();
    s.doc->enableFSWatchers();
    QVERIFY(s.doc->isWatching());
    QCOMPARE(inotifyInstances(), watching);
    // A watch starts now: the change made while off is not reported late.
    QTest::qWait(kQuietMs);
    QCOMPARE(s.doc->completedRuns(), 1);

    left.file("while-on");
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2) && s.row("while-on") && s.row("while-off"), 30000);
    QTest::qWait(kQuietMs);
    QCOMPARE(s.doc->completedRuns(), 2); // one watch, one update
}

QTEST_GUILESS_MAIN(TestDocumentWatching)
#include "tst_documentwatching.moc"

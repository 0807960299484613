// ctest-label: concurrency
#include "KVNDirCompDocument.h"
#include "KVNMainThread.h"
#include "KVNPathBytes.h"
#include "KVNTestTree.h"
#include "KVNUserDefaults.h"

#include <QtTest>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace {

const QString kComparing = QStringLiteral("Comparing Files and Folders") + QChar(0x2026);
const QString kRefreshing = QStringLiteral("Refreshing Diff Status") + QChar(0x2026);
const QString kCancelling = QStringLiteral("Cancelling operations") + QChar(0x2026);

// Records what the document asks of its window.
class RecordingView : public KVNDirCompDocumentView {
public:
    void reloadData() override { ++reloadDataCount; }
    void reloadItem(const KVNDirDiffTableElementPtr &item, bool) override { reloadedItems.push_back(item); }
    void setStatusText(const QString &text) override { statusTexts << text; }
    void setSpinnerHidden(bool hidden) override
    {
        KVNDirCompDocumentView::setSpinnerHidden(hidden);
        spinnerShownCount += hidden ? 0 : 1;
    }
    void startSpinner() override { ++spinnerStarts; }
    void stopSpinner() override { ++spinnerStops; }
    void closeWindow() override { ++closeWindowCount; }

    int reloadDataCount = 0;
    std::vector<KVNDirDiffTableElementPtr> reloadedItems;
    QStringList statusTexts;
    int spinnerShownCount = 0, spinnerStarts = 0, spinnerStops = 0, closeWindowCount = 0;
};

// Occupies a worker until opened; with yieldsToCancel a cancel opens it too.
class GateOperation : public KVNOperation {
public:
    explicit GateOperation(bool yieldsToCancel) : yieldsToCancel_(yieldsToCancel) {}
    void open()
    {
        std::lock_guard lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    void cancel() override
    {
        KVNOperation::cancel();
        std::lock_guard lock(mutex_);
        sawCancel_ = true;
        cv_.notify_all();
    }
    bool started() const
    {
        std::lock_guard lock(mutex_);
        return started_;
    }
    bool sawCancel() const
    {
        std::lock_guard lock(mutex_);
        return sawCancel_;
    }

protected:
    void main() override
    {
        std::unique_lock lock(mutex_);
        started_ = true;
        cv_.wait(lock, [this] { return open_ || (yieldsToCancel_ && sawCancel_); });
    }

private:
    const bool yieldsToCancel_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false, started_ = false, sawCancel_ = false;
};

// Turns a hang into a failure with a message.
class Watchdog {
public:
    Watchdog(int seconds, const char *what)
        : thread_([this, seconds, what] {
              std::unique_lock lock(mutex_);
              if (!cv_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; }))
                  qFatal("%s: no progress after %d s, probably deadlocked", what, seconds);
          })
    {}
    ~Watchdog()
    {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_; // last: starts once the rest is built
};

// One headless document on two trees, torn down safely even after a failure.
struct Session {
    Session(const KVNTestTree &left, const KVNTestTree &right, int width = 0, bool watch = true)
        : doc(KVNDirCompDocument::make())
    {
        if (width > 0)
            doc->refreshOperationQueue().setMaxConcurrentOperationCount(width);
        doc->setWatchesFileSystem(watch);
        doc->setWatchLatency(0.3);
        doc->setOriginalURL(left.root(), right.root());
        doc->setView(&view);
    }
    ~Session()
    {
        for (const auto &gate : gates)
            gate->open();
        doc->goodByeKiss();
        doc->setView(nullptr);
    }
    std::shared_ptr<GateOperation> addGate(bool yieldsToCancel)
    {
        gates.push_back(std::make_shared<GateOperation>(yieldsToCancel));
        doc->refreshOperationQueue().addOperation(gates.back());
        return gates.back();
    }
    // Starts an update whose reconciliation must wait for the main thread to
    // drop the row of "ghost", then a gate: on a single worker the update's
    // final operation can only be queued behind the gate.
    std::shared_ptr<GateOperation> startHeldUpdate(KVNTestTree &left, bool yieldsToCancel)
    {
        const bool watching = doc->isWatching();
        doc->disableFSWatchers(); // the removal is the test's doing, not news
        left.remove("ghost");
        if (watching)
            doc->enableFSWatchers();
        doc->performTableUpdate();
        return addGate(yieldsToCancel);
    }
    bool settled(int runs) const { return doc->completedRuns() >= runs && !doc->isBusy() && view.isSpinnerHidden(); }
    KVNDirDiffTableElementPtr row(const QByteArray &path) const
    {
        for (const auto &r : doc->sourceArrayController()->arrangedObjects())
            if (r->relativePath() == "./" + path)
                return r;
        return nullptr;
    }
    static QStringList names(const std::vector<KVNDirDiffTableElementPtr> &rows)
    {
        QStringList out;
        for (const auto &r : rows)
            out << r->displayRelativePath().mid(2);
        out.sort();
        return out;
    }
    QStringList shown() const { return names(doc->filteredTopLevelRows()); }
    QStringList children(const QByteArray &path) const
    {
        auto kids = doc->cachedFilteredChildrenForElement(row(path));
        return kids ? names(*kids) : QStringList{QStringLiteral("<none>")};
    }

    RecordingView view;
    std::shared_ptr<KVNDirCompDocument> doc;
    std::vector<std::shared_ptr<GateOperation>> gates;
};

#define START_AND_SETTLE(s)                                                                                            \
    (s).doc->awakeFromNib();                                                                                           \
    QTRY_VERIFY_WITH_TIMEOUT((s).settled(1), 30000)

KVNPredicatePtr orWith(const KVNPredicatePtr &old, const QString &format)
{
    return KVNPredicate::orPredicateWithSubpredicates({old, KVNPredicate::predicateWithFormat(format)});
}

} // namespace

class TestDirCompDocument : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    // A run from start to end
    void fullRunEndsFilteredWithStatusAndSpinner();
    void emptyTableStillCompletesARun();
    void rowRefreshReloadsParentsOrEverything();

    // Stopping, rerunning and closing
    void mergeRefreshWhileBusyResetsOnlyAfterTheQueueDrained();
    void mergeCancelRefreshWithEmptyQueueDoesNothing();
    void stopLeavesWatchingOffUntilARunCompletes();
    void closeDuringARunCancelsAndClosesByItself();
    void windowShouldCloseAnswersByTheQueue();
    void updateDuringReconciliationDoesNotDeadlock();
    void goodByeKissStopsWatchingAndObserving();

    // Exclusion and filters
    void exclusionChangeWhileIdleRefreshesAndMarksEdited();
    void exclusionChangeDuringAScanRestartsNothing();
    void filterActionsSetTheirPredicates_data();
    void filterActionsSetTheirPredicates();
    void showAllStillHidesExcludedEntries();
    void changedOnlyShowsDifferentAndMixedChildren();
    void childCacheAnswersUntilFiltersAreReapplied();
    void excludeByFilenameMatchesAsAPattern();
    void excludeByFilenameKeepsUndecodableNamesApart_data();
    void excludeByFilenameKeepsUndecodableNamesApart();
    void excludeAllByExtensionGrowsOneLevelPerUse();

private:
    QTemporaryDir settingsDir_;
};

void TestDirCompDocument::initTestCase()
{
    QVERIFY(settingsDir_.isValid());
    KVNUserDefaults::standardUserDefaults().setStoragePath(settingsDir_.filePath(QStringLiteral("defaults.ini")));
    KVNRegisterApplicationDefaults();
}

void TestDirCompDocument::fullRunEndsFilteredWithStatusAndSpinner()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("same.txt", "same");
        tree->file("d/x", tree == &left ? "left" : "rite");
        tree->file("dsdir/.DS_Store", tree == &left ? "1" : "2"); // the only difference is excluded
        tree->file(".git/config", tree == &left ? "1" : "2");
        for (int i = 0; i < 150; ++i) // enough rows for the refresh to report steps
            tree->file("many/f" + QByteArray::number(i), "same");
    }
    left.file("diff.txt", "left");
    right.file("diff.txt", "rite");
    left.file("lonly");
    right.file("ronly");
    left.file("CVS", "excluded single");
    Session s(left, right);
    START_AND_SETTLE(s);

    QCOMPARE(s.row("same.txt")->diffResult(), KVNDiffResultSame);
    QCOMPARE(s.row("diff.txt")->diffResult(), KVNDiffResultDiffer);
    QCOMPARE(s.row("lonly")->diffResult(), KVNDiffResultSingle);
    QCOMPARE(s.row("d")->diffResult(), KVNDiffResultDiffer);
    QCOMPARE(s.row("dsdir")->diffResult(), KVNDiffResultSame);
    QCOMPARE(s.row("many")->diffResult(), KVNDiffResultSame);
    QCOMPARE(s.shown(), QStringList({"d", "diff.txt", "lonly", "ronly"}));
    // The same set, worked out from the rule rather than by hand.
    const auto combined = KVNPredicate::andPredicateWithSubpredicates(
        {KVNPredicate::notPredicateWithSubpredicate(s.doc->exclusionPredicate()), s.doc->filterPredicate()});
    std::vector<KVNDirDiffTableElementPtr> expected;
    for (const auto &r : s.doc->sourceArrayController()->arrangedObjects())
        if (r->depthHint() == 1 && combined->evaluateWithObject(*r))
            expected.push_back(r);
    QCOMPARE(s.shown(), Session::names(expected));
    QCOMPARE(s.doc->selectedFilterAction(), KVNFilterAction::ShowDefault);
    QVERIFY(!s.doc->isDocumentEdited());

    const qsizetype comparing = s.view.statusTexts.indexOf(kComparing);
    QVERIFY2(comparing >= 0, qPrintable(s.view.statusTexts.join('|')));
    QVERIFY(s.view.statusTexts.indexOf(kRefreshing, comparing) > comparing);
    QVERIFY(!s.view.statusTexts.contains(kCancelling));
    QVERIFY(s.view.spinnerShownCount >= 1 && s.view.spinnerStarts >= 1 && s.view.spinnerStops >= 1);
    QVERIFY(s.view.isSpinnerHidden());
    // The builder's report reloads everything; refresh steps reload a parent.
    QVERIFY(std::count(s.view.reloadedItems.begin(), s.view.reloadedItems.end(), nullptr) >= 1);
    QVERIFY(std::any_of(s.view.reloadedItems.begin(), s.view.reloadedItems.end(), [](const auto &r) { return r; }));
    QVERIFY(s.doc->isWatching());
}

void TestDirCompDocument::emptyTableStillCompletesARun()
{
    KVNTestTree left, right;
    Session s(left, right);
    START_AND_SETTLE(s);
    QCOMPARE(s.doc->completedRuns(), 1);
    QCOMPARE(s.doc->sourceArrayController()->arrangedObjectsCount(), std::size_t(0));
    QVERIFY(s.view.statusTexts.contains(kRefreshing));
}

void TestDirCompDocument::rowRefreshReloadsParentsOrEverything()
{
    KVNTestTree left, right;
    left.file("d/x", "1");
    right.file("d/x", "2");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    s.view.reloadedItems.clear();
    const std::vector<KVNDirDiffTableElementPtr> none;
    s.doc->doRefreshElements(&none);
    QVERIFY(s.view.reloadedItems.empty());
    const std::vector<KVNDirDiffTableElementPtr> child{s.row("d/x")}, top{s.row("d")};
    s.doc->doRefreshElements(&child);
    s.doc->doRefreshElements(&top); // a top-level row has no parent: everything reloads
    s.doc->doRefreshElements(nullptr);
    QCOMPARE(s.view.reloadedItems, (std::vector<KVNDirDiffTableElementPtr>{s.row("d"), nullptr, nullptr}));
}

void TestDirCompDocument::mergeRefreshWhileBusyResetsOnlyAfterTheQueueDrained()
{
    KVNTestTree left, right;
    left.file("a", "1");
    right.file("a", "2");
    left.file("b");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    const auto before = s.doc->sourceArrayController()->arrangedObjects();
    auto gate = s.addGate(false);
    QTRY_VERIFY_WITH_TIMEOUT(gate->started(), 30000);

    s.doc->mergeRefresh(); // must return at once: the gate is still shut
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->busyCancelling() && s.view.statusTexts.endsWith(kCancelling), 30000);
    QVERIFY(gate->sawCancel());
    QCOMPARE(s.doc->sourceArrayController()->arrangedObjects(), before);
    for (const auto &r : before)
        QVERIFY(r->leftNode()); // not reset yet

    gate->open();
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
    const auto after = s.doc->sourceArrayController()->arrangedObjects();
    QCOMPARE(after.size(), before.size());
    for (const auto &r : before) {
        QVERIFY(std::find(after.begin(), after.end(), r) == after.end());
        QVERIFY(!r->leftNode() && !r->rightNode()); // the reset cut the old rows
    }
    QCOMPARE(s.row("a")->diffResult(), KVNDiffResultDiffer);
}

void TestDirCompDocument::mergeCancelRefreshWithEmptyQueueDoesNothing()
{
    KVNTestTree left, right;
    left.file("a");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    const QStringList statuses = s.view.statusTexts;
    const int reloads = s.view.reloadDataCount;
    s.doc->mergeCancelRefresh();
    QVERIFY(!s.doc->busyCancelling());
    QTest::qWait(500); // room for a wrongly started wait and its posted filter action
    QCOMPARE(s.view.statusTexts, statuses);
    QCOMPARE(s.view.reloadDataCount, reloads);
    QCOMPARE(s.doc->completedRuns(), 1);
}

void TestDirCompDocument::stopLeavesWatchingOffUntilARunCompletes()
{
    KVNTestTree left, right;
    left.file("a");
    left.file("ghost");
    Session s(left, right, 1); // one worker, so that the gate holds the run back
    START_AND_SETTLE(s);
    QVERIFY(s.doc->isWatching());

    auto gate = s.startHeldUpdate(left, true);
    QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isWatching() && gate->started(), 30000);
    s.doc->mergeCancelRefresh();
    QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isBusy() && !s.doc->busyCancelling() && s.view.isSpinnerHidden(), 30000);
    QVERIFY(!s.doc->isWatching());

    left.file("new-after-stop");
    QTest::qWait(1500); // several latencies: a live watch would have started an update
    QCOMPARE(s.doc->completedRuns(), 1);
    QVERIFY(!s.doc->isWatching());
    QVERIFY(!s.row("new-after-stop"));

    s.doc->mergeRefresh();
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
    QVERIFY(s.doc->isWatching());
    QVERIFY(s.row("new-after-stop"));
}

void TestDirCompDocument::closeDuringARunCancelsAndClosesByItself()
{
    KVNTestTree left, right;
    for (int i = 0; i < 50; ++i)
        left.file("f" + QByteArray::number(i), "x");
    left.file("ghost");
    Session s(left, right, 1, false);
    START_AND_SETTLE(s);
    auto gate = s.startHeldUpdate(left, false);
    QTRY_VERIFY_WITH_TIMEOUT(gate->started(), 30000);

    s.doc->close();
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->busyCancelling() && s.view.statusTexts.endsWith(kCancelling), 30000);
    QVERIFY(!s.doc->isClosed());
    gate->open();
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->isClosed() && !s.doc->isBusy(), 30000);
    QCOMPARE(s.doc->completedRuns(), 1);
    const qsizetype cancelling = s.view.statusTexts.lastIndexOf(kCancelling);
    QVERIFY(!s.view.statusTexts.mid(cancelling).contains(kRefreshing));
}

void TestDirCompDocument::windowShouldCloseAnswersByTheQueue()
{
    KVNTestTree left, right;
    left.file("a");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    QVERIFY(s.doc->windowShouldClose());
    QCOMPARE(s.view.closeWindowCount, 0);

    auto gate = s.addGate(false);
    QTRY_VERIFY_WITH_TIMEOUT(gate->started(), 30000);
    QVERIFY(!s.doc->windowShouldClose());
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->busyCancelling() && s.view.statusTexts.endsWith(kCancelling), 30000);
    s.doc->mergeCancelRefresh(); // a wait is under way: this one is refused
    QCOMPARE(s.view.closeWindowCount, 0);
    gate->open();
    QTRY_COMPARE_WITH_TIMEOUT(s.view.closeWindowCount, 1, 30000);
    QTest::qWait(300);
    QCOMPARE(s.view.closeWindowCount, 1);
    QCOMPARE(s.view.statusTexts.count(kCancelling), 1);
    QVERIFY(s.doc->windowShouldClose());
}

void TestDirCompDocument::updateDuringReconciliationDoesNotDeadlock()
{
    Watchdog watchdog(120, "updateDuringReconciliationDoesNotDeadlock");
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("keep.txt", "keep");
        for (int i = 0; i < 2000; ++i)
            tree->file("big/f" + QByteArray::number(i), "x");
    }
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    const std::size_t before = s.doc->sourceArrayController()->arrangedObjectsCount();
    QCOMPARE(before, std::size_t(2002));
    left.remove("big");
    right.remove("big");

    // The second update comes while the first one's row removals, each a
    // blocking call to the main thread, are under way.
    std::size_t countAtSecond = 0;
    bool secondReturned = false;
    QTimer trigger;
    trigger.setInterval(0);
    connect(&trigger, &QTimer::timeout, this, [&] {
        const std::size_t count = s.doc->sourceArrayController()->arrangedObjectsCount();
        if (count >= before)
            return;
        trigger.stop();
        countAtSecond = count;
        s.doc->performTableUpdate();
        secondReturned = true;
    });
    s.doc->performTableUpdate();
    trigger.start();
    QTRY_VERIFY_WITH_TIMEOUT(secondReturned && s.settled(2), 60000);
    QVERIFY2(countAtSecond > 1, "the second update came after the reconciliation");
    QCOMPARE(Session::names(s.doc->sourceArrayController()->arrangedObjects()), QStringList({"keep.txt"}));
    QCOMPARE(s.row("keep.txt")->diffResult(), KVNDiffResultSame);
}

void TestDirCompDocument::goodByeKissStopsWatchingAndObserving()
{
    KVNTestTree left, right;
    left.file("a");
    Session s(left, right);
    START_AND_SETTLE(s);
    QVERIFY(s.doc->isWatching());
    s.doc->goodByeKiss();
    QVERIFY(!s.doc->isWatching());
    const int starts = s.view.spinnerStarts;
    left.file("b");
    s.doc->refreshOperationQueue().addOperation(std::make_shared<KVNOperation>());
    QTest::qWait(1500);
    QCOMPARE(s.doc->completedRuns(), 1);
    QVERIFY(!s.row("b"));
    QCOMPARE(s.view.spinnerStarts, starts); // the queue's count is no longer observed
}

void TestDirCompDocument::exclusionChangeWhileIdleRefreshesAndMarksEdited()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("d/same.txt", "same");
        tree->file("d/junk.log", tree == &left ? "1" : "2");
    }
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    QCOMPARE(s.row("d")->diffResult(), KVNDiffResultDiffer);
    QCOMPARE(s.shown(), QStringList({"d"}));
    const qsizetype statuses = s.view.statusTexts.size();
    const int spinnerStarts = s.view.spinnerStarts;

    s.doc->setExclusionPredicate(orWith(s.doc->exclusionPredicate(), "spotlightItemFSName LIKE[c] '*.log'"));
    QTRY_COMPARE_WITH_TIMEOUT(s.row("d")->diffResult(), KVNDiffResultSame, 30000);
    QVERIFY(s.doc->isDocumentEdited());
    QVERIFY(s.view.statusTexts.mid(statuses).contains(kRefreshing));
    // The refresh's own spinner cycle: shown for its operation, hidden when the queue runs empty.
    QTRY_VERIFY_WITH_TIMEOUT(s.view.spinnerStarts > spinnerStarts && !s.doc->isBusy() && s.view.isSpinnerHidden(),
                             30000);
    QCOMPARE(s.shown(), QStringList()); // the table is rearranged when the queue runs empty
    QCOMPARE(s.children("d"), QStringList());
    QCOMPARE(s.doc->completedRuns(), 1);
}

void TestDirCompDocument::exclusionChangeDuringAScanRestartsNothing()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("d/same.txt", "same");
        tree->file("d/junk.log", tree == &left ? "1" : "2");
    }
    left.file("ghost");
    left.file("lonly");
    Session s(left, right, 1, false);
    START_AND_SETTLE(s);
    auto gate = s.startHeldUpdate(left, false);
    QTRY_VERIFY_WITH_TIMEOUT(gate->started(), 30000);
    const QStringList statuses = s.view.statusTexts;

    s.doc->setExclusionPredicate(orWith(s.doc->exclusionPredicate(), "spotlightItemFSName LIKE[c] '*.log'"));
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
    QVERIFY(!gate->sawCancel());
    QVERIFY(s.doc->refreshOperationQueue().operationCount() > 1); // the run still waits
    QCOMPARE(s.view.statusTexts, statuses);

    gate->open();
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
    // The run's own refresh took the predicate current at its end.
    QCOMPARE(s.row("d")->diffResult(), KVNDiffResultSame);
    QCOMPARE(s.shown(), QStringList({"lonly"}));
}

void TestDirCompDocument::filterActionsSetTheirPredicates_data()
{
    QTest::addColumn<int>("action");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QStringList>("shown");
    QTest::newRow("default") << int(KVNFilterAction::ShowDefault)
                             << QStringLiteral(
                                    "diffResult == 3 OR diffResult == 5 OR diffResult == 2 OR diffResult == 0")
                             << QStringList({"d", "diff.txt", "lonly"});
    QTest::newRow("different") << int(KVNFilterAction::ShowDifferent)
                               << QStringLiteral("diffResult == 2 OR diffResult == 5")
                               << QStringList({"d", "diff.txt"});
    QTest::newRow("single") << int(KVNFilterAction::ShowSingle) << QStringLiteral("diffResult == 3 OR diffResult == 5")
                            << QStringList({"lonly"});
    QTest::newRow("same") << int(KVNFilterAction::ShowSame) << QStringLiteral("diffResult == 1")
                          << QStringList({"same.txt"});
    QTest::newRow("all") << int(KVNFilterAction::ShowAll) << QString()
                         << QStringList({"d", "diff.txt", "lonly", "same.txt"});
}

void TestDirCompDocument::filterActionsSetTheirPredicates()
{
    QFETCH(int, action);
    QFETCH(QString, format);
    QFETCH(QStringList, shown);
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("same.txt", "same");
        tree->file("diff.txt", tree == &left ? "left" : "rite");
        tree->file("d/x", tree == &left ? "left" : "rite");
    }
    left.file("lonly");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    // Start from another filter, so that the action has something to change.
    s.doc->performFilterAction(KVNFilterAction(action) == KVNFilterAction::ShowSame ? KVNFilterAction::ShowAll
                                                                                    : KVNFilterAction::ShowSame);
    using Action = void (KVNDirCompDocument::*)();
    const std::map<KVNFilterAction, Action> actions{
        {KVNFilterAction::ShowAll, &KVNDirCompDocument::filterShowAll},
        {KVNFilterAction::ShowDifferent, &KVNDirCompDocument::filterShowDifferent},
        {KVNFilterAction::ShowSingle, &KVNDirCompDocument::filterShowSingle},
        {KVNFilterAction::ShowSame, &KVNDirCompDocument::filterShowSame},
        {KVNFilterAction::ShowDefault, &KVNDirCompDocument::filterShowDefault}};
    (s.doc.get()->*actions.at(KVNFilterAction(action)))();
    QCOMPARE(s.doc->selectedFilterAction(), KVNFilterAction(action));
    if (format.isEmpty())
        QVERIFY(!s.doc->filterPredicate());
    else
        QCOMPARE(KVNPredicateFormat(s.doc->filterPredicate()), format);
    QCOMPARE(s.shown(), shown);
    QVERIFY(!s.doc->isDocumentEdited());
}

void TestDirCompDocument::showAllStillHidesExcludedEntries()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file(".git/config", tree == &left ? "1" : "2");
        tree->file("d/.svn/entries", tree == &left ? "1" : "2");
        tree->file("d/keep", "same");
        tree->file("plain", "same");
    }
    left.file("CVS");
    left.file("d/.hg");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    s.doc->filterShowAll();
    QCOMPARE(s.shown(), QStringList({"d", "plain"}));
    QCOMPARE(s.children("d"), QStringList({"d/keep"}));
    QCOMPARE(s.row("d")->diffResult(), KVNDiffResultSame); // excluded differences do not roll up
}

void TestDirCompDocument::changedOnlyShowsDifferentAndMixedChildren()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("same.txt", "same");
        tree->file("d/same", "same");
        tree->file("d/diff", tree == &left ? "1" : "2");
        tree->file("d/mixed/diff2", tree == &left ? "1" : "2");
    }
    left.file("d/lonly");
    left.file("d/mixed/lonly2");
    left.file("top-single");
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    QCOMPARE(s.row("d")->diffResult(), KVNDiffResultDifferSingle);
    s.doc->filterShowDifferent();
    QCOMPARE(s.shown(), QStringList({"d"}));
    QCOMPARE(s.children("d"), QStringList({"d/diff", "d/mixed"}));
    QCOMPARE(s.children("d/mixed"), QStringList({"d/mixed/diff2"}));
}

void TestDirCompDocument::childCacheAnswersUntilFiltersAreReapplied()
{
    KVNTestTree left, right;
    for (auto *tree : {&left, &right}) {
        tree->file("d/same", "same");
        tree->file("d/diff", tree == &left ? "1" : "2");
    }
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    QCOMPARE(s.children("d/diff"), QStringList({"<none>"})); // a file has nothing to expand
    QCOMPARE(s.children("d"), QStringList({"d/diff"}));
    s.doc->setFilterPredicate(KVNDirCompDocument::filterPredicateForAction(KVNFilterAction::ShowSame));
    QCOMPARE(s.children("d"), QStringList({"d/diff"})); // still the cached answer
    s.doc->updateFilterPredicates();
    QCOMPARE(s.children("d"), QStringList({"d/same"}));
}

void TestDirCompDocument::excludeByFilenameMatchesAsAPattern()
{
    KVNTestTree left, right;
    for (const char *name : {"a*b", "aXYZb", "ab", "abc", "other"})
        left.file(name);
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    s.doc->excludeByFilename(s.row("a*b"));
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
    QCOMPARE(s.shown(), QStringList({"abc", "other"}));
}

void TestDirCompDocument::excludeByFilenameKeepsUndecodableNamesApart_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("sibling");
    QTest::newRow("latin-1 byte") << QByteArray("caf\xE9") << QByteArray("caf\xE8");
    QTest::newRow("backslash") << QByteArray("back\\slash") << QByteArray("backslash");
}

void TestDirCompDocument::excludeByFilenameKeepsUndecodableNamesApart()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, sibling);
    KVNTestTree left, right;
    left.file(name);
    left.file(sibling);
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    QVERIFY(s.row(name));
    s.doc->excludeByFilename(s.row(name));
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
    QCOMPARE(s.shown(), QStringList({KVNPathBytes::displayString(sibling)}));
}

void TestDirCompDocument::excludeAllByExtensionGrowsOneLevelPerUse()
{
    KVNTestTree left, right;
    for (const char *name : {"x.tar.GZ", "y.gz", "z.Gz", "w.tar", "gz", "v.tgz"})
        left.file(name);
    Session s(left, right, 0, false);
    START_AND_SETTLE(s);
    const auto original = s.doc->exclusionPredicate();
    s.doc->excludeAllByExtension(s.row("x.tar.GZ"));
    QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
    QCOMPARE(s.shown(), QStringList({"gz", "v.tgz", "w.tar"}));
    const auto once = s.doc->exclusionPredicate();
    QCOMPARE(once->kind(), KVNPredicate::Kind::Or);
    QCOMPARE(once->subpredicates().size(), std::size_t(2));
    QCOMPARE(once->subpredicates()[0], original);
    QCOMPARE(once->subpredicates()[1]->predicateFormat(), QStringLiteral("spotlightItemFSName ENDSWITH[c] \".GZ\""));

    s.doc->excludeByFilename(s.row("w.tar"));
    QTRY_COMPARE_WITH_TIMEOUT(s.shown(), QStringList({"gz", "v.tgz"}), 30000);
    const auto twice = s.doc->exclusionPredicate();
    QCOMPARE(twice->kind(), KVNPredicate::Kind::Or);
    QCOMPARE(twice->subpredicates().size(), std::size_t(2));
    QCOMPARE(twice->subpredicates()[0], once);
}

QTEST_GUILESS_MAIN(TestDirCompDocument)
#include "tst_dircompdocument.moc"

// ctest-label: concurrency
#include "KVNDirCompDocument.h"
#include "KVNPathBytes.h"
#include "KVNTestTree.h"
#include "KVNWatchdog.h"

#include <QtTest>

namespace {

const QString kComparing = QStringLiteral("Comparing Files and Folders") + QChar(0x2026);
const QString kRefreshing = QStringLiteral("Refreshing Diff Status") + QChar(0x2026);
const QString kCancelling = QStringLiteral("Cancelling operations") + QChar(0x2026);

// Records what the document asks of its window.
struct RecordingView : KVNDirCompDocumentView {
    void reloadData() override { ++reloadDataCount; }
    void reloadItem(const KVNDirDiffTableElementPtr &item, bool) override { reloadedItems.push_back(item); }
    void setStatusText(const QString &text) override { statusTexts << text; }
    void startSpinner() override { ++spinnerStarts; }
    void stopSpinner() override { ++spinnerStops; }
    void closeWindow() override { ++closeWindowCount; }

    int reloadDataCount = 0, spinnerStarts = 0, spinnerStops = 0, closeWindowCount = 0;
    std::vector<KVNDirDiffTableElementPtr> reloadedItems;
    QStringList statusTexts;
};

// Occupies a worker until opened; with yieldsToCancel a cancel opens it too.
struct Gate {
    std::shared_ptr<std::atomic<bool>> opened = std::make_shared<std::atomic<bool>>(false),
                                       started = std::make_shared<std::atomic<bool>>(false);
    KVNOperationPtr operation;

    explicit Gate(bool yieldsToCancel)
        : operation(KVNBlockOperation::make([opened = opened, started = started, yieldsToCancel](auto &self) {
              *started = true;
              while (!*opened && !(yieldsToCancel && self.isCancelled()))
                  std::this_thread::sleep_for(std::chrono::milliseconds(2));
          }))
    {}
};

// One headless document on two trees, started and run to its end, torn down safely even after a failure.
struct Session {
    Session(const KVNTestTree &left, const KVNTestTree &right, int width = 0, bool watch = false)
        : doc(KVNDirCompDocument::make())
    {
        if (width > 0)
            doc->refreshOperationQueue().setMaxConcurrentOperationCount(width);
        doc->setWatchesFileSystem(watch);
        doc->setWatchLatency(0.3);
        doc->setOriginalURL(left.root(), right.root());
        doc->setView(&view);
        doc->awakeFromNib();
        if (!QTest::qWaitFor([this] { return settled(1); }, 30000))
            qWarning("the first run did not end");
    }
    ~Session()
    {
        for (const auto &gate : gates)
            *gate->opened = true;
        doc->goodByeKiss();
        doc->setView(nullptr);
    }
    std::shared_ptr<Gate> addGate(bool yieldsToCancel)
    {
        gates.push_back(std::make_shared<Gate>(yieldsToCancel));
        doc->refreshOperationQueue().addOperation(gates.back()->operation);
        return gates.back();
    }
    // Starts an update whose reconciliation must wait for the main thread to
    // drop the row of "ghost", then a gate: on a single worker the update's
    // final operation can only be queued behind the gate.
    std::shared_ptr<Gate> startHeldUpdate(KVNTestTree &left, bool yieldsToCancel)
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
    bool cancelling() const { return doc->busyCancelling() && view.statusTexts.endsWith(kCancelling); }
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
    void excludeMore(const QString &format)
    {
        doc->setExclusionPredicate(KVNPredicate::orPredicateWithSubpredicates(
            {doc->exclusionPredicate(), KVNPredicate::predicateWithFormat(format)}));
    }

    RecordingView view;
    std::shared_ptr<KVNDirCompDocument> doc;
    std::vector<std::shared_ptr<Gate>> gates;
};

} // namespace

class TestDirCompDocument : public QObject {
    Q_OBJECT

    QTemporaryDir settingsDir_;

private slots:
    void initTestCase() { KVNUseIsolatedDefaults(settingsDir_); }

    void fullRunEndsFilteredWithStatusAndSpinner()
    {
        KVNTestTree left, right;
        // The only difference below dsdir is excluded; many rows make the refresh report steps.
        KVNFillTrees(
            left, right,
            {"=same.txt", "~d/x", "~dsdir/.DS_Store", "~.git/config", "~diff.txt", "<lonly", ">ronly", "<CVS"});
        for (int i = 0; i < 150; ++i)
            KVNFillTrees(left, right, {"=many/f" + QByteArray::number(i)});
        Session s(left, right, 0, true);
        QVERIFY(s.settled(1));
        QCOMPARE(s.row("dsdir")->diffResult(), KVNDiffResultSame);
        QCOMPARE(s.shown(), QStringList({"d", "diff.txt", "lonly", "ronly"}));
        QCOMPARE(s.doc->selectedFilterAction(), KVNFilterAction::ShowDefault);
        QVERIFY(!s.doc->isDocumentEdited());
        QVERIFY(s.doc->isWatching());

        const qsizetype comparing = s.view.statusTexts.indexOf(kComparing);
        QVERIFY2(comparing >= 0, qPrintable(s.view.statusTexts.join('|')));
        QVERIFY(s.view.statusTexts.indexOf(kRefreshing, comparing) > comparing);
        QVERIFY(!s.view.statusTexts.contains(kCancelling));
        QVERIFY(s.view.spinnerStarts >= 1 && s.view.spinnerStops >= 1);
        // The builder's report reloads everything; refresh steps reload a parent.
        QVERIFY(std::count(s.view.reloadedItems.begin(), s.view.reloadedItems.end(), nullptr) >= 1);
        QVERIFY(std::any_of(s.view.reloadedItems.begin(), s.view.reloadedItems.end(), [](const auto &r) { return r; }));

        // A top-level row has no parent to reload: everything reloads.
        s.view.reloadedItems.clear();
        const std::vector<KVNDirDiffTableElementPtr> none, child{s.row("d/x")}, top{s.row("d")};
        for (const auto *rows : {&none, &child, &top, static_cast<const decltype(none) *>(nullptr)})
            s.doc->doRefreshElements(rows);
        QCOMPARE(s.view.reloadedItems, (std::vector<KVNDirDiffTableElementPtr>{s.row("d"), nullptr, nullptr}));
    }

    void mergeRefreshWhileBusyResetsOnlyAfterTheQueueDrained()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"~a", "<b"});
        Session s(left, right);
        const auto before = s.doc->sourceArrayController()->arrangedObjects();
        auto gate = s.addGate(false);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);

        s.doc->mergeRefresh(); // must return at once: the gate is still shut
        QTRY_VERIFY_WITH_TIMEOUT(s.cancelling(), 30000);
        QVERIFY(gate->operation->isCancelled());
        QCOMPARE(s.doc->sourceArrayController()->arrangedObjects(), before);
        for (const auto &r : before)
            QVERIFY(r->leftNode()); // not reset yet

        *gate->opened = true;
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
        const auto after = s.doc->sourceArrayController()->arrangedObjects();
        QCOMPARE(after.size(), before.size());
        for (const auto &r : before) {
            QVERIFY(std::find(after.begin(), after.end(), r) == after.end());
            QVERIFY(!r->leftNode() && !r->rightNode()); // the reset cut the old rows
        }
        QCOMPARE(s.row("a")->diffResult(), KVNDiffResultDiffer);
    }

    void stopLeavesWatchingOffUntilARunCompletes()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"<a", "<ghost"});
        Session s(left, right, 1, true); // one worker, so that the gate holds the run back
        auto gate = s.startHeldUpdate(left, true);
        QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isWatching() && *gate->started, 30000);
        s.doc->mergeCancelRefresh();
        QTRY_VERIFY_WITH_TIMEOUT(!s.doc->isBusy() && !s.doc->busyCancelling() && s.view.isSpinnerHidden(), 30000);

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

    void closeDuringARunCancelsAndClosesByItself()
    {
        KVNTestTree left, right;
        for (int i = 0; i < 50; ++i)
            left.file("f" + QByteArray::number(i), "x");
        left.file("ghost");
        Session s(left, right, 1);
        auto gate = s.startHeldUpdate(left, false);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);
        s.doc->close();
        QTRY_VERIFY_WITH_TIMEOUT(s.cancelling(), 30000);
        QVERIFY(!s.doc->isClosed());
        *gate->opened = true;
        QTRY_VERIFY_WITH_TIMEOUT(s.doc->isClosed() && !s.doc->isBusy(), 30000);
        QCOMPARE(s.doc->completedRuns(), 1);
        QVERIFY(!s.view.statusTexts.mid(s.view.statusTexts.lastIndexOf(kCancelling)).contains(kRefreshing));
    }

    void windowShouldCloseAnswersByTheQueue()
    {
        KVNTestTree left, right;
        left.file("a");
        Session s(left, right);
        // With an empty queue a cancel does nothing at all.
        const QStringList statuses = s.view.statusTexts;
        const int reloads = s.view.reloadDataCount;
        s.doc->mergeCancelRefresh();
        QVERIFY(!s.doc->busyCancelling());
        QTest::qWait(500); // room for a wrongly started wait and its posted filter action
        QCOMPARE(s.view.statusTexts, statuses);
        QCOMPARE(s.view.reloadDataCount, reloads);
        QVERIFY(s.doc->windowShouldClose());

        auto gate = s.addGate(false);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);
        QVERIFY(!s.doc->windowShouldClose());
        QTRY_VERIFY_WITH_TIMEOUT(s.cancelling(), 30000);
        s.doc->mergeCancelRefresh(); // a wait is under way: this one is refused
        QCOMPARE(s.view.closeWindowCount, 0);
        *gate->opened = true;
        QTRY_COMPARE_WITH_TIMEOUT(s.view.closeWindowCount, 1, 30000);
        QTest::qWait(300);
        QCOMPARE(s.view.closeWindowCount, 1);
        QCOMPARE(s.view.statusTexts.count(kCancelling), 1);
        QVERIFY(s.doc->windowShouldClose());
    }

    void updateDuringReconciliationDoesNotDeadlock()
    {
        KVNWatchdog watchdog("updateDuringReconciliationDoesNotDeadlock");
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=keep.txt"});
        for (int i = 0; i < 2000; ++i)
            KVNFillTrees(left, right, {"=big/f" + QByteArray::number(i)});
        Session s(left, right);
        left.remove("big");
        right.remove("big");
        // The second update comes while the first one's row removals, each a
        // blocking call to the main thread, are under way.
        std::size_t countAtSecond = 0;
        QTimer trigger;
        connect(&trigger, &QTimer::timeout, this, [&] {
            countAtSecond = s.doc->sourceArrayController()->arrangedObjectsCount();
            if (countAtSecond < 2002) {
                trigger.stop();
                s.doc->performTableUpdate();
            }
        });
        s.doc->performTableUpdate();
        trigger.start(0);
        QTRY_VERIFY_WITH_TIMEOUT(!trigger.isActive() && s.settled(2), 60000);
        QVERIFY2(countAtSecond > 1, "the second update came after the reconciliation");
        QCOMPARE(Session::names(s.doc->sourceArrayController()->arrangedObjects()), QStringList({"keep.txt"}));
    }

    void goodByeKissStopsWatchingAndObserving()
    {
        KVNTestTree left, right;
        left.file("a");
        Session s(left, right, 0, true);
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

    void exclusionChangeWhileIdleRefreshesAndMarksEdited()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/same.txt", "~d/junk.log"});
        Session s(left, right);
        QCOMPARE(s.shown(), QStringList({"d"}));
        const qsizetype statuses = s.view.statusTexts.size();
        const int spinnerStarts = s.view.spinnerStarts;

        s.excludeMore("spotlightItemFSName LIKE[c] '*.log'");
        QTRY_COMPARE_WITH_TIMEOUT(s.row("d")->diffResult(), KVNDiffResultSame, 30000);
        QVERIFY(s.doc->isDocumentEdited());
        QVERIFY(s.view.statusTexts.mid(statuses).contains(kRefreshing));
        // The refresh's own spinner cycle, and the table rearranged once the queue runs empty.
        QTRY_VERIFY_WITH_TIMEOUT(s.view.spinnerStarts > spinnerStarts && s.settled(1), 30000);
        QCOMPARE(s.shown(), QStringList());
        QCOMPARE(s.children("d"), QStringList());
        QCOMPARE(s.doc->completedRuns(), 1);
    }

    void exclusionChangeDuringAScanRestartsNothing()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/same.txt", "~d/junk.log", "<ghost", "<lonly"});
        Session s(left, right, 1);
        auto gate = s.startHeldUpdate(left, false);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);
        const QStringList statuses = s.view.statusTexts;

        s.excludeMore("spotlightItemFSName LIKE[c] '*.log'");
        QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
        QVERIFY(!gate->operation->isCancelled());
        QVERIFY(s.doc->refreshOperationQueue().operationCount() > 1); // the run still waits
        QCOMPARE(s.view.statusTexts, statuses);

        *gate->opened = true;
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
        // The run's own refresh took the predicate current at its end.
        QCOMPARE(s.row("d")->diffResult(), KVNDiffResultSame);
        QCOMPARE(s.shown(), QStringList({"lonly"}));
    }

    void filtersChooseTheRowsAndReachChildrenThroughTheirCache()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right,
                     {"~.git/config", "~d/.svn/entries", "=d/keep", "=plain", "<CVS", "<d/.hg", "=e/same", "~e/diff",
                      "~e/mixed/diff2", "<e/lonly", "<e/mixed/lonly2", "<top-single", "~diff.txt"});
        Session s(left, right);
        using Action = void (KVNDirCompDocument::*)();
        // Each action changes the filter the one before it left; showing all still hides what is excluded.
        const std::tuple<Action, KVNFilterAction, QStringList> cases[] = {
            {&KVNDirCompDocument::filterShowSame, KVNFilterAction::ShowSame, {"d", "plain"}},
            {&KVNDirCompDocument::filterShowDefault, KVNFilterAction::ShowDefault, {"diff.txt", "e", "top-single"}},
            {&KVNDirCompDocument::filterShowSingle, KVNFilterAction::ShowSingle, {"e", "top-single"}},
            {&KVNDirCompDocument::filterShowAll,
             KVNFilterAction::ShowAll,
             {"d", "diff.txt", "e", "plain", "top-single"}},
            {&KVNDirCompDocument::filterShowDifferent, KVNFilterAction::ShowDifferent, {"diff.txt", "e"}}};
        for (const auto &[action, selected, shown] : cases) {
            (s.doc.get()->*action)();
            QCOMPARE(s.doc->selectedFilterAction(), selected);
            QCOMPARE(s.shown(), shown);
            if (selected == KVNFilterAction::ShowAll) {
                QVERIFY(!s.doc->filterPredicate());
                // Excluded differences do not roll up.
                QCOMPARE(s.children("d"), QStringList({"d/keep"}));
                QCOMPARE(s.row("d")->diffResult(), KVNDiffResultSame);
            }
        }
        QVERIFY(!s.doc->isDocumentEdited());
        // Changed only: different and mixed children; a file has nothing to expand.
        QCOMPARE(s.children("e"), QStringList({"e/diff", "e/mixed"}));
        QCOMPARE(s.children("e/mixed"), QStringList({"e/mixed/diff2"}));
        QCOMPARE(s.children("e/diff"), QStringList({"<none>"}));
        // The cache answers until the filters are applied again.
        s.doc->setFilterPredicate(KVNDirCompDocument::filterPredicateForAction(KVNFilterAction::ShowSame));
        QCOMPARE(s.children("e"), QStringList({"e/diff", "e/mixed"}));
        s.doc->updateFilterPredicates();
        QCOMPARE(s.children("e"), QStringList({"e/same"}));
    }

    void excludingByNameAndExtensionNestsOneLevelPerUse()
    {
        KVNTestTree left, right;
        for (const char *name : {"a*b", "aXYZb", "ab", "abc", "caf\xE9", "caf\xE8", "back\\slash", "backslash",
                                 "x.tar.GZ", "y.gz", "z.Gz", "w.tar", "gz", "v.tgz"})
            left.file(name);
        Session s(left, right);
        QStringList shown = s.shown();
        const auto exclude = [&](void (KVNDirCompDocument::*action)(const KVNDirDiffTableElementPtr &),
                                 const QByteArray &name, const QStringList &gone) {
            const auto before = s.doc->exclusionPredicate();
            (s.doc.get()->*action)(s.row(name));
            for (const QString &row : gone)
                QVERIFY(shown.removeOne(row));
            QTRY_COMPARE_WITH_TIMEOUT(s.shown(), shown, 30000);
            QCOMPARE(s.doc->exclusionPredicate()->kind(), KVNPredicate::Kind::Or);
            QCOMPARE(s.doc->exclusionPredicate()->subpredicates().size(), std::size_t(2));
            QCOMPARE(s.doc->exclusionPredicate()->subpredicates()[0], before);
        };
        // A name matches as a pattern; undecodable names and backslashes stay apart.
        exclude(&KVNDirCompDocument::excludeByFilename, "a*b", {"a*b", "aXYZb", "ab"});
        exclude(&KVNDirCompDocument::excludeByFilename, "caf\xE9", {KVNPathBytes::displayString("caf\xE9")});
        exclude(&KVNDirCompDocument::excludeByFilename, "back\\slash", {"back\\slash"});
        exclude(&KVNDirCompDocument::excludeAllByExtension, "x.tar.GZ", {"x.tar.GZ", "y.gz", "z.Gz"});
        QCOMPARE(s.doc->exclusionPredicate()->subpredicates()[1]->predicateFormat(),
                 QStringLiteral("spotlightItemFSName ENDSWITH[c] \".GZ\""));
        exclude(&KVNDirCompDocument::excludeByFilename, "w.tar", {"w.tar"});
        QCOMPARE(shown, QStringList({"abc", "backslash", KVNPathBytes::displayString("caf\xE8"), "gz", "v.tgz"}));
        QVERIFY(s.doc->isDocumentEdited());
    }
};

QTEST_GUILESS_MAIN(TestDirCompDocument)
#include "tst_dircompdocument.moc"

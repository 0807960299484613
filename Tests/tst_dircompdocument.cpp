// ctest-label: concurrency
#include "KVNDirCompDocument.h"
#include "KVNPathBytes.h"
#include "KVNTestTree.h"
#include "KVNWatchdog.h"

#include <QtTest>

namespace {

// Occupies a worker until opened; the flags are shared with its operation, which may outlive it.
struct Gate {
    std::shared_ptr<std::atomic<bool>> opened = std::make_shared<std::atomic<bool>>(false),
                                       started = std::make_shared<std::atomic<bool>>(false);
    KVNOperationPtr operation = KVNBlockOperation::make([opened = opened, started = started](auto &) {
        *started = true;
        while (!*opened)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
};

// One headless document on two trees, as its own window, started and run to
// its end, torn down safely even after a failure.
struct Session : KVNDirCompDocumentView {
    Session(const KVNTestTree &left, const KVNTestTree &right, int width = 0) : doc(KVNDirCompDocument::make())
    {
        if (width > 0)
            doc->refreshOperationQueue().setMaxConcurrentOperationCount(width);
        doc->setWatchesFileSystem(false);
        doc->setOriginalURL(left.root(), right.root());
        doc->setView(this);
        doc->awakeFromNib();
        if (!QTest::qWaitFor([this] { return settled(1); }, 30000))
            qWarning("the first run did not end");
    }
    ~Session() override
    {
        for (const auto &gate : gates)
            *gate->opened = true;
        doc->goodByeKiss();
        doc->setView(nullptr);
    }
    void startSpinner() override { ++spinnerStarts; }
    void closeWindow() override { ++closeWindowCount; }

    std::shared_ptr<Gate> addGate()
    {
        const auto &gate = gates.emplace_back(std::make_shared<Gate>());
        doc->refreshOperationQueue().addOperation(gate->operation);
        return gate;
    }
    // Starts an update whose reconciliation must wait for the main thread to
    // drop the row of "ghost", then a gate: on a single worker the update's
    // final operation can only be queued behind the gate.
    std::shared_ptr<Gate> startHeldUpdate(KVNTestTree &left)
    {
        left.remove("ghost");
        doc->performTableUpdate();
        return addGate();
    }
    bool settled(int runs) const { return doc->completedRuns() >= runs && !doc->isBusy() && isSpinnerHidden(); }
    KVNDirDiffTableElementPtr row(const QByteArray &path) const
    {
        const auto rows = doc->sourceArrayController()->arrangedObjects();
        const auto it = std::ranges::find(rows, "./" + path, &KVNDirDiffTableElement::relativePath);
        return it == rows.end() ? nullptr : *it;
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
    void excludeLogs()
    {
        doc->setExclusionPredicate(KVNPredicate::orPredicateWithSubpredicates(
            {doc->exclusionPredicate(), KVNPredicate::predicateWithFormat("spotlightItemFSName LIKE[c] '*.log'")}));
    }

    std::shared_ptr<KVNDirCompDocument> doc;
    std::vector<std::shared_ptr<Gate>> gates;
    int spinnerStarts = 0, closeWindowCount = 0;
};

} // namespace

class TestDirCompDocument : public QObject {
    Q_OBJECT

    QTemporaryDir settingsDir_;

private slots:
    void initTestCase() { KVNUseIsolatedDefaults(settingsDir_); }

    void mergeRefreshWhileBusyResetsOnlyAfterTheQueueDrained()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"~a", "<b"});
        Session s(left, right);
        const auto before = s.doc->sourceArrayController()->arrangedObjects();
        auto gate = s.addGate();
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);

        s.doc->mergeRefresh(); // must return at once: the gate is still shut
        QTRY_VERIFY_WITH_TIMEOUT(s.doc->busyCancelling(), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(gate->operation->isCancelled(), 30000); // the wait thread cancels
        QCOMPARE(s.doc->sourceArrayController()->arrangedObjects(), before);
        for (const auto &r : before)
            QVERIFY(r->leftNode()); // not reset yet

        *gate->opened = true;
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
        const auto after = s.doc->sourceArrayController()->arrangedObjects();
        for (const auto &r : before) {
            QVERIFY(std::find(after.begin(), after.end(), r) == after.end());
            QVERIFY(!r->leftNode() && !r->rightNode()); // the reset cut the old rows
        }
        QCOMPARE(s.row("a")->diffResult(), KVNDiffResultDiffer);
    }

    // Closing, the window asking to close, and stopping all cancel and wait for
    // the queue to drain; a second cancel meanwhile is refused.
    void cancellingDuringARunWaitsForTheQueue_data()
    {
        QTest::addColumn<int>("how");
        QTest::newRow("close") << 0;
        QTest::newRow("window asks") << 1;
        QTest::newRow("stop") << 2;
    }
    void cancellingDuringARunWaitsForTheQueue()
    {
        QFETCH(int, how);
        KVNTestTree left, right;
        for (int i = 0; i < 50; ++i)
            left.file("f" + QByteArray::number(i), "x");
        left.file("ghost");
        Session s(left, right, 1);
        QVERIFY(s.doc->windowShouldClose()); // nothing queued: at once
        auto gate = s.startHeldUpdate(left);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);
        if (how == 0)
            s.doc->close();
        else if (how == 1)
            QVERIFY(!s.doc->windowShouldClose());
        else
            s.doc->mergeCancelRefresh();
        QTRY_VERIFY_WITH_TIMEOUT(s.doc->busyCancelling(), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(gate->operation->isCancelled(), 30000); // the wait thread cancels
        s.doc->mergeCancelRefresh();                                     // a wait is under way: this one is refused
        QVERIFY(!s.doc->isClosed() && s.closeWindowCount == 0);
        *gate->opened = true;
        // Once drained: the document closes, its window is told to close, or it goes idle.
        QTRY_VERIFY_WITH_TIMEOUT(how == 0   ? s.doc->isClosed() && !s.doc->isBusy()
                                 : how == 1 ? s.closeWindowCount == 1
                                            : !s.doc->isBusy() && !s.doc->busyCancelling(),
                                 30000);
        if (how == 1)
            QTest::qWait(300); // room for a second, wrong call to close the window
        QCOMPARE(s.closeWindowCount, int(how == 1));
        QCOMPARE(s.doc->isClosed(), how == 0);
        QCOMPARE(s.doc->completedRuns(), 1);
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

    void exclusionChangeDuringAScanRestartsNothing()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right, {"=d/same.txt", "~d/junk.log", "<ghost", "<lonly"});
        Session s(left, right, 1);
        auto gate = s.startHeldUpdate(left);
        QTRY_VERIFY_WITH_TIMEOUT(*gate->started, 30000);

        s.excludeLogs();
        QTRY_VERIFY_WITH_TIMEOUT(s.doc->isDocumentEdited(), 30000);
        QVERIFY(!gate->operation->isCancelled());
        QVERIFY(s.doc->refreshOperationQueue().operationCount() > 1); // the run still waits

        *gate->opened = true;
        QTRY_VERIFY_WITH_TIMEOUT(s.settled(2), 30000);
        // The run's own refresh took the predicate current at its end.
        QCOMPARE(s.row("d")->diffResult(), KVNDiffResultSame);
        QCOMPARE(s.shown(), QStringList({"lonly"}));
    }

    void filtersAndExclusionsChooseTheRows()
    {
        KVNTestTree left, right;
        KVNFillTrees(left, right,
                     {"~.git/config", "~d/.svn/entries", "=d/keep", "=plain", "<CVS", "<d/.hg", "=e/same", "~e/diff",
                      "~e/mixed/diff2", "<e/lonly", "<e/mixed/lonly2", "<top-single", "~diff.txt", "~ds/.DS_Store",
                      "=j/same.txt", "~j/junk.log"});
        Session s(left, right);
        QCOMPARE(s.doc->selectedFilterAction(), KVNFilterAction::ShowDefault);
        using Action = void (KVNDirCompDocument::*)();
        // Each action changes the filter the one before it left; showing all still hides what is excluded.
        const std::tuple<Action, KVNFilterAction, QStringList> cases[] = {
            {&KVNDirCompDocument::filterShowSame, KVNFilterAction::ShowSame, {"d", "ds", "plain"}},
            {&KVNDirCompDocument::filterShowDefault,
             KVNFilterAction::ShowDefault,
             {"diff.txt", "e", "j", "top-single"}},
            {&KVNDirCompDocument::filterShowSingle, KVNFilterAction::ShowSingle, {"e", "top-single"}},
            {&KVNDirCompDocument::filterShowAll,
             KVNFilterAction::ShowAll,
             {"d", "diff.txt", "ds", "e", "j", "plain", "top-single"}},
            {&KVNDirCompDocument::filterShowDifferent, KVNFilterAction::ShowDifferent, {"diff.txt", "e", "j"}}};
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
        // A new exclusion while idle refreshes the results, not the scans, and marks the session edited.
        const int spinnerStarts = s.spinnerStarts;
        s.excludeLogs();
        QTRY_COMPARE_WITH_TIMEOUT(s.row("j")->diffResult(), KVNDiffResultSame, 30000);
        QVERIFY(s.doc->isDocumentEdited());
        // The refresh's own spinner cycle, and the table rearranged once the queue runs empty.
        QTRY_VERIFY_WITH_TIMEOUT(s.spinnerStarts > spinnerStarts && s.settled(1), 30000);
        QCOMPARE(s.shown(), QStringList({"diff.txt", "e"}));
        QCOMPARE(s.children("j"), QStringList());
        QCOMPARE(s.doc->completedRuns(), 1);
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
            QCOMPARE(s.doc->exclusionPredicate()->subpredicates().at(0), before);
        };
        // A name matches as a pattern; undecodable names and backslashes stay apart.
        exclude(&KVNDirCompDocument::excludeByFilename, "a*b", {"a*b", "aXYZb", "ab"});
        exclude(&KVNDirCompDocument::excludeByFilename, "caf\xE9", {KVNPathBytes::displayString("caf\xE9")});
        exclude(&KVNDirCompDocument::excludeByFilename, "back\\slash", {"back\\slash"});
        exclude(&KVNDirCompDocument::excludeAllByExtension, "x.tar.GZ", {"x.tar.GZ", "y.gz", "z.Gz"});
        exclude(&KVNDirCompDocument::excludeByFilename, "w.tar", {"w.tar"});
        QCOMPARE(shown, QStringList({"abc", "backslash", KVNPathBytes::displayString("caf\xE8"), "gz", "v.tgz"}));
        QVERIFY(s.doc->isDocumentEdited());
    }
};

QTEST_GUILESS_MAIN(TestDirCompDocument)
#include "tst_dircompdocument.moc"

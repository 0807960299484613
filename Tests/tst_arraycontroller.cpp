// ctest-label: concurrency
// Row lists share their blocks until one side changes, and the controllers
// hand each other their content that way: every edit must give what a plain
// vector would, leave earlier snapshots as they were, and let go of the rows
// it drops.
#include "KVNArrayController.h"
#include "KVNRowList.h"

#include <QTest>

#include <atomic>
#include <numeric>
#include <set>
#include <thread>

// A row without nodes; its depth hint numbers it.
static KVNDirDiffTableElementPtr row(uint32_t id)
{
    auto made = KVNDirDiffTableElement::make(nullptr, nullptr);
    made->setDepthHint(id);
    return made;
}

static std::vector<KVNDirDiffTableElementPtr> rows(uint32_t first, uint32_t count)
{
    std::vector<KVNDirDiffTableElementPtr> made;
    for (uint32_t id = first; id < first + count; ++id)
        made.push_back(row(id));
    return made;
}

class TestArrayController : public QObject {
    Q_OBJECT

private slots:
    void listEditsMatchAVectorAndLeaveSnapshotsAlone_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<QString>("edit");
        QTest::addColumn<int>("at"); // an index, or for "every", the step
        const int kBlock = int(KVNRowList::kChunkSize);
        for (int size : {0, 1, kBlock - 1, kBlock, kBlock + 1, 3 * kBlock + 7}) {
            for (int at : std::set<int>{0, kBlock - 1, kBlock, kBlock + 1, size, size + 3}) {
                QTest::addRow("insert %d at %d", size, at) << size << "insert" << at;
                QTest::addRow("insert %d ascending from %d", size, at) << size << "ascending" << at;
            }
            for (int at : std::set<int>{0, size / 2, kBlock - 1, kBlock, size - 1})
                if (at >= 0 && at < size)
                    QTest::addRow("remove %d at %d", size, at) << size << "remove" << at;
            for (int step : {1, 2, kBlock + 3})
                QTest::addRow("remove every %dth of %d", step, size) << size << "every" << step;
            for (int count : std::set<int>{0, 1, kBlock - 1, kBlock, kBlock + 1, size})
                QTest::addRow("first %d of %d", count, size) << size << "first" << count;
        }
    }
    void listEditsMatchAVectorAndLeaveSnapshotsAlone()
    {
        QFETCH(int, size);
        QFETCH(QString, edit);
        QFETCH(int, at);
        // Built both ways a list grows: a row at a time and in batches.
        auto model = rows(0, uint32_t(size));
        KVNRowList list;
        for (std::size_t i = 0; i < model.size(); i += i % 3 ? 200 : 1)
            i % 3 ? list.append(std::vector(model.begin() + i, model.begin() + std::min(model.size(), i + 200)))
                  : list.append(model[i]);
        auto before = model;
        const KVNRowList snapshot = list;

        auto added = row(1000000);
        if (edit == "insert") {
            list.insert(std::size_t(at), added);
            model.insert(model.begin() + std::min(at, size), added);
        } else if (edit == "ascending") {
            // Side by side, across a block's end, and past the end of the list.
            std::vector<std::pair<std::size_t, KVNDirDiffTableElementPtr>> batch;
            for (const int offset : {0, 1, 3, int(KVNRowList::kChunkSize) + 2, size + 20}) {
                auto extra = row(2000000 + uint32_t(offset));
                batch.emplace_back(std::size_t(at + offset), extra);
                model.insert(model.begin() + std::min<std::size_t>(at + offset, model.size()), extra);
            }
            list.insertAscending(batch);
        } else if (edit == "remove") {
            QCOMPARE(list.removeIf([&](std::size_t i, const auto &) { return int(i) == at; }), std::size_t(1));
            model.erase(model.begin() + at);
        } else if (edit == "every") {
            const auto doomed = [&](const auto &r) { return r->depthHint() % uint32_t(at) == 0; };
            const std::size_t removed = list.removeIf([&](std::size_t, const auto &r) { return doomed(r); });
            QCOMPARE(removed, std::size_t(std::erase_if(model, doomed)));
        } else {
            list = list.firstRows(std::size_t(at));
            model.resize(std::min(model.size(), std::size_t(at)));
            // must not reach the rows the snapshot holds past the prefix
            list.append(added);
            model.push_back(added);
        }
        QVERIFY(list.toVector() == model);
        QVERIFY(snapshot.toVector() == before);
    }

    // Removals, and insertions at ascending places, wait for the next reader;
    // whatever the order of edits and reads, each read sees what a vector
    // edited at once would hold.
    void pendingEditsReadAsIfMadeAtOnce()
    {
        for (const bool filtered : {false, true}) {
            const auto passes = [&](const KVNDirDiffTableElementPtr &r) { return !filtered || r->depthHint() >= 500; };
            std::vector<KVNDirDiffTableElementPtr> content = rows(0, 1500);
            KVNArrayController controller;
            controller.addObjects(content);
            if (filtered)
                controller.setFilterPredicate(KVNPredicate::predicateWithFormat(QStringLiteral("depthHint >= 500")));
            const auto arranged = [&] {
                std::vector<KVNDirDiffTableElementPtr> shown;
                std::copy_if(content.begin(), content.end(), std::back_inserter(shown), passes);
                return shown;
            };

            uint32_t next = 10000;
            uint64_t seed = 7;
            const auto random = [&seed](std::size_t bound) {
                seed = seed * 6364136223846793005ull + 1442695040888963407ull;
                return std::size_t((seed >> 33) % bound);
            };
            for (int round = 0; round < 60; ++round) {
                // A run of one kind, as a reconciliation makes them: removals in
                // order, or insertions at rising places (now and then not rising).
                const std::size_t count = 1 + random(40);
                if (round % 2 == 0) {
                    for (std::size_t i = 0; i < count && !content.empty(); ++i) {
                        const std::size_t at = random(content.size());
                        controller.removeObject(content[at]);
                        content.erase(content.begin() + at);
                    }
                    controller.removeObject(row(999)); // not in the list
                } else {
                    std::size_t at = random(content.size() + 1);
                    for (std::size_t i = 0; i < count; ++i) {
                        auto added = row(next++ % 2 ? next : next % 500);
                        if (!passes(added))
                            continue; // with a filter, arranged places count only rows that pass
                        const auto shown = arranged();
                        const std::size_t place = std::min(at, shown.size());
                        controller.insertObject(added, place);
                        content.insert(place < shown.size() ? std::find(content.begin(), content.end(), shown[place])
                                                            : content.end(),
                                       added);
                        at = random(8) == 0 ? random(content.size() + 2) : place + 1 + random(5);
                    }
                }
                // Every fourth run of edits comes on top of the last one, unread.
                if (round % 4 == 0)
                    QVERIFY(controller.content().toVector() == content);
                else if (round % 4 == 1)
                    QVERIFY(controller.arrangedObjects() == arranged());
                else if (round % 4 == 2)
                    QCOMPARE(controller.arrangedObjectsCount(), arranged().size());
            }
            QVERIFY(controller.content().toVector() == content);
            QVERIFY(controller.arrangedRows().toVector() == arranged());

            // Removed rows are let go once they are taken out, and edits made
            // before new content arrives do not reach it.
            KVNWeakRef<KVNDirDiffTableElement> removed(content.front());
            controller.removeObject(content.front());
            content.erase(content.begin());
            QCOMPARE(controller.content().size(), content.size());
            QVERIFY(!removed.lock());
            controller.removeObject(content.front());
            controller.insertObject(row(5), 0);
            controller.setContent(KVNRowList(content));
            QVERIFY(controller.content().toVector() == content);
        }
    }

    void aFilterArrangesAndEditsReachTheContent()
    {
        // Depths 0, 1, 2, 0, 1, 2, ... numbered by position.
        KVNArrayController controller;
        std::vector<KVNDirDiffTableElementPtr> made;
        for (uint32_t i = 0; i < 1200; ++i)
            made.push_back(row(i % 3));
        controller.addObjects(made);
        controller.setFilterPredicate(KVNPredicate::predicateWithFormat(QStringLiteral("depthHint == 1")));
        QCOMPARE(controller.arrangedObjectsCount(), std::size_t(400));

        // Arranged indexes remove from the content too; rows the filter hides stay,
        // and an index past the end is passed over.
        controller.removeObjectsAtArrangedObjectIndexes({0, 2, 399, 5000});
        auto content = controller.content().toVector();
        QCOMPARE(content.size(), std::size_t(1197));
        for (const std::size_t gone : {1, 7, 1198})
            QVERIFY(std::find(content.begin(), content.end(), made[gone]) == content.end());
        QCOMPARE(controller.arrangedObjectsCount(), std::size_t(397));

        // Rows added since the last rearrangement show whether they pass or not.
        controller.addObjects({row(2)});
        QCOMPARE(controller.arrangedObjectsCount(), std::size_t(398));
        controller.rearrangeObjects();
        QCOMPARE(controller.arrangedObjectsCount(), std::size_t(397));
    }

    // One thread edits in whole batches while others take snapshots and
    // hand the content on, as the document does: every snapshot is whole
    // batches in order, and the one handed on stays as it was handed.
    void snapshotsStayWholeWhileAnotherThreadEdits()
    {
        constexpr uint32_t kBatch = 100;
        auto source = std::make_shared<KVNArrayController>();
        auto filtered = std::make_shared<KVNArrayController>();
        filtered->setFilterPredicate(KVNPredicate::predicateWithFormat(QStringLiteral("depthHint >= 0")));
        std::atomic<bool> done{false};
        std::atomic<int> bad{0};
        // Batches start at a multiple of kBatch, run on by one and rise.
        const auto wholeBatches = [&](const KVNRowList &list) {
            for (std::size_t i = 0; i < list.size(); ++i)
                if (!list[i] || (i % kBatch == 0 ? list[i]->depthHint() % kBatch != 0 ||
                                                       (i > 0 && list[i]->depthHint() <= list[i - 1]->depthHint())
                                                 : list[i]->depthHint() != list[i - 1]->depthHint() + 1))
                    return false;
            return list.size() % kBatch == 0;
        };
        std::jthread writer([&] {
            for (uint32_t batch = 0; batch < 600; ++batch) {
                source->addObjects(rows(batch * kBatch, kBatch));
                if (batch % 3 == 2) { // the oldest batch goes
                    std::vector<std::size_t> first(kBatch);
                    std::iota(first.begin(), first.end(), std::size_t(0));
                    source->removeObjectsAtArrangedObjectIndexes(first);
                }
            }
            done = true;
        });
        std::vector<std::jthread> readers;
        for (int r = 0; r < 2; ++r)
            readers.emplace_back([&, r] {
                while (!done) {
                    if (r == 0) {
                        const auto handed = source->content();
                        filtered->setContent(handed);
                        const auto shown = filtered->arrangedRows();
                        if (!wholeBatches(handed) || !(shown == handed))
                            ++bad;
                    } else if (!wholeBatches(source->arrangedRows()) ||
                               !wholeBatches(KVNRowList(source->arrangedObjects())) ||
                               !wholeBatches(filtered->content())) {
                        ++bad;
                    }
                }
            });
        readers.clear(); // they stop once the writer is done
        QCOMPARE(bad.load(), 0);
        QCOMPARE(source->arrangedObjectsCount(), std::size_t(400 * kBatch));
        QVERIFY(wholeBatches(source->content()));
        QCOMPARE(source->content()[0]->depthHint(), 200 * kBatch);
    }
};

QTEST_GUILESS_MAIN(TestArrayController)
#include "tst_arraycontroller.moc"

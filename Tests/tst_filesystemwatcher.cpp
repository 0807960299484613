// ctest-label: concurrency
// The directory watcher on real trees and a real event loop: what is reported, how it is paced, the edges.
#include "KVNFileSystemWatcher.h"
#include "KVNTestTree.h"

#include <QElapsedTimer>
#include <QtTest>

#include <cstdio>
#include <ranges>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

using namespace std::chrono_literals;
using Event = KVNFileSystemWatcher::Event;

namespace {

bool append(const QByteArray &path)
{
    std::FILE *file = std::fopen(path.constData(), "ae"); // e: close on exec
    return file && std::fputc('x', file) != EOF && std::fclose(file) == 0;
}

#define makeDir(path) QVERIFY2(::mkdir(QByteArray(path).constData(), 0755) == 0, QByteArray(path).constData())
#define touch(path) QVERIFY2(append(path), QByteArray(path).constData())

// A watcher over two fresh roots that records every batch.
struct Watched {
    KVNTestTree tree;
    QByteArray left = tree.path("left"), right = tree.path("right");
    std::vector<std::vector<Event>> batches;
    std::unique_ptr<KVNFileSystemWatcher> watcher =
        std::make_unique<KVNFileSystemWatcher>([this](const std::vector<Event> &batch) { batches.push_back(batch); });

    explicit Watched(std::chrono::milliseconds latency = 500ms)
    {
        tree.dir("left");
        tree.dir("right");
        watcher->setLatency(latency);
    }
    bool start() { return watcher->start({left, right}); }
    bool saw(const QByteArray &p) const { return std::ranges::count(batches | std::views::join, p, &Event::path) > 0; }
};

} // namespace

class TestFileSystemWatcher : public QObject {
    Q_OBJECT

private slots:
    void pacesBatchesAndKeepsCountingAcrossRuns()
    {
        Watched w(2000ms);
        const QByteArray deep = w.right + "/a/caf\xe9"; // not UTF-8
        w.tree.dir("right/a/caf\xe9");
        for (int i = 0; i < 100; ++i)
            makeDir(w.left + "/d" + QByteArray::number(i));
        touch(w.left + "/before-start");
        QVERIFY(w.start());
        QTest::qWait(200);
        QVERIFY2(w.batches.empty(), "a change before start() was reported");

        // The first change after a quiet spell does not wait for the latency.
        touch(deep + "/f");
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(1), 1500);
        QElapsedTimer sinceFirst;
        sinceFirst.start();
        QCOMPARE(w.batches[0].size(), std::size_t(1));
        QCOMPARE(w.batches[0][0].path, deep); // not its parents
        // 101 changes from another thread, far quicker than the latency; d5 twice.
        std::atomic<int> written = 0;
        std::thread([&] {
            for (int i = 0; i < 100; ++i)
                written += append(w.left + "/d" + QByteArray::number(i) + "/f");
            written += append(w.left + "/d5/f");
        }).join();
        QCOMPARE(written.load(), 101);
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(2), 5000);
        QVERIFY2(sinceFirst.elapsed() >= 1800, "the second batch came before the latency had passed");
        const auto &batch = w.batches[1];
        QCOMPARE(batch.size(), std::size_t(100));
        QCOMPARE(batch.front().path, w.left + "/d0");
        QCOMPARE(batch.back().path, w.left + "/d5"); // its latest change decides its place
        QVERIFY(batch.front().id > w.batches[0].back().id);
        QVERIFY(std::ranges::adjacent_find(batch, std::greater_equal<>{}, &Event::id) == batch.end());
        const uint64_t previous = batch.back().id;

        // Stopped with a change held back: neither it nor a later one comes.
        touch(w.left + "/pending");
        QTest::qWait(200);
        w.watcher->stop();
        QVERIFY(!w.watcher->isRunning() && w.watcher->watchCount() == 0);
        touch(w.left + "/stopped");
        QTest::qWait(2500);
        QCOMPARE(w.batches.size(), std::size_t(2));
        // A new run continues the ids; its owner may delete it from its own callback.
        w.watcher->setCallback([&](const std::vector<Event> &last) {
            w.batches.push_back(last);
            w.watcher.reset();
        });
        QVERIFY(w.watcher->start({w.left}));
        touch(w.left + "/two");
        QTRY_VERIFY_WITH_TIMEOUT(!w.watcher, 1500);
        QCOMPARE(w.batches.size(), std::size_t(3));
        QVERIFY(w.batches[2].front().id > previous);
    }

    void followsDirectoriesAndRootsAsTheyComeAndGo()
    {
        Watched w;
        KVNTestTree outside;
        QVERIFY(w.start());
        const std::size_t initial = w.watcher->watchCount();
        // Created and filled before the watcher can have seen them.
        const QByteArray fresh = w.left + "/new\xff";
        for (const QByteArray &dir : {fresh, fresh + "/x", fresh + "/x/y", w.left + "/gone"})
            makeDir(dir);
        touch(fresh + "/x/y/z");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(fresh + "/x/y"), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial + 4, 5000);

        // Renamed within the tree: the watches follow, under the new name.
        QCOMPARE(::rename(fresh.constData(), (w.right + "/moved").constData()), 0);
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right), 5000);
        w.batches.clear();
        touch(w.right + "/moved/x/y/again");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right + "/moved/x/y"), 5000);
        QCOMPARE(w.watcher->watchCount(), initial + 4);

        // Moved out of the roots or removed: released.
        QCOMPARE(::rename((w.right + "/moved").constData(), outside.path("away").constData()), 0);
        w.tree.remove("left/gone");
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial, 5000);
        // Roots that go are reported under their own path.
        const QByteArray renamed = w.left + "-renamed";
        QCOMPARE(::rename(w.left.constData(), renamed.constData()), 0);
        w.tree.remove("right");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left) && w.saw(w.right), 5000);
        QTest::qWait(600); // what is still on its way arrives, then is forgotten
        w.batches.clear();
        touch(renamed + "/after"); // its watches went with the name
        QTest::qWait(1200);
        QVERIFY(w.batches.empty());
    }

    void overflowReportsEveryRoot()
    {
        QFile limit("/proc/sys/fs/inotify/max_queued_events");
        const int queued = limit.open(QIODevice::ReadOnly) ? limit.readAll().trimmed().toInt() : 16384;
        if (queued <= 0 || queued > 1 << 20)
            QSKIP("the event queue is too long to overflow in a test");
        Watched w;
        makeDir(w.left + "/busy");
        QVERIFY(w.start());
        // Alternating names defeat the kernel's merging of equal events.
        for (int i = 0; i < queued * 2 + 100; ++i)
            touch(w.left + (i % 2 ? "/busy/a" : "/busy/b"));
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right), 8000); // untouched, yet reported
        QTest::qWait(600);                              // what is still on its way arrives, then is forgotten
        w.batches.clear();
        touch(w.left + "/busy/after");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left + "/busy"), 5000);
    }
    void degradesOnceAtTheWatchLimit()
    {
        // Each limit is told once, however often it bites.
        for (const char *limit : {"^Watching is incomplete.*max_user_watches", "max_user_instances"}) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(limit));
            QTest::failOnWarning(QRegularExpression(limit));
        }
        Watched w;
        for (const char *sub : {"/a", "/b", "/c"})
            makeDir(w.left + sub);
        w.watcher->setWatchLimitForTesting(3); // left's parent, left, one of a/b/c
        QVERIFY(w.watcher->start({w.left}));
        QVERIFY(w.watcher->isDegraded());
        QCOMPARE(w.watcher->watchCount(), std::size_t(3));
        makeDir(w.left + "/d");
        touch(w.left + "/file");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left), 5000);
        w.watcher->stop();
        QVERIFY(w.watcher->start({w.left}));
        QVERIFY(w.watcher->isDegraded());

        // No instance at all: with no descriptor left, watching is off.
        KVNFileSystemWatcher other;
        rlimit files;
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &files), 0);
        const int lowestFree = ::dup(0);
        ::close(lowestFree);
        const rlimit tight{rlim_t(lowestFree), files.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &tight), 0);
        const bool started[2] = {other.start({w.left}), other.start({w.left})};
        ::setrlimit(RLIMIT_NOFILE, &files);
        QVERIFY(!started[0] && !started[1] && !other.isRunning() && other.isDegraded());
    }
};

QTEST_GUILESS_MAIN(TestFileSystemWatcher)
#include "tst_filesystemwatcher.moc"

// ctest-label: concurrency
// The directory watcher on real trees and a real event loop: what is reported, how it is paced, the edges.
#include "KVNFileSystemWatcher.h"
#include "KVNTestTree.h"

#include <QElapsedTimer>
#include <QtTest>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using Event = KVNFileSystemWatcher::Event;

namespace {

bool append(const QByteArray &path)
{
    const int fd = ::open(path.constData(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
    const bool ok = fd >= 0 && ::write(fd, "x", 1) == 1;
    ::close(fd);
    return ok;
}

#define makeDir(path) QVERIFY2(::mkdir(QByteArray(path).constData(), 0755) == 0, QByteArray(path).constData())
#define touch(path) QVERIFY2(append(path), QByteArray(path).constData())

QStringList warnings;

// A watcher over two fresh roots that records every batch it delivers.
struct Watched {
    KVNTestTree tree;
    QByteArray left = tree.path("left"), right = tree.path("right");
    std::vector<std::vector<Event>> batches;
    std::vector<qint64> arrivals; // ms since clock started
    QElapsedTimer clock;
    std::unique_ptr<KVNFileSystemWatcher> watcher;

    explicit Watched(std::chrono::milliseconds latency = 500ms, const QString &base = QDir::tempPath()) : tree(base)
    {
        tree.dir("left");
        tree.dir("right");
        watcher = std::make_unique<KVNFileSystemWatcher>([this](const std::vector<Event> &batch) {
            batches.push_back(batch);
            arrivals.push_back(clock.elapsed());
        });
        watcher->setLatency(latency);
        clock.start();
    }
    bool start() { return watcher->start({left, right}); }
    QList<QByteArray> paths() const
    {
        QList<QByteArray> all;
        for (const auto &batch : batches)
            for (const Event &event : batch)
                all << event.path;
        return all;
    }
    bool saw(const QByteArray &path) const { return paths().contains(path); }
    // Lets what is still on its way arrive, then forgets every batch.
    void settle()
    {
        QTest::qWait(600);
        batches.clear();
    }
};

} // namespace

class TestFileSystemWatcher : public QObject {
    Q_OBJECT

private slots:
    void reportsTheDirectoryThatChanged()
    {
        Watched w(3000ms);
        const QByteArray deep = w.right + "/a/caf\xe9"; // not UTF-8
        w.tree.dir("right/a/caf\xe9");
        touch(w.left + "/before-start");
        QVERIFY(w.start());
        QTest::qWait(200);
        QVERIFY2(w.batches.empty(), "a change before start() was reported");

        const qint64 changed = w.clock.elapsed();
        touch(w.left + "/file");
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(1), 2000);
        QCOMPARE(w.paths(), QList<QByteArray>{w.left});
        QVERIFY2(w.arrivals[0] - changed < 1500, "the first change after a quiet spell waited for the latency");
        QCOMPARE(w.watcher->latestEventId(), w.batches[0].back().id);
        touch(deep + "/f");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(deep), 8000);
        QVERIFY(!w.saw(w.right));
    }

    void followsDirectoriesAsTheyComeAndGo()
    {
        Watched w;
        KVNTestTree outside;
        QVERIFY(w.start());
        const std::size_t initial = w.watcher->watchCount();
        // Created and filled before the watcher can have seen the directory.
        const QByteArray fresh = w.left + "/new\xff";
        makeDir(fresh);
        touch(fresh + "/early");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left) && w.saw(fresh), 5000);
        QCOMPARE(w.watcher->watchCount(), initial + 1);
        makeDir(fresh + "/x");
        makeDir(fresh + "/x/y");
        touch(fresh + "/x/y/z");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(fresh + "/x/y"), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial + 3, 5000);

        // Renamed within the tree: the watches follow, under the new name.
        QCOMPARE(::rename(fresh.constData(), (w.right + "/moved").constData()), 0);
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right), 5000);
        w.batches.clear();
        touch(w.right + "/moved/x/y/again");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right + "/moved/x/y"), 5000);
        QCOMPARE(w.watcher->watchCount(), initial + 3);

        // Moved out of the roots: released, and no longer heard; removed: released too.
        QCOMPARE(::rename((w.right + "/moved").constData(), outside.path("away").constData()), 0);
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial, 5000);
        w.settle();
        touch(outside.path("away/x/y/unheard"));
        makeDir(w.left + "/gone");
        makeDir(w.left + "/gone/inner");
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial + 2, 5000);
        w.tree.remove("left/gone");
        QTRY_COMPARE_WITH_TIMEOUT(w.watcher->watchCount(), initial, 5000);
        QTest::qWait(600);
        for (const QByteArray &path : w.paths())
            QVERIFY2(path == w.left || path.startsWith(w.left + "/gone"), path.constData());
    }

    void coalescesABurstIntoOneBatch()
    {
        Watched w(1000ms);
        for (int i = 0; i < 100; ++i)
            makeDir(w.left + "/d" + QByteArray::number(i));
        QVERIFY(w.start());
        touch(w.left + "/first");
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(1), 2000);
        // 101 changes from another thread, far quicker than the latency; d5 twice.
        std::atomic<int> written = 0;
        std::thread([&] {
            for (int i = 0; i < 100; ++i)
                written += append(w.left + "/d" + QByteArray::number(i) + "/f");
            written += append(w.left + "/d5/f");
        }).join();
        QCOMPARE(written.load(), 101);
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(2), 5000);
        QVERIFY2(w.arrivals[1] - w.arrivals[0] >= 900, "the second batch came before the latency had passed");
        QTest::qWait(1500);
        QCOMPARE(w.batches.size(), std::size_t(2));
        const auto &batch = w.batches[1];
        QCOMPARE(batch.size(), std::size_t(100));
        QCOMPARE(batch.front().path, w.left + "/d0");
        QCOMPARE(batch.back().path, w.left + "/d5"); // its latest change decides its place
        uint64_t previous = w.batches[0].back().id;
        for (const Event &event : batch) {
            QVERIFY(event.id > previous);
            previous = event.id;
        }
        QCOMPARE(w.watcher->latestEventId(), previous);
    }

    void stopsCleanlyAndKeepsCounting()
    {
        Watched w(2000ms);
        QVERIFY(w.start());
        QVERIFY(w.start()); // running already: nothing changes
        touch(w.left + "/one");
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(1), 2000);
        const uint64_t firstId = w.batches[0].back().id;
        touch(w.left + "/pending"); // held back by the latency when stop() comes
        QTest::qWait(200);
        w.watcher->stop();
        w.watcher->stop();
        QVERIFY(!w.watcher->isRunning());
        QCOMPARE(w.watcher->watchCount(), std::size_t(0));
        touch(w.left + "/stopped");
        QTest::qWait(2500);
        QCOMPARE(w.batches.size(), std::size_t(1));

        // A new run reports at once and continues the ids.
        QVERIFY(w.start());
        touch(w.right + "/two");
        QTRY_COMPARE_WITH_TIMEOUT(w.batches.size(), std::size_t(2), 1500);
        QCOMPARE(w.paths().last(), w.right);
        QVERIFY(w.batches[1].front().id > firstId);

        // The owner may delete the watcher from within its own callback.
        w.watcher->setCallback([&](const std::vector<Event> &batch) {
            w.batches.push_back(batch);
            w.watcher.reset();
        });
        touch(w.left + "/three");
        QTRY_VERIFY_WITH_TIMEOUT(!w.watcher, 5000);
        QCOMPARE(w.batches.size(), std::size_t(3));
    }

    void reportsRootsThatGoAway()
    {
        Watched w;
        QVERIFY(w.start());
        const QByteArray renamed = w.left + "-renamed";
        QCOMPARE(::rename(w.left.constData(), renamed.constData()), 0);
        w.tree.remove("right");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left) && w.saw(w.right), 5000);
        w.settle();
        touch(renamed + "/after"); // its watches went with the name
        QTest::qWait(1200);
        QVERIFY(w.batches.empty());
        // A root that comes back is watched again.
        makeDir(w.right);
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right), 5000);
        w.settle();
        makeDir(w.right + "/sub");
        touch(w.right + "/sub/f");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right + "/sub"), 5000);
    }

    void degradesOnceAtTheWatchLimit()
    {
        warnings.clear();
        const QtMessageHandler previous =
            qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &line) {
                if (type == QtWarningMsg)
                    warnings << line;
            });
        auto restore = qScopeGuard([previous] { qInstallMessageHandler(previous); });
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
        const QStringList limit = warnings.filter("fs.inotify.max_user_watches");
        QCOMPARE(limit.size(), 1);
        QVERIFY(limit[0].startsWith("Watching is incomplete"));

        // No instance at all: with no descriptor left, watching is off, once said.
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
        QCOMPARE(warnings.filter("fs.inotify.max_user_instances").size(), 1);
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
        // Alternating names defeat the kernel's merging of equal events, so
        // the queue overflows before we read it.
        const int fds[2] = {::open((w.left + "/busy/a").constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644),
                            ::open((w.left + "/busy/b").constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)};
        for (int i = 0; i < queued * 2 + 100; ++i)
            QCOMPARE(::write(fds[i % 2], "x", 1), ssize_t(1));
        ::close(fds[0]);
        ::close(fds[1]);
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.right), 8000); // untouched, yet reported
        w.settle();
        touch(w.left + "/busy/after");
        QTRY_VERIFY_WITH_TIMEOUT(w.saw(w.left + "/busy"), 5000);
    }
};

QTEST_GUILESS_MAIN(TestFileSystemWatcher)
#include "tst_filesystemwatcher.moc"

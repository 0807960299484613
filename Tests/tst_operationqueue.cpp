// ctest-label: concurrency
#include "KVNMainThread.h"
#include "KVNOperationQueue.h"
#include "KVNWatchdog.h"

#include <QTest>

#include <algorithm>
#include <atomic>
#include <latch>
#include <random>
#include <semaphore>
#include <stdexcept>

using namespace std::chrono_literals;

namespace {

// A queue a failed test must leave behind; reachable, so no leak is reported.
KVNOperationQueue *volatile abandonedQueue = nullptr;

KVNOperationPtr op(std::function<void()> body)
{
    return KVNBlockOperation::make([body = std::move(body)](KVNBlockOperation &) { body(); });
}

// Its cancel() counts down a latch shared by a group; a holding probe's body
// waits until the whole group is cancelled, in whatever order.
struct Probe : KVNOperation {
    Probe(std::latch &group, bool holds) : group_(group), holds_(holds) {}
    std::latch started{1};
    std::atomic<bool> ranBody{false}, sawCancel{false};
    void cancel() override
    {
        KVNOperation::cancel();
        if (!counted_.exchange(true))
            group_.count_down();
    }
    void main() override
    {
        ranBody = true;
        started.count_down();
        if (holds_) {
            group_.wait();
            sawCancel = isCancelled();
        }
    }
    std::latch &group_;
    const bool holds_;
    std::atomic<bool> counted_{false};
};

} // namespace

class TestOperationQueue : public QObject {
    Q_OBJECT

    std::unique_ptr<KVNWatchdog> watchdog_;

private slots:
    void init() { watchdog_ = std::make_unique<KVNWatchdog>(QTest::currentTestFunction(), 60); }
    void cleanup() { watchdog_.reset(); }

    void dependenciesFinishFirst_data()
    {
        QTest::addColumn<int>("width");
        for (int width : {1, 4, 16})
            QTest::addRow("width %d", width) << width;
    }
    void dependenciesFinishFirst()
    {
        QFETCH(int, width);
        constexpr int count = 400;
        std::mt19937 random(width);
        std::vector<KVNOperationPtr> ops;
        std::vector<char> ran(count, 0), cancelled(count, 0);
        std::atomic<int> violations{0};
        KVNOperationQueue queue;
        // One finished before the rest arrive: depending on it must not block.
        auto done = op([] {});
        queue.addOperation(done);
        queue.waitUntilAllOperationsAreFinished();
        for (int i = 0; i < count; ++i) {
            ops.push_back(op([&, i] {
                for (const auto &dependency : ops[i]->dependencies())
                    violations += !dependency->isFinished();
                ran[i] = 1;
            }));
            ops[i]->addDependency(done);
            for (int k = 0; i > 0 && k < 3; ++k)
                ops[i]->addDependency(ops[random() % i]);
            if (random() % 10 == 0) { // their dependants must run all the same
                cancelled[i] = 1;
                ops[i]->cancel();
            }
        }
        auto shuffled = ops; // dependants often reach the queue before their dependencies
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        queue.setMaxConcurrentOperationCount(width);
        queue.addOperations(shuffled);
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(violations.load(), 0);
        for (int i = 0; i < count; ++i)
            QVERIFY(ops[i]->isFinished() && bool(ran[i]) == !cancelled[i]);
        QCOMPARE(queue.operationCount(), std::size_t(0));
        QCOMPARE(queue.finishedOperationTotal(), std::size_t(count + 1));
    }

    // The canceller may be preempted right after the running body has seen its
    // flag; the freed worker must not start anything queued or waiting behind it.
    void cancelAllStopsQueuedAndWaitingWork()
    {
        struct Releasing : KVNOperation {
            std::counting_semaphore<> started{0}, released{0}, otherStarted{0};
            std::atomic<bool> sawCancel{false};
            void cancel() override
            {
                KVNOperation::cancel();
                released.release();
                otherStarted.try_acquire_for(500ms);
            }
            void main() override
            {
                started.release();
                released.acquire();
                sawCancel = isCancelled();
            }
        };
        auto running = std::make_shared<Releasing>();
        std::atomic<int> bodies{0};
        std::vector<KVNOperationPtr> rest;
        for (int i = 0; i < 10; ++i) {
            rest.push_back(op([&] {
                ++bodies;
                running->otherStarted.release();
            }));
            if (i >= 5) // waiting for a dependency; the first five are ready behind the busy worker
                rest.back()->addDependency(i == 5 ? running : rest[i - 1]);
        }
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(1);
        queue.addOperation(running);
        running->started.acquire();
        queue.addOperations(rest);
        queue.cancelAllOperations();
        for (const auto &operation : rest)
            QVERIFY(operation->isCancelled());
        // Cancelling is not a state of the queue, and a cancelled operation still releases its dependants.
        std::atomic<bool> dependantRan{false};
        auto dependant = op([&] { dependantRan = rest.back()->isFinished(); });
        dependant->addDependency(rest.back());
        queue.addOperation(dependant);
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(bodies.load(), 0);
        QVERIFY(running->sawCancel && dependantRan); // a running body only gets to see the flag
        for (const auto &operation : rest)
            QVERIFY(operation->isFinished());
    }

    void throwingBodyFinishesAndWorkerSurvives()
    {
        QTest::ignoreMessage(QtWarningMsg, "Uncaught exception in operation: boom");
        QTest::ignoreMessage(QtWarningMsg, "Uncaught exception in operation");
        std::mutex mutex;
        std::vector<std::thread::id> threads;
        auto body = [&](int throws) {
            return op([&, throws] {
                std::lock_guard lock(mutex);
                threads.push_back(std::this_thread::get_id());
                if (throws == 1)
                    throw std::runtime_error("boom");
                if (throws == 2)
                    throw 42;
            });
        };
        auto throwsStd = body(1), throwsOther = body(2), dependant = body(0);
        dependant->addDependency(throwsStd);
        dependant->addDependency(throwsOther);
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(1); // one worker, which must outlive both throws
        queue.addOperations({throwsStd, throwsOther, dependant, body(0)});
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(throwsStd->isFinished() && !throwsStd->isExecuting() && throwsOther->isFinished());
        QCOMPARE(queue.finishedOperationTotal(), std::size_t(4));
        QCOMPARE(threads.size(), std::size_t(4));
        QVERIFY(std::all_of(threads.begin(), threads.end(), [&](auto id) { return id == threads[0]; }));

        // Added twice, an operation runs once and leaves no phantom behind.
        auto queueForTwice = std::make_unique<KVNOperationQueue>();
        auto twice = op([] {});
        queueForTwice->addOperation(twice);
        queueForTwice->addOperation(twice);
        twice->waitUntilFinished();
        const bool settled = QTest::qWaitFor([&] { return queueForTwice->operationCount() == 0; }, 2000);
        if (!settled)
            abandonedQueue = queueForTwice.release(); // its destructor would wait for the phantom for ever
        QVERIFY(settled);
    }

    // A feeder queues a window of work and the next feeder behind it; the
    // barrier, queued from the start, gains both while the feeder runs, and the
    // wait covers what is added once it has begun.
    void barrierGainsDependenciesWhileItWaits()
    {
        constexpr int windows = 30, perWindow = 100;
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(4);
        std::atomic<int> done{0}, refused{0}, barrierSaw{-1};
        auto barrier = op([&] { barrierSaw = done.load(); });
        std::function<void(int)> feed = [&](int window) {
            std::vector<KVNOperationPtr> batch;
            for (int i = 0; i < perWindow; ++i) {
                batch.push_back(op([&] { ++done; }));
                refused += !barrier->addDependency(batch.back());
            }
            queue.addOperations(batch);
            if (window + 1 < windows) {
                auto next = op([&feed, window] { feed(window + 1); });
                refused += !barrier->addDependency(next);
                queue.addOperation(next);
            }
        };
        auto first = op([&] {
            KVNMainThread::invokeAndWait([] {}); // returns once the main thread is inside the wait
            feed(0);
        });
        barrier->addDependency(first);
        queue.addOperations({first, barrier});
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(refused.load(), 0);
        QCOMPARE(barrierSaw.load(), windows * perWindow);
        QVERIFY(barrier->dependencies().empty());
    }

    // Queued and ready, an operation takes no more dependencies; widened while
    // its only worker is busy, the queue starts it at once.
    void lateDependencyIsRefusedAndWideningStartsWork()
    {
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(1);
        std::latch group(1);
        auto busy = std::make_shared<Probe>(group, true);
        std::atomic<bool> lateRan{false};
        std::binary_semaphore readyStarted{0};
        auto late = op([&] { lateRan = true; });
        auto ready = op([&] { readyStarted.release(); });
        queue.addOperation(busy);
        busy->started.wait();
        queue.addOperation(ready); // ready, behind the busy worker
        QVERIFY(!ready->addDependency(late) && ready->dependencies().empty());
        QVERIFY(!ready->addDependency(nullptr) && !ready->addDependency(ready));
        queue.setMaxConcurrentOperationCount(2);
        const bool overlapped = readyStarted.try_acquire_for(2s);
        group.count_down();
        ready->waitUntilFinished();
        QVERIFY(overlapped && !lateRan);      // it did not wait for what was refused
        QVERIFY(!ready->addDependency(late)); // nor does a finished one take any
        queue.addOperation(late);
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(lateRan);
    }

    void queueGoneBeforeItsWaitingOperation()
    {
        // A queue dropped by its own worker leaves behind an operation that
        // waits on another queue; when that one finishes, the first queue's
        // state must not be reached for any more.
        KVNOperationQueue other;
        std::latch group(1);
        auto holder = std::make_shared<Probe>(group, true);
        other.addOperation(holder);
        holder->started.wait();
        auto waiting = op([] {});
        waiting->addDependency(holder);
        auto queue = std::make_shared<KVNOperationQueue>();
        std::weak_ptr<KVNOperationQueue> weakQueue = queue;
        queue->addOperation(waiting);
        queue->addOperation(op([&queue] { queue.reset(); }));
        QTRY_VERIFY(weakQueue.expired());
        std::this_thread::sleep_for(50ms); // its workers let go of the state
        group.count_down();
        other.waitUntilAllOperationsAreFinished();
        QVERIFY(waiting->isCancelled()); // and nothing touched a state that is gone (the sanitizer build says)
    }

    void widthBoundsConcurrency_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("expected");
        QTest::newRow("default: the cores") << KVNOperationQueue::KVNOperationQueueDefaultMaxConcurrentOperationCount
                                            << int(std::thread::hardware_concurrency());
        for (int width : {1, 3, 8})
            QTest::addRow("%d", width) << width << width;
    }
    void widthBoundsConcurrency()
    {
        QFETCH(int, width);
        QFETCH(int, expected);
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(4);
        std::latch warm(4); // leaves four threads behind, which a narrower width must not use
        for (int i = 0; i < 4; ++i)
            queue.addOperation(op([&] { warm.arrive_and_wait(); }));
        queue.waitUntilAllOperationsAreFinished();
        queue.setMaxConcurrentOperationCount(width);
        QCOMPARE(queue.maxConcurrentOperationCount(), expected);
        std::atomic<int> active{0}, peak{0}; // bodies running at once, and the most seen
        std::latch together(expected);       // opens only if that many bodies run at once
        for (int i = 0; i < 60; ++i)
            queue.addOperation(op([&, i] {
                for (int now = ++active, seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {
                }
                if (i < expected)
                    together.arrive_and_wait();
                std::this_thread::sleep_for(1ms); // a chance for an extra worker to overlap
                --active;
            }));
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(peak.load(), expected);
    }

    // The destructor cancels, waits for the running body, and leaves the count
    // observer with every step up and down, none skipped or reordered.
    void destructionCancelsWaitsAndCountsDown()
    {
        std::mutex mutex;
        std::vector<std::pair<std::size_t, std::size_t>> seen; // (new, old)
        std::latch group(10);
        auto running = std::make_shared<Probe>(group, true);
        std::vector<std::shared_ptr<Probe>> pending;
        auto queue = std::make_unique<KVNOperationQueue>();
        queue->setMaxConcurrentOperationCount(1);
        queue->setOperationCountObserver([&](std::size_t now, std::size_t old) {
            std::lock_guard lock(mutex);
            seen.emplace_back(now, old);
        });
        queue->addOperation(running);
        running->started.wait();
        for (int i = 0; i < 9; ++i) {
            pending.push_back(std::make_shared<Probe>(group, false));
            if (i % 2)
                pending.back()->addDependency(running);
            queue->addOperation(pending.back());
        }
        QCOMPARE(queue->operationCount(), std::size_t(10));
        queue.reset();
        QVERIFY(running->sawCancel && running->isFinished());
        for (const auto &probe : pending)
            QVERIFY(probe->isFinished() && !probe->ranBody);
        QVERIFY(seen.size() >= 11);
        for (std::size_t i = 0; i < 10; ++i)
            QCOMPARE(seen[i], std::make_pair(i + 1, i));
        for (std::size_t i = 10; i < seen.size(); ++i)
            QVERIFY(seen[i].second == seen[i - 1].first && seen[i].first < seen[i].second);
        QCOMPARE(seen.back().first, std::size_t(0));
    }

    void invokeAndWaitRunsOnMainThread()
    {
        bool ranAtOnce = false;
        KVNMainThread::invokeAndWait([&] { ranAtOnce = true; });
        QVERIFY(ranAtOnce); // on the main thread it runs at once
        int value = 0;      // plain: the return must order the worker after the call
        std::atomic<int> seenByWorker{-1};
        std::thread worker([&] {
            KVNMainThread::invokeAndWait([&] { value = KVNMainThread::isMainThread() ? 42 : 1; });
            seenByWorker = value;
        });
        QTRY_COMPARE(seenByWorker.load(), 42); // the event loop serves the call, on the main thread
        worker.join();

        // The main thread blocks in a queue's wait, spinning no event loop, while
        // the operations it waits for need it: only the wait itself can serve them.
        int served = 0; // counts only calls served on the main thread
        for (int round = 0; round < 200; ++round) {
            KVNOperationQueue queue;
            queue.setMaxConcurrentOperationCount(4);
            std::vector<KVNOperationPtr> ops;
            for (int i = 0; i < 6; ++i) {
                ops.push_back(
                    op([&] { KVNMainThread::invokeAndWait([&] { served += KVNMainThread::isMainThread(); }); }));
                if (i >= 3)
                    ops.back()->addDependency(ops[i - 3]);
            }
            queue.addOperations(ops);
            queue.waitUntilAllOperationsAreFinished();
            QCOMPARE(served, (round + 1) * 6);
        }
    }
};

QTEST_GUILESS_MAIN(TestOperationQueue)
#include "tst_operationqueue.moc"

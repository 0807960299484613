#include "KVNMainThread.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <vector>

namespace {

struct BlockingCall {
    std::function<void()> fn;
    std::atomic<bool> done{false}; // set under the calls' mutex; read without it while spinning
};

// How long a worker watches for its call to be done before it sleeps: an idle
// main thread answers within microseconds, and a sleep costs the worker a
// second wake-up per call, which is most of a call when many come in a row
// (a reconciliation removing a large subtree makes one per row).
constexpr std::chrono::microseconds kSpinBeforeSleeping{50};

void spinPause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

struct Waiter {
    std::mutex *mutex;
    std::condition_variable *cv;
};

// The main thread is one per process, and so is the list of calls that wait for it.
// Lock order: this mutex before a waiter's. The main thread never takes this
// one while it holds a waiter's mutex, so a worker can notify a waiter while
// keeping the waiter registered (and so alive).
struct BlockingCalls {
    std::mutex mutex;
    std::condition_variable doneCv;
    std::deque<BlockingCall *> pending;
    std::atomic<std::size_t> pendingCount{0};
    std::vector<Waiter> waiters;
};

BlockingCalls &blockingCalls()
{
    static BlockingCalls calls;
    return calls;
}

bool hasPendingBlockingCalls()
{
    return blockingCalls().pendingCount.load(std::memory_order_acquire) != 0;
}

} // namespace

bool KVNMainThread::isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void KVNMainThread::post(std::function<void()> fn)
{
    auto *app = QCoreApplication::instance();
    if (!app)
        return;
    QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}

void KVNMainThread::post(QObject *receiver, std::function<void()> fn)
{
    if (!receiver)
        return;
    // Bound to the receiver: Qt drops the call if the receiver is destroyed first.
    QMetaObject::invokeMethod(receiver, std::move(fn), Qt::QueuedConnection);
}

void KVNMainThread::invokeAndWait(std::function<void()> fn)
{
    if (isMainThread() || !QCoreApplication::instance()) {
        fn();
        return;
    }
    auto &calls = blockingCalls();
    BlockingCall call{std::move(fn)};
    std::unique_lock lock(calls.mutex);
    calls.pending.push_back(&call);
    calls.pendingCount.fetch_add(1, std::memory_order_release);
    // A main thread blocked in a wait that serves calls is woken here; one in
    // its event loop serves the call through the posted event.
    for (const auto &w : calls.waiters) {
        std::lock_guard guard(*w.mutex);
        w.cv->notify_all();
    }
    lock.unlock();
    post([] { serviceBlockingCalls(); });
    const auto until = std::chrono::steady_clock::now() + kSpinBeforeSleeping;
    for (unsigned spin = 1; !call.done.load(std::memory_order_acquire); ++spin) {
        spinPause();
        if (spin % 64 == 0 && std::chrono::steady_clock::now() > until)
            break;
    }
    lock.lock();
    calls.doneCv.wait(lock, [&] { return call.done.load(std::memory_order_relaxed); });
}

bool KVNMainThread::serviceBlockingCalls()
{
    auto &calls = blockingCalls();
    bool ran = false;
    for (;;) {
        BlockingCall *call = nullptr;
        {
            std::lock_guard guard(calls.mutex);
            if (calls.pending.empty())
                break;
            call = calls.pending.front();
            calls.pending.pop_front();
            calls.pendingCount.fetch_sub(1, std::memory_order_release);
        }
        try {
            call->fn();
        } catch (const std::exception &e) {
            qWarning().noquote() << "Uncaught exception in a call on the main thread:" << e.what();
        } catch (...) {
            qWarning().noquote() << "Uncaught exception in a call on the main thread";
        }
        ran = true;
        {
            std::lock_guard guard(calls.mutex);
            call->done.store(true, std::memory_order_release);
        }
        calls.doneCv.notify_all();
    }
    return ran;
}

void KVNMainThread::waitServingBlockingCalls(std::unique_lock<std::mutex> &lock, std::condition_variable &cv,
                                             const std::function<bool()> &ready)
{
    if (!isMainThread()) {
        cv.wait(lock, ready);
        return;
    }
    auto &calls = blockingCalls();
    lock.unlock();
    {
        std::lock_guard guard(calls.mutex);
        calls.waiters.push_back({lock.mutex(), &cv});
    }
    lock.lock();
    while (!ready()) {
        if (hasPendingBlockingCalls()) {
            lock.unlock();
            serviceBlockingCalls();
            lock.lock();
            continue;
        }
        cv.wait(lock, [&] { return ready() || hasPendingBlockingCalls(); });
    }
    lock.unlock();
    {
        std::lock_guard guard(calls.mutex);
        auto &w = calls.waiters;
        w.erase(std::find_if(w.begin(), w.end(), [&](const Waiter &x) { return x.cv == &cv; }));
    }
    lock.lock();
}

#include "KVNMainThread.h"

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <deque>
#include <vector>

namespace {

struct BlockingCall {
    std::function<void()> fn;
    bool done = false;
};

struct Waiter {
    std::mutex *mutex;
    std::condition_variable *cv;
};

// The main thread is one per process, and so is the list of calls that wait for it.
struct BlockingCalls {
    std::mutex mutex;
    std::condition_variable doneCv;
    std::deque<BlockingCall *> pending;
    std::vector<Waiter> waiters;
};

BlockingCalls &blockingCalls()
{
    static BlockingCalls calls;
    return calls;
}

bool hasPendingBlockingCalls()
{
    auto &calls = blockingCalls();
    std::lock_guard guard(calls.mutex);
    return !calls.pending.empty();
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
    std::vector<Waiter> waiters;
    {
        std::lock_guard guard(calls.mutex);
        calls.pending.push_back(&call);
        waiters = calls.waiters;
    }
    // The event loop serves the call, unless the main thread is blocked in a wait
    // that serves it instead; wake such a wait.
    post([] { serviceBlockingCalls(); });
    for (const auto &w : waiters) {
        std::lock_guard guard(*w.mutex);
        w.cv->notify_all();
    }
    std::unique_lock lock(calls.mutex);
    calls.doneCv.wait(lock, [&] { return call.done; });
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
        }
        call->fn();
        ran = true;
        {
            std::lock_guard guard(calls.mutex);
            call->done = true;
        }
        calls.doneCv.notify_all();
    }
    return ran;
}

void KVNMainThread::waitServingBlockingCalls(std::unique_lock<std::mutex> &lock,
                                             std::condition_variable &cv,
                                             const std::function<bool()> &ready)
{
    if (!isMainThread()) {
        cv.wait(lock, ready);
        return;
    }
    auto &calls = blockingCalls();
    {
        std::lock_guard guard(calls.mutex);
        calls.waiters.push_back({lock.mutex(), &cv});
    }
    while (!ready()) {
        if (hasPendingBlockingCalls()) {
            lock.unlock();
            serviceBlockingCalls();
            lock.lock();
            continue;
        }
        cv.wait(lock, [&] { return ready() || hasPendingBlockingCalls(); });
    }
    std::lock_guard guard(calls.mutex);
    auto &w = calls.waiters;
    w.erase(std::find_if(w.begin(), w.end(), [&](const Waiter &x) { return x.cv == &cv; }));
}

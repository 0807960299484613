#pragma once

#include <QObject>
#include <QPointer>

#include <condition_variable>
#include <functional>
#include <mutex>

// The hop to the main thread. post() never blocks the caller; invokeAndWait()
// is the single blocking variant, used by the row removal of a reconciliation.
// A main thread that blocks in KVNOperationQueue::waitUntilAllOperationsAreFinished
// keeps serving invokeAndWait() calls, so that wait cannot meet a waiting worker
// and deadlock.
class KVNMainThread {
public:
    static bool isMainThread();

    // Runs fn on the main thread in a later pass of the event loop, even when
    // called on the main thread. With a receiver, nothing runs once it is gone.
    static void post(std::function<void()> fn);
    static void post(QObject *receiver, std::function<void()> fn);

    // Runs fn on the main thread and returns when it has run. Called on the
    // main thread, it runs fn at once.
    static void invokeAndWait(std::function<void()> fn);

    // Runs blocking calls queued by invokeAndWait(); the main thread calls this
    // while it waits for something else. Returns whether anything ran.
    static bool serviceBlockingCalls();

    // Waits on cv (with lock held on entry and exit) until ready() holds, and
    // meanwhile runs the blocking calls that workers queue. Only for the main
    // thread; elsewhere it is a plain wait.
    static void waitServingBlockingCalls(std::unique_lock<std::mutex> &lock, std::condition_variable &cv,
                                         const std::function<bool()> &ready);
};

#pragma once

#include "KVNOperation.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// The part of a queue that its worker threads and its operations share; it
// outlives the queue object while a worker still holds it.
struct KVNOperationQueueState : std::enable_shared_from_this<KVNOperationQueueState> {
    ~KVNOperationQueueState(); // operations still waiting forget it
    mutable std::mutex mutex;
    std::condition_variable workCv;
    std::condition_variable idleCv;
    std::deque<KVNOperationPtr> ready;
    // Insertion order is kept for operations(); each operation knows its slot.
    std::deque<KVNOperationPtr> all; // a deque grows without copying what it holds
    std::size_t removedSinceCompaction = 0;
    std::size_t liveCount = 0;
    std::size_t finishedTotal = 0;
    std::vector<std::thread> threads;
    std::vector<std::thread::id> threadIds;
    int idleThreads = 0;
    int running = 0;
    int width = 1;
    bool shutdown = false;

    std::mutex notifyMutex;
    std::function<void(std::size_t, std::size_t)> countObserver;
    std::size_t lastNotifiedCount = 0;
    std::function<void(const KVNOperation &, bool)> runObserver; // set while idle
    // Changes to or from zero, in order: they are never folded into others, so
    // an observer always sees a queue start and end, however brief the work.
    std::deque<std::pair<std::size_t, std::size_t>> zeroCrossings;
    void recordCountChange(std::size_t newCount, std::size_t oldCount); // with mutex held

    void add(const KVNOperationPtr &operation);
    std::vector<KVNOperationPtr> markAllCancelled();
    void makeReady(const KVNOperationPtr &operation);
    void removeFinished(KVNOperation *operation);
    void notifyCount();
    void workerLoop();
    void startWorkerIfNeeded(); // with mutex held
    bool isWorkerThread() const;
};

#pragma once

#include "KVNOperation.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

// Runs operations on a pool of its own threads, as many at once as its width
// allows, in the order their dependencies permit. Operations may be added from
// inside an operation of the same queue.
class KVNOperationQueue {
public:
    // -1 is the default width: the machine's cores.
    static constexpr int KVNOperationQueueDefaultMaxConcurrentOperationCount = -1;

    KVNOperationQueue();
    ~KVNOperationQueue(); // cancels what is left and waits for it
    KVNOperationQueue(const KVNOperationQueue &) = delete;
    KVNOperationQueue &operator=(const KVNOperationQueue &) = delete;

    void setMaxConcurrentOperationCount(int count);
    int maxConcurrentOperationCount() const;

    void addOperation(const KVNOperationPtr &operation);
    void addOperations(const std::vector<KVNOperationPtr> &operations);

    // Reaches every operation in the queue, also those waiting for dependencies.
    void cancelAllOperations();
    // On the main thread this also serves KVNMainThread::invokeAndWait calls,
    // so that a worker waiting for the main thread cannot deadlock the wait.
    void waitUntilAllOperationsAreFinished();

    std::vector<KVNOperationPtr> operations() const;
    std::size_t operationCount() const;
    // Operations run so far, bodies or not: a figure for statistics.
    std::size_t finishedOperationTotal() const;

    // Told on the thread that changed the count, outside the queue's lock, in
    // the order of the changes; a burst of changes may arrive as one, but every
    // change to or from zero is told. The observer must not call back into the
    // queue synchronously.
    using CountObserver = std::function<void(std::size_t newCount, std::size_t oldCount)>;
    void setOperationCountObserver(CountObserver observer);

    // Told on the worker thread just before an operation runs (started true)
    // and just after it has finished; for statistics. Set it while the queue is idle.
    using RunObserver = std::function<void(const KVNOperation &operation, bool started)>;
    void setOperationRunObserver(RunObserver observer);

private:
    std::shared_ptr<KVNOperationQueueState> state_;
};

using KVNOperationQueuePtr = std::shared_ptr<KVNOperationQueue>;

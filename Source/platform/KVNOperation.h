#pragma once

#include "KVNTinyLock.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

struct KVNOperationQueueState;

// A unit of background work with dependencies and a cancelled flag. A plain
// KVNOperation has an empty body and serves as a barrier.
//
// Guarantees: an operation runs after all its dependencies have finished,
// cancelled ones included; a cancelled operation that has not started runs no
// body, and its dependants run all the same.
class KVNOperation : public std::enable_shared_from_this<KVNOperation> {
public:
    KVNOperation();
    virtual ~KVNOperation();
    KVNOperation(const KVNOperation &) = delete;
    KVNOperation &operator=(const KVNOperation &) = delete;

    // Dependencies are added before the operation is added to a queue.
    void addDependency(const std::shared_ptr<KVNOperation> &operation);
    std::vector<std::shared_ptr<KVNOperation>> dependencies() const;

    virtual void cancel();
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
    bool isExecuting() const { return executing_.load(std::memory_order_acquire); }
    bool isFinished() const { return finished_.load(std::memory_order_acquire); }
    // Blocks until the operation has finished (with or without its body).
    void waitUntilFinished();

    // What a worker thread does once its queue has nothing ready: it gives
    // back what operations kept for the next one on the same thread (open
    // directories, say), so nothing stays held while the queue is idle.
    // Only a queue's worker threads ever run it, so only they may keep things for it.
    static void setIdleWork(void (*work)());
    static bool hasIdleWork();
    static void runIdleWork();
    static bool isWorkerThread();
    static void markWorkerThread(); // by the queue, once per worker

protected:
    virtual void main() {}

private:
    friend struct KVNOperationQueueState;
    void run();
    void finish();
    // Called with the operation's queue state; answers whether it is ready now.
    bool attachToQueue(const std::shared_ptr<KVNOperationQueueState> &queue);
    void dependencyFinished();

    // A pipeline holds one operation per pair, so the state is kept small: a
    // four-byte lock, and waiting on the finished flag itself.
    mutable KVNTinyLock lock_;
    std::vector<std::shared_ptr<KVNOperation>> dependencies_;
    std::vector<std::weak_ptr<KVNOperation>> dependants_;
    std::shared_ptr<KVNOperationQueueState> queue_;
    std::size_t queueSlot_ = 0; // the queue's, under its lock: 0 outside a queue, else index + 1
    int pendingDependencies_ = 0;
    bool enqueued_ = false;
    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> cancelled_{false};
};

using KVNOperationPtr = std::shared_ptr<KVNOperation>;

// An operation whose body is a function; convenient for small steps and tests.
class KVNBlockOperation : public KVNOperation {
public:
    explicit KVNBlockOperation(std::function<void(KVNBlockOperation &)> body) : body_(std::move(body)) {}
    static std::shared_ptr<KVNBlockOperation> make(std::function<void(KVNBlockOperation &)> body)
    {
        return std::make_shared<KVNBlockOperation>(std::move(body));
    }

protected:
    void main() override { body_(*this); }

private:
    std::function<void(KVNBlockOperation &)> body_;
};

#pragma once

#include "KVNTinyLock.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
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

    // Dependencies are added before the operation is added to a queue, or later
    // while one of its dependencies is known not to have finished (typically
    // from inside that dependency's body): an operation with an unfinished
    // dependency cannot have become ready, so a graph may grow while it runs.
    // Answers false, and adds nothing, once the operation has become ready (or
    // has run): the rule was broken and the dependency would not hold.
    bool addDependency(const std::shared_ptr<KVNOperation> &operation);
    // What the operation holds of its dependencies: every one added, until the
    // operation has finished; then nothing, so that a finished graph pins
    // nothing. An operation with many dependencies lets go of finished ones as
    // it gains more, so a barrier behind a long stream of work stays small.
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
    bool attachToQueue(KVNOperationQueueState *queue);
    void detachFromQueue(KVNOperationQueueState *queue); // by a state that goes away first
    void dependencyFinished();

    // What most operations never need: a second dependant, any dependency.
    struct Links {
        std::vector<std::weak_ptr<KVNOperation>> moreDependants;
        std::vector<std::shared_ptr<KVNOperation>> dependencies;
        std::size_t pruneAt = 64;
    };
    Links &links(); // with lock_ held

    // A pipeline may hold thousands of operations at once, so the state is
    // small: a four-byte lock, waiting on the finished flag itself, one
    // dependant inline and the rest only when there are any.
    mutable KVNTinyLock lock_;
    int pendingDependencies_ = 0;
    // Raw: a state clears it before it goes (detachFromQueue), and an
    // operation clears it once it has finished.
    KVNOperationQueueState *queue_ = nullptr;
    uint32_t queueSlot_ = 0; // the queue's, under its lock: 0 outside a queue, else index + 1
    bool enqueued_ = false;
    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> cancelled_{false};
    std::weak_ptr<KVNOperation> firstDependant_;
    std::unique_ptr<Links> links_;
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

#include "KVNOperation.h"

#include "KVNOperationQueueState.h"

#include <utility>

namespace {
thread_local void (*tIdleWork)() = nullptr;
thread_local bool tWorkerThread = false;
} // namespace

bool KVNOperation::isWorkerThread()
{
    return tWorkerThread;
}

void KVNOperation::markWorkerThread()
{
    tWorkerThread = true;
}

void KVNOperation::setIdleWork(void (*work)())
{
    tIdleWork = work;
}

bool KVNOperation::hasIdleWork()
{
    return tIdleWork != nullptr;
}

void KVNOperation::runIdleWork()
{
    if (auto work = std::exchange(tIdleWork, nullptr))
        work();
}

KVNOperation::KVNOperation() = default;
KVNOperation::~KVNOperation() = default;

void KVNOperation::addDependency(const std::shared_ptr<KVNOperation> &operation)
{
    if (!operation || operation.get() == this)
        return;
    // The dependency's lock first: its finish cannot slip between the test and
    // the registration.
    std::scoped_lock lock(operation->lock_, lock_);
    dependencies_.push_back(operation);
    if (operation->isFinished())
        return;
    operation->dependants_.push_back(weak_from_this());
    ++pendingDependencies_;
}

std::vector<std::shared_ptr<KVNOperation>> KVNOperation::dependencies() const
{
    std::lock_guard lock(lock_);
    return dependencies_;
}

void KVNOperation::cancel()
{
    cancelled_.store(true, std::memory_order_release);
}

void KVNOperation::waitUntilFinished()
{
    finished_.wait(false, std::memory_order_acquire);
}

bool KVNOperation::attachToQueue(const std::shared_ptr<KVNOperationQueueState> &queue)
{
    std::lock_guard lock(lock_);
    queue_ = queue;
    if (pendingDependencies_ == 0 && !enqueued_) {
        enqueued_ = true;
        return true;
    }
    return false;
}

void KVNOperation::dependencyFinished()
{
    std::shared_ptr<KVNOperationQueueState> queue;
    {
        std::lock_guard lock(lock_);
        if (--pendingDependencies_ > 0 || enqueued_ || !queue_)
            return;
        enqueued_ = true;
        queue = queue_;
    }
    queue->makeReady(shared_from_this());
}

void KVNOperation::run()
{
    executing_.store(true, std::memory_order_release);
    if (!isCancelled())
        main();
    finish();
}

void KVNOperation::finish()
{
    std::vector<std::weak_ptr<KVNOperation>> dependants;
    {
        std::lock_guard lock(lock_);
        executing_.store(false, std::memory_order_release);
        finished_.store(true, std::memory_order_release);
        dependants.swap(dependants_);
        queue_.reset();
    }
    finished_.notify_all();
    for (auto &weak : dependants)
        if (auto dependant = weak.lock())
            dependant->dependencyFinished();
}

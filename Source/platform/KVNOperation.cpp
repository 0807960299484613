#include "KVNOperation.h"

#include "KVNOperationQueueState.h"

KVNOperation::KVNOperation() = default;
KVNOperation::~KVNOperation() = default;

void KVNOperation::addDependency(const std::shared_ptr<KVNOperation> &operation)
{
    if (!operation || operation.get() == this)
        return;
    // The dependency's lock first: its finish cannot slip between the test and
    // the registration.
    std::scoped_lock lock(operation->mutex_, mutex_);
    dependencies_.push_back(operation);
    if (operation->finished_)
        return;
    operation->dependants_.push_back(weak_from_this());
    ++pendingDependencies_;
}

std::vector<std::shared_ptr<KVNOperation>> KVNOperation::dependencies() const
{
    std::lock_guard lock(mutex_);
    return dependencies_;
}

void KVNOperation::cancel()
{
    cancelled_.store(true, std::memory_order_release);
}

bool KVNOperation::isExecuting() const
{
    std::lock_guard lock(mutex_);
    return executing_;
}

bool KVNOperation::isFinished() const
{
    std::lock_guard lock(mutex_);
    return finished_;
}

void KVNOperation::waitUntilFinished()
{
    std::unique_lock lock(mutex_);
    finishedCv_.wait(lock, [this] { return finished_; });
}

bool KVNOperation::attachToQueue(const std::shared_ptr<KVNOperationQueueState> &queue)
{
    std::lock_guard lock(mutex_);
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
        std::lock_guard lock(mutex_);
        if (--pendingDependencies_ > 0 || enqueued_ || !queue_)
            return;
        enqueued_ = true;
        queue = queue_;
    }
    queue->makeReady(shared_from_this());
}

void KVNOperation::run()
{
    {
        std::lock_guard lock(mutex_);
        executing_ = true;
    }
    if (!isCancelled())
        main();
    finish();
}

void KVNOperation::finish()
{
    std::vector<std::weak_ptr<KVNOperation>> dependants;
    {
        std::lock_guard lock(mutex_);
        executing_ = false;
        finished_ = true;
        dependants.swap(dependants_);
        queue_.reset();
    }
    finishedCv_.notify_all();
    for (auto &weak : dependants)
        if (auto dependant = weak.lock())
            dependant->dependencyFinished();
}

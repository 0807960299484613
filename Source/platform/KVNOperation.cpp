#include "KVNOperation.h"

#include "KVNOperationQueueState.h"

#include <algorithm>
#include <iterator>
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

KVNOperation::Links &KVNOperation::links()
{
    if (!links_)
        links_ = std::make_unique<Links>();
    return *links_;
}

bool KVNOperation::addDependency(const std::shared_ptr<KVNOperation> &operation)
{
    if (!operation || operation.get() == this)
        return false;
    std::vector<std::shared_ptr<KVNOperation>> released; // let go of outside the locks
    {
        // The dependency's lock too: its finish cannot slip between the test
        // and the registration.
        std::scoped_lock lock(operation->lock_, lock_);
        if (enqueued_ || isFinished())
            return false;
        Links &own = links();
        own.dependencies.push_back(operation);
        if (own.dependencies.size() >= own.pruneAt) {
            auto firstFinished = std::partition(own.dependencies.begin(), own.dependencies.end(),
                                                [](const auto &dependency) { return !dependency->isFinished(); });
            released.assign(std::make_move_iterator(firstFinished), std::make_move_iterator(own.dependencies.end()));
            own.dependencies.erase(firstFinished, own.dependencies.end());
            own.pruneAt = std::max<std::size_t>(64, 2 * own.dependencies.size());
        }
        if (!operation->isFinished()) {
            if (operation->firstDependant_.expired())
                operation->firstDependant_ = weak_from_this();
            else
                operation->links().moreDependants.push_back(weak_from_this());
            ++pendingDependencies_;
        }
    }
    return true;
}

std::vector<std::shared_ptr<KVNOperation>> KVNOperation::dependencies() const
{
    std::lock_guard lock(lock_);
    return links_ ? links_->dependencies : std::vector<std::shared_ptr<KVNOperation>>();
}

void KVNOperation::cancel()
{
    cancelled_.store(true, std::memory_order_release);
}

void KVNOperation::waitUntilFinished()
{
    finished_.wait(false, std::memory_order_acquire);
}

bool KVNOperation::attachToQueue(KVNOperationQueueState *queue)
{
    std::lock_guard lock(lock_);
    queue_ = queue;
    if (pendingDependencies_ == 0 && !enqueued_) {
        enqueued_ = true;
        return true;
    }
    return false;
}

void KVNOperation::detachFromQueue(KVNOperationQueueState *queue)
{
    std::lock_guard lock(lock_);
    if (queue_ == queue)
        queue_ = nullptr;
}

void KVNOperation::dependencyFinished()
{
    // The queue is told under the lock: a state that goes away clears queue_
    // under it first, so the pointer cannot dangle here.
    std::lock_guard lock(lock_);
    if (--pendingDependencies_ > 0 || enqueued_ || !queue_)
        return;
    enqueued_ = true;
    queue_->makeReady(shared_from_this());
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
    std::weak_ptr<KVNOperation> first;
    std::unique_ptr<Links> links;
    {
        std::lock_guard lock(lock_);
        executing_.store(false, std::memory_order_release);
        finished_.store(true, std::memory_order_release);
        first.swap(firstDependant_);
        links.swap(links_);
        queue_ = nullptr;
    }
    finished_.notify_all();
    if (auto dependant = first.lock())
        dependant->dependencyFinished();
    if (links)
        for (auto &weak : links->moreDependants)
            if (auto dependant = weak.lock())
                dependant->dependencyFinished();
    // The dependencies go with links: a finished operation pins nothing.
}

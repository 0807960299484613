#include "KVNOperationQueue.h"

#include "KVNMainThread.h"
#include "KVNOperationQueueState.h"

#include <QDebug>

#include <algorithm>
#include <exception>

namespace {
int machineWidth()
{
    const unsigned cores = std::thread::hardware_concurrency();
    return cores ? int(cores) : 2;
}
} // namespace

void KVNOperationQueueState::add(const KVNOperationPtr &operation)
{
    // A finished operation has nothing left to do; counting it would never end a wait.
    if (operation->isFinished())
        return;
    {
        std::lock_guard lock(mutex);
        if (operation->queueSlot_ != 0)
            return;
        all.push_back(operation);
        operation->queueSlot_ = uint32_t(all.size());
        ++liveCount;
        recordCountChange(liveCount, liveCount - 1);
    }
    if (operation->attachToQueue(this))
        makeReady(operation);
}

KVNOperationQueueState::~KVNOperationQueueState()
{
    // Only a queue destroyed from its own worker leaves operations behind:
    // those waiting on work elsewhere must not reach for this state later.
    for (const auto &operation : all)
        if (operation)
            operation->detachFromQueue(this);
}

void KVNOperationQueueState::makeReady(const KVNOperationPtr &operation)
{
    std::lock_guard lock(mutex);
    ready.push_back(operation);
    startWorkerIfNeeded();
    workCv.notify_one();
}

void KVNOperationQueueState::startWorkerIfNeeded()
{
    if (idleThreads > 0 || int(threads.size()) >= width || shutdown)
        return;
    threads.emplace_back([self = shared_from_this()] { self->workerLoop(); });
    threadIds.push_back(threads.back().get_id());
    ++idleThreads; // counts as idle until it takes work
}

bool KVNOperationQueueState::isWorkerThread() const
{
    std::lock_guard lock(mutex);
    return std::find(threadIds.begin(), threadIds.end(), std::this_thread::get_id()) != threadIds.end();
}

void KVNOperationQueueState::removeFinished(KVNOperation *operation)
{
    {
        std::lock_guard lock(mutex);
        if (operation->queueSlot_ != 0) {
            const std::size_t slot = operation->queueSlot_ - 1;
            operation->queueSlot_ = 0;
            all[slot].reset();
            --liveCount;
            recordCountChange(liveCount, liveCount + 1);
            ++finishedTotal;
            // Compact now and then, so that the list stays proportional to what is live.
            if (++removedSinceCompaction > 1024 && removedSinceCompaction > liveCount) {
                std::erase(all, nullptr);
                for (std::size_t i = 0; i < all.size(); ++i)
                    all[i]->queueSlot_ = uint32_t(i + 1);
                removedSinceCompaction = 0;
            }
        }
        if (liveCount == 0) {
            all.clear();
            removedSinceCompaction = 0;
        }
    }
    idleCv.notify_all();
}

void KVNOperationQueueState::recordCountChange(std::size_t newCount, std::size_t oldCount)
{
    if (newCount == 0 || oldCount == 0)
        zeroCrossings.emplace_back(newCount, oldCount);
}

void KVNOperationQueueState::notifyCount()
{
    std::lock_guard notifyLock(notifyMutex);
    for (;;) {
        std::size_t count;
        {
            std::lock_guard lock(mutex);
            if (!zeroCrossings.empty()) {
                count = zeroCrossings.front().first;
                zeroCrossings.pop_front();
            } else {
                count = liveCount;
            }
        }
        if (count == lastNotifiedCount) {
            std::lock_guard lock(mutex);
            if (zeroCrossings.empty())
                return;
            continue;
        }
        const std::size_t old = lastNotifiedCount;
        lastNotifiedCount = count;
        if (countObserver)
            countObserver(count, old);
    }
}

void KVNOperationQueueState::workerLoop()
{
    KVNOperation::markWorkerThread();
    std::unique_lock lock(mutex);
    for (;;) {
        if (ready.empty() && KVNOperation::hasIdleWork()) {
            lock.unlock();
            KVNOperation::runIdleWork();
            lock.lock();
        }
        workCv.wait(lock, [this] { return shutdown || (!ready.empty() && running < width); });
        if (ready.empty() && shutdown)
            return;
        KVNOperationPtr operation = std::move(ready.front());
        ready.pop_front();
        --idleThreads;
        ++running;
        startWorkerIfNeeded();
        lock.unlock();
        if (runObserver)
            runObserver(*operation, true);
        try {
            operation->run();
        } catch (const std::exception &e) {
            qWarning().noquote() << "Uncaught exception in operation:" << e.what();
            operation->finish();
        } catch (...) {
            qWarning().noquote() << "Uncaught exception in operation";
            operation->finish();
        }
        if (runObserver)
            runObserver(*operation, false);
        removeFinished(operation.get());
        operation.reset();
        notifyCount();
        lock.lock();
        ++idleThreads;
        --running;
        workCv.notify_one();
    }
}

KVNOperationQueue::KVNOperationQueue() : state_(std::make_shared<KVNOperationQueueState>())
{
    state_->width = machineWidth();
}

KVNOperationQueue::~KVNOperationQueue()
{
    cancelAllOperations();
    const bool onWorker = state_->isWorkerThread();
    if (!onWorker)
        waitUntilAllOperationsAreFinished();
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(state_->mutex);
        state_->shutdown = true;
        threads.swap(state_->threads);
    }
    state_->workCv.notify_all();
    for (auto &thread : threads) {
        if (thread.get_id() == std::this_thread::get_id() || onWorker)
            thread.detach(); // a worker cannot join itself; the state outlives it
        else
            thread.join();
    }
}

void KVNOperationQueue::setMaxConcurrentOperationCount(int count)
{
    std::lock_guard lock(state_->mutex);
    state_->width = count > 0 ? count : machineWidth();
    if (!state_->ready.empty())
        state_->startWorkerIfNeeded();
    state_->workCv.notify_all();
}

int KVNOperationQueue::maxConcurrentOperationCount() const
{
    std::lock_guard lock(state_->mutex);
    return state_->width;
}

void KVNOperationQueue::addOperation(const KVNOperationPtr &operation)
{
    if (!operation)
        return;
    state_->add(operation);
    state_->notifyCount();
}

void KVNOperationQueue::addOperations(const std::vector<KVNOperationPtr> &operations)
{
    for (const auto &operation : operations)
        if (operation)
            state_->add(operation);
    state_->notifyCount();
}

void KVNOperationQueue::cancelAllOperations()
{
    for (const auto &operation : state_->markAllCancelled())
        operation->cancel();
}

void KVNOperationQueue::waitUntilAllOperationsAreFinished()
{
    std::unique_lock lock(state_->mutex);
    KVNMainThread::waitServingBlockingCalls(lock, state_->idleCv, [this] { return state_->liveCount == 0; });
}

std::vector<KVNOperationPtr> KVNOperationQueue::operations() const
{
    std::lock_guard lock(state_->mutex);
    std::vector<KVNOperationPtr> result;
    result.reserve(state_->liveCount);
    for (const auto &operation : state_->all)
        if (operation)
            result.push_back(operation);
    return result;
}

std::size_t KVNOperationQueue::operationCount() const
{
    std::lock_guard lock(state_->mutex);
    return state_->liveCount;
}

std::size_t KVNOperationQueue::finishedOperationTotal() const
{
    std::lock_guard lock(state_->mutex);
    return state_->finishedTotal;
}

void KVNOperationQueue::setOperationCountObserver(CountObserver observer)
{
    std::lock_guard notifyLock(state_->notifyMutex);
    state_->countObserver = std::move(observer);
}

void KVNOperationQueue::setOperationRunObserver(RunObserver observer)
{
    std::lock_guard lock(state_->mutex);
    state_->runObserver = std::move(observer);
}

std::vector<KVNOperationPtr> KVNOperationQueueState::markAllCancelled()
{
    std::lock_guard lock(mutex);
    std::vector<KVNOperationPtr> result;
    for (const auto &operation : all)
        if (operation) {
            operation->cancelled_.store(true, std::memory_order_release);
            result.push_back(operation);
        }
    return result;
}

#include "KVNNSArrayBatcher.h"

KVNNSArrayBatcher::KVNNSArrayBatcher(std::shared_ptr<KVNArrayController> bufferedArrayController,
                                     double flushPercentage)
    : bufferedArrayController_(std::move(bufferedArrayController)), flushPercentage_(flushPercentage)
{}

void KVNNSArrayBatcher::addObjectToQueue(const KVNDirDiffTableElementPtr &object)
{
    std::vector<KVNDirDiffTableElementPtr> flushed;
    bool didFlush = false;
    {
        std::lock_guard lock(mutex_);
        flushQueue_.push_back(object);
        const std::size_t queued = flushQueue_.size();
        const std::size_t total = bufferedArrayController_ ? bufferedArrayController_->arrangedObjectsCount() : 0;
        if (double(queued) / double(total + 1) >= flushPercentage_ || queued > kFlushCeiling) {
            if (delegate_)
                flushed = flushQueue_;
            flushQueueInternal();
            didFlush = true;
        }
    }
    if (didFlush && delegate_)
        delegate_->arrayBatcher(this, flushed);
}

void KVNNSArrayBatcher::flushQueue()
{
    std::lock_guard lock(mutex_);
    flushQueueInternal();
}

void KVNNSArrayBatcher::flushQueueInternal()
{
    if (bufferedArrayController_ && !flushQueue_.empty())
        bufferedArrayController_->addObjects(flushQueue_);
    flushQueue_.clear();
}

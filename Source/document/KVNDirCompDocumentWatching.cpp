// The watch of both trees: a change on disk brings the table up to date.
#include "KVNDirCompDocument.h"

#include "KVNFileNode.h"
#include "KVNFileSystemWatcher.h"

#include <atomic>

void KVNDirCompDocument::setupFSEventWatchers()
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (fsEventStream_ || !watchesFileSystem_ || closed_)
        return;
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    auto stream = std::make_unique<KVNFileSystemWatcher>();
    KVNFileSystemWatcher *raw = stream.get();
    stream->setLatency(std::chrono::milliseconds(qint64(watchLatency_ * 1000)));
    stream->setCallback([weak, raw](const std::vector<KVNFileSystemWatcher::Event> &events) {
        auto self = weak.lock(); // held for the length of the call
        if (!self)
            return;
        std::vector<WatchEvent> batch;
        batch.reserve(events.size());
        for (const auto &event : events)
            batch.push_back({event.path, event.id});
        self->fsEventCallback(batch, raw->latestEventId());
    });
    fsEventStream_ = std::move(stream);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    fsEventStream_->start({originalURL_, modifiedURL_});
    expectingFinderTouchCount_ = 0;
}

void KVNDirCompDocument::removeFSEventWatchers()
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (!fsEventStream_)
        return;
    fsEventStream_->stop();
    fsEventStream_.reset();
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

bool KVNDirCompDocument::isWatching() const
{
    return fsEventStream_ != nullptr;
}

void KVNDirCompDocument::fsEventCallback(const std::vector<WatchEvent> &events, uint64_t latestEventId)
{
    // Only the newest event of a batch can trigger, and only when its own name
    // is not excluded; earlier events of the batch count for nothing.
    for (const auto &event : events) {
        auto node = KVNFileNode::makeTransient(event.path);
        if (!KVNPredicateEvaluate(exclusionPredicate_, *node) && event.id == latestEventId) {
            lastTriggeringEventPath_ = event.path;
            performTableUpdate();
            break;
        }
    }
}

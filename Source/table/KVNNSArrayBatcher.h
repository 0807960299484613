#pragma once

#include "KVNArrayController.h"

#include <memory>
#include <mutex>
#include <vector>

class KVNNSArrayBatcher;

class KVNNSArrayBatcherDelegate {
public:
    virtual ~KVNNSArrayBatcherDelegate() = default;
    virtual void arrayBatcher(KVNNSArrayBatcher *batcher, const std::vector<KVNDirDiffTableElementPtr> &flushed) = 0;
};

// Hands rows to a controller in batches that grow with the table, so that a
// table growing from nothing is not rearranged for every row.
class KVNNSArrayBatcher {
public:
    static constexpr std::size_t kFlushCeiling = 1000;

    KVNNSArrayBatcher(std::shared_ptr<KVNArrayController> bufferedArrayController, double flushPercentage);

    void setDelegate(KVNNSArrayBatcherDelegate *delegate) { delegate_ = delegate; }
    void addObjectToQueue(const KVNDirDiffTableElementPtr &object);
    // Sends what is queued, whatever the thresholds; the delegate is not told.
    void flushQueue();

private:
    void flushQueueInternal();

    std::shared_ptr<KVNArrayController> bufferedArrayController_;
    std::mutex mutex_;
    std::vector<KVNDirDiffTableElementPtr> flushQueue_;
    double flushPercentage_;
    KVNNSArrayBatcherDelegate *delegate_ = nullptr; // not owned
};

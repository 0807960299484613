#pragma once

#include "KVNBuildTreeFastOperation.h"
#include "KVNFinalOperation.h"
#include "KVNOperation.h"
#include "KVNOperationQueue.h"

#include <memory>

// Pairs the two scanned trees by lower-cased relative path and adds, at run
// time, the second stage of a comparison: one operation per file pair, a
// barrier, one per directory pair, a barrier, the marking of singles, the final report.
//
// The compare operations are not all made at once: feeders walk the left
// table and queue them a window at a time, the next window once the queue
// has taken the last one, so that what a run holds of operations does not
// grow with the trees. Each barrier depends on the feeders of its kind, so it
// cannot pass before the last window has been made and has run. A cancelled
// feeder makes nothing more.
class KVNCompareTreeOperation : public KVNOperation {
public:
    static constexpr std::size_t kDefaultWindow = 2048;

    KVNCompareTreeOperation(KVNBuildTreeFastOperationPtr buildTreeOp1, KVNBuildTreeFastOperationPtr buildTreeOp2,
                            KVNOperationQueue *opQueue, std::shared_ptr<KVNFinalOperationDelegate> finalDelegate);
    ~KVNCompareTreeOperation() override;

    // How many compare operations one feeder makes; set before the operation runs.
    void setWindow(std::size_t window) { window_ = window ? window : 1; }
    std::size_t window() const { return window_; }

    // How many pairs the run has queued so far, for statistics; final once the run has ended.
    std::size_t filePairCount() const { return pairs_->files.load(std::memory_order_relaxed); }
    std::size_t dirPairCount() const { return pairs_->dirs.load(std::memory_order_relaxed); }

    // Shared with the feeders, which may outlive this operation.
    struct PairCounts {
        std::atomic<std::size_t> files{0};
        std::atomic<std::size_t> dirs{0};
    };

protected:
    void main() override;

private:
    KVNBuildTreeFastOperationPtr buildTreeOp1_;
    KVNBuildTreeFastOperationPtr buildTreeOp2_;
    KVNOperationQueue *opQueue_; // not owned: the queue outlives the operations it runs
    // Strong on purpose: keeps the delegate alive until this operation is gone.
    std::shared_ptr<KVNFinalOperationDelegate> finalDelegate_;
    std::shared_ptr<PairCounts> pairs_ = std::make_shared<PairCounts>();
    std::size_t window_ = kDefaultWindow;
};

#pragma once

#include "KVNBuildTreeFastOperation.h"
#include "KVNFinalOperation.h"
#include "KVNOperation.h"
#include "KVNOperationQueue.h"

#include <memory>

// Pairs the two scanned trees by lower-cased relative path and adds, at run
// time, the second stage of a comparison: one operation per file pair, a
// barrier, one per directory pair, a barrier, the marking of singles, the final report.
class KVNCompareTreeOperation : public KVNOperation {
public:
    KVNCompareTreeOperation(KVNBuildTreeFastOperationPtr buildTreeOp1, KVNBuildTreeFastOperationPtr buildTreeOp2,
                            KVNOperationQueue *opQueue, std::shared_ptr<KVNFinalOperationDelegate> finalDelegate);
    ~KVNCompareTreeOperation() override;

    // How many pairs the last run queued, for statistics.
    std::size_t filePairCount() const { return filePairs_; }
    std::size_t dirPairCount() const { return dirPairs_; }

protected:
    void main() override;

private:
    KVNBuildTreeFastOperationPtr buildTreeOp1_;
    KVNBuildTreeFastOperationPtr buildTreeOp2_;
    KVNOperationQueue *opQueue_; // not owned: the queue outlives the operations it runs
    // Strong on purpose: keeps the delegate alive until this operation is gone.
    std::shared_ptr<KVNFinalOperationDelegate> finalDelegate_;
    std::atomic<std::size_t> filePairs_{0};
    std::atomic<std::size_t> dirPairs_{0};
};

#pragma once

#include "KVNArrayController.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNNSArrayBatcher.h"
#include "KVNOperation.h"

#include <memory>

class KVNBuildTableOperation;

class KVNBuildTableOperationDelegate {
public:
    virtual ~KVNBuildTableOperationDelegate() = default;
    // On the operation's thread; null rows mean the whole table.
    virtual void buildTableOperation(KVNBuildTableOperation *operation,
                                     const std::vector<KVNDirDiffTableElementPtr> *tableElements) = 0;
};

// Walks two finished trees in step and makes the rows, in depth-first
// pre-order with siblings sorted by name without regard to case.
class KVNBuildTableOperation : public KVNOperation, private KVNNSArrayBatcherDelegate {
public:
    KVNBuildTableOperation(KVNBuildTreeFastOperationPtr buildTreeOp1, KVNBuildTreeFastOperationPtr buildTreeOp2,
                           std::shared_ptr<KVNArrayController> arrayController);

    // Strong on purpose, may stay null.
    void setDelegate(std::shared_ptr<KVNBuildTableOperationDelegate> delegate) { delegate_ = std::move(delegate); }
    void addChildrenOfLeftNode(const KVNFileNodePtr &leftNode, const KVNFileNodePtr &rightNode, uint32_t depthHint,
                               const KVNDirDiffTableElementPtr &parentTableElement);
    std::size_t rowCount() const { return rowCount_; }

protected:
    void main() override;

private:
    void arrayBatcher(KVNNSArrayBatcher *batcher, const std::vector<KVNDirDiffTableElementPtr> &flushed) override;

    KVNNSArrayBatcher arrayBatcher_;
    KVNBuildTreeFastOperationPtr buildTreeOp1_;
    KVNBuildTreeFastOperationPtr buildTreeOp2_;
    std::shared_ptr<KVNArrayController> arrayController_;
    std::shared_ptr<KVNBuildTableOperationDelegate> delegate_;
    std::size_t rowCount_ = 0;
};

#pragma once

#include "KVNDirDiffTableElement.h"
#include "KVNOperation.h"
#include "KVNPredicate.h"
#include "KVNRowList.h"

#include <memory>
#include <vector>

class KVNRefreshTableOperation;

class KVNRefreshTableOperationDelegate {
public:
    virtual ~KVNRefreshTableOperationDelegate() = default;
    // Both on the operation's thread.
    virtual void incrementalRefreshStep(KVNRefreshTableOperation *, const KVNDirDiffTableElementPtr &) {}
    virtual void refreshComplete(KVNRefreshTableOperation *) {}
};

// Gives directories their final result: walks a snapshot of the table from
// the last row to the first and rolls every directory row up from the
// children that the exclusion lets through.
class KVNRefreshTableOperation : public KVNOperation {
public:
    static constexpr std::size_t kStepInterval = 100;

    KVNRefreshTableOperation(KVNPredicatePtr exclusionPredicate, uint64_t startingElementIndex,
                             KVNRowList arrangedObjects);
    void setDelegate(std::weak_ptr<KVNRefreshTableOperationDelegate> delegate) { delegate_ = std::move(delegate); }
    std::size_t elementCount() const { return arrangedObjects_.size(); }

protected:
    void main() override;

private:
    void rollUp(const KVNDirDiffTableElement &row, const KVNPredicatePtr &inverse);

    KVNPredicatePtr exclusionPredicate_;
    uint64_t startingElementIndex_;
    KVNRowList arrangedObjects_; // shares the table's storage
    std::weak_ptr<KVNRefreshTableOperationDelegate> delegate_;
};

#pragma once

#include "KVNArrayController.h"
#include "KVNFinalOperation.h"
#include "KVNOperation.h"
#include "KVNOperationQueue.h"

#include <memory>
#include <unordered_set>
#include <vector>

using KVNTableElementSet = std::unordered_set<KVNDirDiffTableElementPtr, KVNTableElementHash, KVNTableElementEqual>;

// Merges a rescan's unbound table into the table on show, by relative path:
// rows that went away are removed, new rows inserted at their place, rows whose
// date changed take the new attributes and a reset result; then only those
// rows are compared again.
class KVNDiffSourceArrayControllersOperation : public KVNOperation {
public:
    // On the main thread only: it takes its snapshot of the bound table here.
    KVNDiffSourceArrayControllersOperation(std::shared_ptr<KVNArrayController> boundSourceArrayController,
                                           std::shared_ptr<KVNArrayController> updatedSourceArrayController,
                                           KVNOperationQueue *operationQueue,
                                           std::shared_ptr<KVNFinalOperationDelegate> finalDelegate);
    ~KVNDiffSourceArrayControllersOperation() override;

    void scheduleRowsToRecompare(const KVNTableElementSet &rows);
    // What the last run found, for statistics and tests.
    std::size_t removedRowCount() const { return removed_; }
    std::size_t insertedRowCount() const { return inserted_; }
    std::size_t recomparedFilePairCount() const { return recomparedFiles_; }

protected:
    void main() override;

private:
    std::shared_ptr<KVNArrayController> boundSourceArrayController_;
    std::vector<KVNDirDiffTableElementPtr> boundSourceArrayControllerArrangedObjects_;
    std::shared_ptr<KVNArrayController> updatedSourceArrayController_;
    KVNOperationQueue *opQueue_; // not owned
    std::shared_ptr<KVNFinalOperationDelegate> finalDelegate_;
    std::atomic<std::size_t> removed_{0};
    std::atomic<std::size_t> inserted_{0};
    std::atomic<std::size_t> recomparedFiles_{0};
};

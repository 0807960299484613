#pragma once

#include "KVNArrayController.h"
#include "KVNBuildTableOperation.h"
#include "KVNFinalOperation.h"
#include "KVNInitialOperation.h"
#include "KVNOperationQueue.h"
#include "KVNPredicate.h"
#include "KVNRefreshTableOperation.h"

#include <QByteArray>

#include <functional>
#include <memory>

// Runs comparisons of two directories without a window, through the same
// operation graphs a comparison window uses: a full run, and an update run
// that reconciles a rescan into the rows on show. Lives on the main thread.
class KVNComparisonDriver : public KVNInitialOperationDelegate,
                            public KVNFinalOperationDelegate,
                            public KVNRefreshTableOperationDelegate,
                            public KVNBuildTableOperationDelegate,
                            public std::enable_shared_from_this<KVNComparisonDriver> {
public:
    static std::shared_ptr<KVNComparisonDriver> make(const QByteArray &originalPath, const QByteArray &modifiedPath);
    KVNComparisonDriver(QByteArray originalPath, QByteArray modifiedPath); // use make()
    ~KVNComparisonDriver() override;

    void setExclusionPredicate(const KVNPredicatePtr &predicate) { exclusionPredicate_ = predicate; }
    KVNPredicatePtr exclusionPredicate() const { return exclusionPredicate_; }

    void performInitialTablePopulate();
    void performTableUpdate();
    void scheduleRefreshDiffStatus();
    // Runs the event loop until the run under way has reported, its status
    // refresh has finished and the queue is empty.
    void waitUntilIdle();

    const std::shared_ptr<KVNArrayController> &sourceArrayController() const { return sourceArrayController_; }
    KVNOperationQueue &refreshOperationQueue() { return *queue_; }
    int completedRuns() const { return completedRuns_; }

    void startedInitialOperation(KVNInitialOperation *operation) override;
    void completedFinalOperation(KVNFinalOperation *operation) override;
    void refreshComplete(KVNRefreshTableOperation *operation) override;
    void buildTableOperation(KVNBuildTableOperation *operation,
                             const std::vector<KVNDirDiffTableElementPtr> *tableElements) override;

private:
    QByteArray originalPath_;
    QByteArray modifiedPath_;
    std::unique_ptr<KVNOperationQueue> queue_;
    std::shared_ptr<KVNArrayController> sourceArrayController_;
    KVNPredicatePtr exclusionPredicate_;
    bool runPending_ = false;
    int completedRuns_ = 0;
};

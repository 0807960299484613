#include "KVNComparisonDriver.h"

#include "KVNBuildTreeFastOperation.h"
#include "KVNCompareTreeOperation.h"
#include "KVNDiffSourceArrayControllersOperation.h"
#include "KVNMainThread.h"

#include <QCoreApplication>
#include <QEventLoop>

std::shared_ptr<KVNComparisonDriver> KVNComparisonDriver::make(const QByteArray &originalPath,
                                                               const QByteArray &modifiedPath)
{
    return std::make_shared<KVNComparisonDriver>(originalPath, modifiedPath);
}

KVNComparisonDriver::KVNComparisonDriver(QByteArray originalPath, QByteArray modifiedPath)
    : originalPath_(std::move(originalPath)),
      modifiedPath_(std::move(modifiedPath)),
      queue_(std::make_unique<KVNOperationQueue>()),
      sourceArrayController_(std::make_shared<KVNArrayController>())
{
    // Wakes waitUntilIdle() whenever the count moves.
    queue_->setOperationCountObserver([](std::size_t, std::size_t) { KVNMainThread::post([] {}); });
}

KVNComparisonDriver::~KVNComparisonDriver()
{
    queue_->setOperationCountObserver(nullptr);
    queue_->cancelAllOperations();
    queue_->waitUntilAllOperationsAreFinished();
}

void KVNComparisonDriver::performInitialTablePopulate()
{
    runPending_ = true;
    auto self = shared_from_this();
    auto initial = std::make_shared<KVNInitialOperation>(self);
    auto scanLeft = KVNBuildTreeFastOperation::make(originalPath_);
    auto scanRight = KVNBuildTreeFastOperation::make(modifiedPath_);
    scanLeft->addDependency(initial);
    scanRight->addDependency(initial);
    auto buildTable = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, sourceArrayController_);
    buildTable->setDelegate(self);
    buildTable->addDependency(scanLeft);
    buildTable->addDependency(scanRight);
    auto compareTree = std::make_shared<KVNCompareTreeOperation>(scanLeft, scanRight, queue_.get(), self);
    compareTree->addDependency(buildTable);
    queue_->addOperations({initial, scanLeft, scanRight, buildTable, compareTree});
}

void KVNComparisonDriver::performTableUpdate()
{
    // The new graph must not mix with the old one.
    queue_->cancelAllOperations();
    queue_->waitUntilAllOperationsAreFinished();
    runPending_ = true;
    auto self = shared_from_this();
    auto initial = std::make_shared<KVNInitialOperation>(self);
    auto scanLeft = KVNBuildTreeFastOperation::make(originalPath_);
    auto scanRight = KVNBuildTreeFastOperation::make(modifiedPath_);
    scanLeft->addDependency(initial);
    scanRight->addDependency(initial);
    auto unbound = std::make_shared<KVNArrayController>();
    auto buildTable = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, unbound);
    buildTable->addDependency(scanLeft);
    buildTable->addDependency(scanRight);
    auto reconcile = std::make_shared<KVNDiffSourceArrayControllersOperation>(sourceArrayController_, unbound,
                                                                              queue_.get(), self);
    reconcile->addDependency(buildTable);
    queue_->addOperations({initial, scanLeft, scanRight, buildTable, reconcile});
}

void KVNComparisonDriver::scheduleRefreshDiffStatus()
{
    auto rows = sourceArrayController_->arrangedObjects();
    const uint64_t last = uint64_t(rows.size()) - 1; // wraps on an empty table, as intended
    auto refresh = std::make_shared<KVNRefreshTableOperation>(exclusionPredicate_, last, std::move(rows));
    refresh->setDelegate(weak_from_this());
    queue_->addOperation(refresh);
}

void KVNComparisonDriver::waitUntilIdle()
{
    while (runPending_ || queue_->operationCount() != 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void KVNComparisonDriver::startedInitialOperation(KVNInitialOperation *) {}

void KVNComparisonDriver::completedFinalOperation(KVNFinalOperation *)
{
    scheduleRefreshDiffStatus();
}

void KVNComparisonDriver::refreshComplete(KVNRefreshTableOperation *)
{
    std::weak_ptr<KVNComparisonDriver> weak = weak_from_this();
    KVNMainThread::post([weak] {
        if (auto self = weak.lock()) {
            if (self->runPending_)
                ++self->completedRuns_;
            self->runPending_ = false;
        }
    });
}

void KVNComparisonDriver::buildTableOperation(KVNBuildTableOperation *, const std::vector<KVNDirDiffTableElementPtr> *)
{
}

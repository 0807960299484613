#include "KVNDirCompDocument.h"

#include "KVNBuildTreeFastOperation.h"
#include "KVNCompareTreeOperation.h"
#include "KVNDiffSourceArrayControllersOperation.h"
#include "KVNFileSystemWatcher.h"
#include "KVNMainThread.h"
#include "KVNURLAdditions.h"
#include "KVNUserDefaults.h"

#include <QTimer>

#include <thread>

namespace {

const QChar kEllipsis(0x2026);

} // namespace

std::shared_ptr<KVNDirCompDocument> KVNDirCompDocument::make()
{
    return std::make_shared<KVNDirCompDocument>();
}

KVNDirCompDocument::KVNDirCompDocument()
    : refreshOperationQueue_(std::make_unique<KVNOperationQueue>()),
      sourceArrayController_(std::make_shared<KVNArrayController>()),
      filteredArrayController_(std::make_shared<KVNArrayController>())
{
    refreshOperationQueue_->setMaxConcurrentOperationCount(
        KVNOperationQueue::KVNOperationQueueDefaultMaxConcurrentOperationCount);
    // The count reaches the main thread through the event loop, in order.
    const void *queue = refreshOperationQueue_.get();
    refreshOperationQueue_->setOperationCountObserver([this, queue](std::size_t count, std::size_t old) {
        // Only a start or an end of work means anything here; one main-thread
        // hop per finished operation would cost more than the operations.
        if (count != 0 && old != 0)
            return;
        prepareSafeObserveForKeyPath(
            this, QStringLiteral("operations.@count"), identity(queue),
            {{QStringLiteral("new"), qulonglong(count)}, {QStringLiteral("old"), qulonglong(old)}}, nullptr);
    });
    // A stored default that is not valid predicate text raises here, as it always has.
    const QString text =
        KVNUserDefaults::standardUserDefaults().stringForKey(QStringLiteral("defaultExclusionPredicate"));
    exclusionPredicate_ = text.isEmpty() ? nullptr : KVNPredicate::predicateWithFormat(text);
}

KVNDirCompDocument::~KVNDirCompDocument()
{
    removeFSEventWatchers();
    refreshOperationQueue_->setOperationCountObserver(nullptr);
    // The queue cancels and waits for its work, unless this runs on one of its
    // own workers (an operation held the last reference), where it cannot wait.
    refreshOperationQueue_.reset();
}

void KVNDirCompDocument::setOriginalURL(const QByteArray &original, const QByteArray &modified,
                                        const std::optional<QByteArray> &ancestor)
{
    auto sane = [](const QByteArray &path) {
        QByteArray result = KVNURLAdditions::saneFilePath(path);
        if (result.isEmpty())
            result = path; // a missing root stays as it was named; the scan will say so
        while (result.size() > 1 && result.endsWith('/'))
            result.chop(1);
        return result;
    };
    originalURL_ = sane(original);
    modifiedURL_ = sane(modified);
    ancestorURL_ = ancestor;
}

void KVNDirCompDocument::awakeFromNib()
{
    filterPredicate_ = filterPredicateForAction(KVNFilterAction::ShowDefault);
    updateChangeCountCleared();
    view().stopSpinner();
    view().setSpinnerHidden(true);
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    // The pause lets a window show itself before the work starts; without one
    // there is nothing to wait for.
    QTimer::singleShot(view_ ? 100 : 0, this, [weak] {
        if (auto self = weak.lock())
            self->finishWindowSetup();
    });
}

void KVNDirCompDocument::finishWindowSetup()
{
    if (closed_)
        return;
    selectedFilterAction_ = KVNFilterAction::ShowDefault;
    mergeRefresh();
    setupFSEventWatchers();
}

void KVNDirCompDocument::setStatus(const QString &format)
{
    view().setStatusText(QString(format).replace(QLatin1String("%C"), QString(kEllipsis)));
}

void KVNDirCompDocument::markRunStarted()
{
    runPending_ = true;
    runRefreshed_ = false;
    latestRefresh_ = nullptr;
}

bool KVNDirCompDocument::isBusy() const
{
    return runPending_ || refreshOperationQueue_->operationCount() != 0;
}

void KVNDirCompDocument::mergeRefresh()
{
    if (refreshOperationQueue_->operationCount() == 0) {
        resetSourceArrayController();
        performInitialTablePopulate();
        return;
    }
    mergeCancelWaitThread([](KVNDirCompDocument &self) { self.completeMergeCancelWithRefresh(); });
}

void KVNDirCompDocument::mergeCancelRefresh()
{
    if (refreshOperationQueue_->operationCount() == 0 || busyCancelling_)
        return;
    mergeCancelWaitThread([](KVNDirCompDocument &self) { self.completeMergeCancelWithoutRefresh(); });
}

void KVNDirCompDocument::resetSourceArrayController()
{
    const auto old = sourceArrayController_->arrangedRows();
    std::vector<std::size_t> all(old.size());
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = i;
    sourceArrayController_->removeObjectsAtArrangedObjectIndexes(all);
    {
        std::lock_guard monitor(filteredArrayControllerMonitor_);
        filteredArrayController_->setContent(sourceArrayController_->content());
    }
    filteredChildrenLUT_.clear();
    view().reloadData();
    // The nodes are cut last, once nothing shows the rows any more.
    for (const auto &row : old) {
        row->setLeftNode(nullptr);
        row->setRightNode(nullptr);
    }
}

std::tuple<KVNOperationPtr, KVNBuildTreeFastOperationPtr, KVNBuildTreeFastOperationPtr> KVNDirCompDocument::makeScans()
{
    auto initial = std::make_shared<KVNInitialOperation>(shared_from_this());
    auto scanLeft = KVNBuildTreeFastOperation::make(originalURL_);
    auto scanRight = KVNBuildTreeFastOperation::make(modifiedURL_);
    scanLeft->addDependency(initial);
    scanRight->addDependency(initial);
    return {initial, scanLeft, scanRight};
}

void KVNDirCompDocument::performInitialTablePopulate()
{
    {
        std::lock_guard monitor(filteredArrayControllerMonitor_);
        filteredArrayController_->setFilterPredicate(nullptr);
        filteredArrayController_->setContent(sourceArrayController_->content());
    }
    filteredChildrenLUT_.clear();
    view().reloadData();
    setStatus(QStringLiteral("Comparing Files and Folders%C"));
    markRunStarted();

    auto self = shared_from_this();
    auto [initial, scanLeft, scanRight] = makeScans();
    auto buildTable = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, sourceArrayController_);
    buildTable->setDelegate(self);
    buildTable->addDependency(scanLeft);
    buildTable->addDependency(scanRight);
    auto compareTree =
        std::make_shared<KVNCompareTreeOperation>(scanLeft, scanRight, refreshOperationQueue_.get(), self);
    compareTree->addDependency(buildTable);
    refreshOperationQueue_->addOperations({initial, scanLeft, scanRight, buildTable, compareTree});
}

void KVNDirCompDocument::performTableUpdate()
{
    // The new graph must not mix with the old one. While this waits, the main
    // thread still serves the reconciliation's row removals, so it cannot deadlock.
    refreshOperationQueue_->cancelAllOperations();
    refreshOperationQueue_->waitUntilAllOperationsAreFinished();
    setStatus(QStringLiteral("Comparing Files and Folders%C"));
    markRunStarted();

    auto self = shared_from_this();
    auto [initial, scanLeft, scanRight] = makeScans();
    auto unbound = std::make_shared<KVNArrayController>();
    // No delegate: an update does not make the rows on show flicker.
    auto buildTable = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, unbound);
    buildTable->addDependency(scanLeft);
    buildTable->addDependency(scanRight);
    auto reconcile = std::make_shared<KVNDiffSourceArrayControllersOperation>(sourceArrayController_, unbound,
                                                                              refreshOperationQueue_.get(), self);
    reconcile->addDependency(buildTable);
    refreshOperationQueue_->addOperations({initial, scanLeft, scanRight, buildTable, reconcile});
}

void KVNDirCompDocument::scheduleRefreshDiffStatus()
{
    setStatus(QStringLiteral("Refreshing Diff Status%C"));
    auto rows = sourceArrayController_->arrangedRows();
    const uint64_t last = uint64_t(rows.size()) - 1; // wraps on an empty table, as intended
    auto refresh = std::make_shared<KVNRefreshTableOperation>(exclusionPredicate_, last, std::move(rows));
    refresh->setDelegate(weak_from_this());
    latestRefresh_ = refresh.get();
    refreshOperationQueue_->addOperation(refresh);
}

void KVNDirCompDocument::startedInitialOperation(KVNInitialOperation *)
{
    // Nothing is watched while a scan runs, so our own work cannot feed back.
    disableFSWatchers();
}

void KVNDirCompDocument::completedFinalOperation(KVNFinalOperation *)
{
    postSelectedFilterAction();
    view().validateVisibleItems();
    scheduleRefreshDiffStatus();
    enableFSWatchers();
}

void KVNDirCompDocument::postSelectedFilterAction()
{
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    const KVNFilterAction action = selectedFilterAction_;
    KVNMainThread::post(this, [weak, action] {
        if (auto self = weak.lock())
            self->performFilterAction(action);
    });
}

void KVNDirCompDocument::incrementalRefreshStep(KVNRefreshTableOperation *, const KVNDirDiffTableElementPtr &element)
{
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    KVNMainThread::post(this, [weak, element] {
        if (auto self = weak.lock()) {
            const std::vector<KVNDirDiffTableElementPtr> one{element};
            self->doRefreshElements(&one);
        }
    });
}

void KVNDirCompDocument::refreshComplete(KVNRefreshTableOperation *operation)
{
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    const void *finished = operation;
    KVNMainThread::post(this, [weak, finished] {
        auto self = weak.lock();
        if (!self)
            return;
        self->view().reloadData();
        if (self->runPending_ && finished == self->latestRefresh_) {
            self->runRefreshed_ = true;
            self->finishRunIfSettled();
        }
    });
}

void KVNDirCompDocument::finishRunIfSettled()
{
    // A run ends with the refresh it scheduled, and once the queue is empty: an
    // update may report before its last file compares are in.
    if (!runPending_ || !runRefreshed_ || refreshOperationQueue_->operationCount() != 0)
        return;
    runPending_ = false;
    ++completedRuns_;
    if (runCompletedHandler_)
        runCompletedHandler_();
}

void KVNDirCompDocument::buildTableOperation(KVNBuildTableOperation *, const std::vector<KVNDirDiffTableElementPtr> *)
{
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    KVNMainThread::post(this, [weak] {
        if (auto self = weak.lock())
            self->doRefreshElements(nullptr);
    });
}

void KVNDirCompDocument::doRefreshElements(const std::vector<KVNDirDiffTableElementPtr> *elements)
{
    if (!elements) {
        view().reloadItem(nullptr, true);
        return;
    }
    for (const auto &element : *elements)
        view().reloadItem(element ? element->parentElement() : nullptr, true);
}

void KVNDirCompDocument::saferObserveValueForKeyPath(const QString &keyPath, const void *object,
                                                     const QVariantMap &change, void *)
{
    if (keyPath == QLatin1String("operations.@count")) {
        if (object != refreshOperationQueue_.get())
            return;
        const qulonglong count = change.value(QStringLiteral("new")).toULongLong();
        if (count == 0)
            finishRunIfSettled();
        KVNDirCompDocumentView &shown = view();
        if (count != 0 && shown.isSpinnerHidden()) {
            shown.startSpinner();
            shown.setSpinnerHidden(false);
        } else if (count == 0 && !shown.isSpinnerHidden() && shown.isWindowLoadedAndVisible()) {
            shown.stopSpinner();
            shown.setSpinnerHidden(true);
            {
                std::lock_guard monitor(filteredArrayControllerMonitor_);
                filteredArrayController_->setContent(sourceArrayController_->content());
            }
            shown.reloadData();
        }
        return;
    }
    if (keyPath == QLatin1String("exclusionPredicate"))
        observeExclusionPredicateChange();
    // "filterPredicate" is observed and ignored: the filter actions apply themselves.
}

void KVNDirCompDocument::observeExclusionPredicateChange()
{
    updateFilterPredicates();
    updateChangeCountDone();
    const auto operations = refreshOperationQueue_->operations();
    if (operations.empty()) {
        scheduleRefreshDiffStatus();
    } else if (operations.size() == 1 && dynamic_cast<KVNRefreshTableOperation *>(operations.front().get())) {
        // Only a refresh runs: restart it under the new predicate.
        refreshOperationQueue_->cancelAllOperations();
        refreshOperationQueue_->waitUntilAllOperationsAreFinished();
        scheduleRefreshDiffStatus();
    }
    // Otherwise a run is under way, and its end refreshes with the predicate then current.
}

void KVNDirCompDocument::mergeCancelWaitThread(std::function<void(KVNDirCompDocument &)> completion)
{
    auto self = shared_from_this();
    std::thread([self, completion = std::move(completion)]() mutable {
        {
            std::lock_guard wait(self->cancelWaitLock_);
            self->busyCancelling_ = true;
            std::weak_ptr<KVNDirCompDocument> weakSelf = self;
            KVNMainThread::post(self.get(), [weakSelf] {
                if (auto doc = weakSelf.lock())
                    doc->setStatus(QStringLiteral("Cancelling operations%C"));
            });
            self->refreshOperationQueue_->cancelAllOperations();
            self->refreshOperationQueue_->waitUntilAllOperationsAreFinished();
            if (completion)
                KVNMainThread::invokeAndWait([&] { completion(*self); });
            self->busyCancelling_ = false;
        }
        // The last reference may go here, so the lock above is let go first; the
        // document's teardown then waits on an empty queue, which is immediate.
        KVNMainThread::post([keep = std::move(self)] {});
    }).detach();
}

void KVNDirCompDocument::completeMergeCancelWithRefresh()
{
    std::weak_ptr<KVNDirCompDocument> weak = weak_from_this();
    KVNMainThread::post(this, [weak] {
        if (auto self = weak.lock())
            self->mergeRefresh();
    });
}

void KVNDirCompDocument::completeMergeCancelWithoutRefresh()
{
    runPending_ = false;
    postSelectedFilterAction();
    view().validateVisibleItems();
}

void KVNDirCompDocument::completeDelayedWindowClose()
{
    view().closeWindow();
}

void KVNDirCompDocument::completeDelayedDocumentClose()
{
    closed_ = true;
    runPending_ = false;
}

bool KVNDirCompDocument::windowShouldClose()
{
    if (refreshOperationQueue_->operationCount() == 0)
        return true;
    mergeCancelWaitThread([](KVNDirCompDocument &self) { self.completeDelayedWindowClose(); });
    return false;
}

void KVNDirCompDocument::close()
{
    if (refreshOperationQueue_->operationCount() == 0) {
        completeDelayedDocumentClose();
        return;
    }
    mergeCancelWaitThread([](KVNDirCompDocument &self) { self.completeDelayedDocumentClose(); });
}

void KVNDirCompDocument::goodByeKiss()
{
    removeFSEventWatchers();
    view().stopSpinner();
    refreshOperationQueue_->setOperationCountObserver(nullptr);
}

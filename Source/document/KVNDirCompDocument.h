#pragma once

#include "KVNArrayController.h"
#include "KVNBuildTableOperation.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNDirCompDocumentView.h"
#include "KVNFinalOperation.h"
#include "KVNInitialOperation.h"
#include "KVNKVOAdditions.h"
#include "KVNOperationQueue.h"
#include "KVNPredicate.h"
#include "KVNRefreshTableOperation.h"

#include <QByteArray>
#include <QHash>
#include <QObject>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>

class KVNFileSystemWatcher;

// The filter actions of the toolbar's radio group.
enum class KVNFilterAction { None, ShowAll, ShowDifferent, ShowSingle, ShowSame, ShowDefault };

// An error for the user: a domain, a code and the text to show.
struct KVNDocumentError {
    QString domain;
    int code = 0;
    QString recoverySuggestion;
};

// One comparison of two directories: it owns the queue on which all its
// background work runs, the table, the exclusion and filter predicates and the
// watch of both trees. Its logic runs without a window; a view shows it.
// Lives on the main thread.
class KVNDirCompDocument : public QObject,
                           public KVNSafeObserver,
                           public KVNInitialOperationDelegate,
                           public KVNFinalOperationDelegate,
                           public KVNRefreshTableOperationDelegate,
                           public KVNBuildTableOperationDelegate,
                           public std::enable_shared_from_this<KVNDirCompDocument> {
    Q_OBJECT

public:
    static std::shared_ptr<KVNDirCompDocument> make();
    KVNDirCompDocument(); // use make(): delegates are held weakly
    ~KVNDirCompDocument() override;

    static float documentVersion() { return 0.1f; }
    static QString documentClassName() { return QStringLiteral("KVNDirCompDocument"); }

    // setOriginalURL:modifiedURL:ancestorURL:. The first two are normalised;
    // the third is carried as it is. Roots are paths, kept as bytes.
    void setOriginalURL(const QByteArray &original, const QByteArray &modified,
                        const std::optional<QByteArray> &ancestor = std::nullopt);
    QByteArray originalURL() const { return originalURL_; }
    QByteArray modifiedURL() const { return modifiedURL_; }
    std::optional<QByteArray> ancestorURL() const { return ancestorURL_; }

    // The window's part: attach a view, then set up; a headless runner calls both.
    void setView(KVNDirCompDocumentView *view) { view_ = view; }
    void awakeFromNib();
    void finishWindowSetup();

    // Runs.
    void mergeRefresh();
    void mergeCancelRefresh();
    void resetSourceArrayController();
    void performInitialTablePopulate();
    void performTableUpdate();
    void scheduleRefreshDiffStatus();
    void doRefreshElements(const std::vector<KVNDirDiffTableElementPtr> *elements);
    bool windowShouldClose();
    void close();
    void goodByeKiss();
    bool isClosed() const { return closed_; }
    bool busyCancelling() const { return busyCancelling_.load(); }
    // A run was started and has not yet finished its status refresh and
    // re-applied its filter, or the queue still holds work.
    bool isBusy() const;
    int completedRuns() const { return completedRuns_; }
    // Told on the main thread after every completed run and its refresh.
    void setRunCompletedHandler(std::function<void()> handler) { runCompletedHandler_ = std::move(handler); }

    // Predicates and filters.
    KVNPredicatePtr exclusionPredicate() const { return exclusionPredicate_; }
    void setExclusionPredicate(const KVNPredicatePtr &predicate);
    KVNPredicatePtr filterPredicate() const { return filterPredicate_; }
    void setFilterPredicate(const KVNPredicatePtr &predicate);
    KVNFilterAction selectedFilterAction() const { return selectedFilterAction_; }
    void filterShowAll();
    void filterShowDifferent();
    void filterShowSingle();
    void filterShowSame();
    void filterShowDefault();
    void performFilterAction(KVNFilterAction action);
    static KVNPredicatePtr filterPredicateForAction(KVNFilterAction action);
    void updateFilterPredicates();
    // The filtered children of a row; null when it has none to expand.
    std::optional<std::vector<KVNDirDiffTableElementPtr>>
    cachedFilteredChildrenForElement(const KVNDirDiffTableElementPtr &element);
    void excludeByFilename(const KVNDirDiffTableElementPtr &element);
    void excludeAllByExtension(const KVNDirDiffTableElementPtr &element);

    const std::shared_ptr<KVNArrayController> &sourceArrayController() const { return sourceArrayController_; }
    // The top-level rows as shown, under the combined predicate.
    std::vector<KVNDirDiffTableElementPtr> filteredTopLevelRows() const;
    KVNOperationQueue &refreshOperationQueue() { return *refreshOperationQueue_; }

    // The change count: only the exclusion makes a document edited.
    bool isDocumentEdited() const { return changeCount_ > 0; }
    void updateChangeCountDone() { ++changeCount_; }
    void updateChangeCountCleared() { changeCount_ = 0; }

    // Session file.
    QByteArray dataOfType(const QString &typeName = QString()) const;
    bool readFromData(const QByteArray &data, KVNDocumentError *error);

    // Watching.
    void setupFSEventWatchers();
    void removeFSEventWatchers();
    void enableFSWatchers() { setupFSEventWatchers(); }
    void disableFSWatchers() { removeFSEventWatchers(); }
    bool isWatching() const;
    uint64_t expectingFinderTouchCount() const { return expectingFinderTouchCount_; }
    void setExpectingFinderTouchCount(uint64_t count) { expectingFinderTouchCount_ = count; }
    // For tests and headless runs: the watcher's latency (4.0 seconds by default).
    void setWatchLatency(double seconds) { watchLatency_ = seconds; }
    // A one-shot report has nothing to watch for; a window or a live view has.
    void setWatchesFileSystem(bool watches) { watchesFileSystem_ = watches; }
    // The path of the event that triggered the last update run, if any.
    QByteArray lastTriggeringEventPath() const { return lastTriggeringEventPath_; }

    // Delegates.
    void startedInitialOperation(KVNInitialOperation *operation) override;
    void completedFinalOperation(KVNFinalOperation *operation) override;
    void incrementalRefreshStep(KVNRefreshTableOperation *operation, const KVNDirDiffTableElementPtr &element) override;
    void refreshComplete(KVNRefreshTableOperation *operation) override;
    void buildTableOperation(KVNBuildTableOperation *operation,
                             const std::vector<KVNDirDiffTableElementPtr> *tableElements) override;
    void saferObserveValueForKeyPath(const QString &keyPath, const void *object, const QVariantMap &change,
                                     void *context) override;

private:
    struct WatchEvent {
        QByteArray path;
        uint64_t id;
    };
    void mergeCancelWaitThread(std::function<void(KVNDirCompDocument &)> completion);
    void completeMergeCancelWithRefresh();
    void completeMergeCancelWithoutRefresh();
    void completeDelayedWindowClose();
    void completeDelayedDocumentClose();
    void postSelectedFilterAction();
    void observeExclusionPredicateChange();
    void fsEventCallback(const std::vector<WatchEvent> &events, uint64_t latestEventId);
    void setStatus(const QString &format);
    // The first stage of every run: the initial operation and the two scans after it.
    std::tuple<KVNOperationPtr, KVNBuildTreeFastOperationPtr, KVNBuildTreeFastOperationPtr> makeScans();
    void markRunStarted();
    void finishRunIfSettled();

    KVNDirCompDocumentView *view_ = nullptr; // not owned
    KVNDirCompDocumentView headlessView_;
    QByteArray originalURL_;
    QByteArray modifiedURL_;
    std::optional<QByteArray> ancestorURL_;
    std::unique_ptr<KVNOperationQueue> refreshOperationQueue_;
    std::shared_ptr<KVNArrayController> sourceArrayController_;
    std::shared_ptr<KVNArrayController> filteredArrayController_;
    std::mutex filteredArrayControllerMonitor_;
    KVNPredicatePtr exclusionPredicate_;
    KVNPredicatePtr filterPredicate_;
    KVNFilterAction selectedFilterAction_ = KVNFilterAction::None;
    QHash<QByteArray, std::vector<KVNDirDiffTableElementPtr>> filteredChildrenLUT_;
    std::atomic<bool> busyCancelling_{false};
    std::mutex cancelWaitLock_;
    std::unique_ptr<KVNFileSystemWatcher> fsEventStream_;
    uint64_t expectingFinderTouchCount_ = 0;
    double watchLatency_ = 4.0;
    bool watchesFileSystem_ = true;
    QByteArray lastTriggeringEventPath_;
    int changeCount_ = 0;
    bool closed_ = false;
    bool runPending_ = false;
    bool runRefreshed_ = false;
    const void *latestRefresh_ = nullptr; // identity only, never dereferenced
    int completedRuns_ = 0;
    std::function<void()> runCompletedHandler_;

    KVNDirCompDocumentView &view() { return view_ ? *view_ : headlessView_; }
    // A non-owning handle, so that an observation can name an object without keeping it.
    static std::shared_ptr<const void> identity(const void *object)
    {
        return std::shared_ptr<const void>(std::shared_ptr<const void>(), object);
    }
};

#include "KVNRunStatistics.h"

#include "KVNBuildTableOperation.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNDiffSourceArrayControllersOperation.h"
#include "KVNDirCompDocument.h"
#include "KVNMarkSingleOperation.h"
#include "KVNRefreshTableOperation.h"

#include <cstdio>

namespace {
const char *const kStageNames[] = {"scan-left",     "scan-right",   "table",        "reconcile",
                                   "compare-files", "compare-dirs", "mark-singles", "refresh"};
const char *const kStageUnits[] = {"items", "items", "rows", "runs", "pairs", "pairs", "runs", "rows"};
static_assert(std::size(kStageNames) == KVNRunStatistics::StageCount);
static_assert(std::size(kStageUnits) == KVNRunStatistics::StageCount);
} // namespace

KVNRunStatistics::KVNRunStatistics(KVNDirCompDocument &document)
    : document_(document), originalPath_(document.originalURL()), start_(Clock::now()),
      bytesReadAtStart_(KVNCompareFileOperation::totalBytesRead()),
      operationsAtStart_(document.refreshOperationQueue().finishedOperationTotal())
{
    document_.refreshOperationQueue().setOperationRunObserver(
        [this](const KVNOperation &operation, bool started) { operationRan(operation, started); });
}

KVNRunStatistics::~KVNRunStatistics()
{
    document_.refreshOperationQueue().setOperationRunObserver(nullptr);
}

void KVNRunStatistics::operationRan(const KVNOperation &operation, bool started)
{
    Stage stage;
    uint64_t count = 1;
    if (auto scan = dynamic_cast<const KVNBuildTreeFastOperation *>(&operation)) {
        stage = scan->baseURL() == originalPath_ ? ScanLeft : ScanRight;
        count = scan->itemCount();
    } else if (auto table = dynamic_cast<const KVNBuildTableOperation *>(&operation)) {
        stage = Table;
        count = table->rowCount();
    } else if (dynamic_cast<const KVNDiffSourceArrayControllersOperation *>(&operation)) {
        stage = Reconcile;
    } else if (dynamic_cast<const KVNCompareFileOperation *>(&operation)) {
        stage = CompareFiles;
    } else if (dynamic_cast<const KVNCompareDirOperation *>(&operation)) {
        stage = CompareDirs;
    } else if (dynamic_cast<const KVNMarkSingleOperation *>(&operation)) {
        stage = MarkSingles;
    } else if (auto refresh = dynamic_cast<const KVNRefreshTableOperation *>(&operation)) {
        stage = Refresh;
        count = refresh->elementCount();
    } else {
        return;
    }
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    Span &span = spans_[stage];
    if (started) {
        if (span.first == Clock::time_point{})
            span.first = now;
        return;
    }
    span.last = now;
    span.count += count;
}

std::array<KVNRunStatistics::Figure, KVNRunStatistics::StageCount> KVNRunStatistics::figures() const
{
    const auto seconds = [this](Clock::time_point t) { return std::chrono::duration<double>(t - start_).count(); };
    std::array<Figure, StageCount> figures;
    std::lock_guard lock(mutex_);
    for (int stage = 0; stage < StageCount; ++stage) {
        const Span &span = spans_[stage];
        if (span.first != Clock::time_point{})
            figures[stage] = {seconds(span.first), std::max(seconds(span.last), seconds(span.first)), span.count};
    }
    return figures;
}

const char *KVNRunStatistics::stageName(Stage stage)
{
    return kStageNames[stage];
}

void KVNRunStatistics::print() const
{
    const auto all = figures();
    for (int stage = 0; stage < StageCount; ++stage) {
        const Figure &figure = all[stage];
        if (figure.first < 0)
            continue;
        std::fprintf(stderr, "stats: %s %.3f %llu %s\n", kStageNames[stage], figure.last - figure.first,
                     static_cast<unsigned long long>(figure.count), kStageUnits[stage]);
    }
    const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    std::fprintf(stderr, "stats: total %.3f\n", seconds(Clock::now() - start_));
    std::fprintf(stderr, "stats: bytes-read %llu\n",
                 static_cast<unsigned long long>(KVNCompareFileOperation::totalBytesRead() - bytesReadAtStart_));
    std::fprintf(stderr, "stats: operations-run %zu\n",
                 document_.refreshOperationQueue().finishedOperationTotal() - operationsAtStart_);
}

#pragma once

#include "KVNArrayController.h"
#include "KVNBuildTableOperation.h"
#include "KVNBuildTreeFastOperation.h"
#include "KVNDiffSourceArrayControllersOperation.h"
#include "KVNRefreshProbe.h"
#include "KVNTestTree.h"

#include <QtTest>

using KVNReconcilePtr = std::shared_ptr<KVNDiffSourceArrayControllersOperation>;

// The graph of a rescan as the document builds it, but reporting to a probe
// instead of the document, so that a test can read the rows after the
// recompare and before a status refresh has been over them. Returns with the
// queue empty; reconcile is the operation that merged the tables.
inline void KVNRescanUntilFinalReport(KVNTestComparison &comparison, const KVNTestTree &left, const KVNTestTree &right,
                                      KVNReconcilePtr &reconcile)
{
    auto probe = std::make_shared<KVNFinalProbe>();
    auto &queue = comparison.document->refreshOperationQueue();
    auto scanLeft = KVNBuildTreeFastOperation::make(left.root());
    auto scanRight = KVNBuildTreeFastOperation::make(right.root());
    auto unbound = std::make_shared<KVNArrayController>();
    auto buildTable = std::make_shared<KVNBuildTableOperation>(scanLeft, scanRight, unbound);
    buildTable->addDependency(scanLeft);
    buildTable->addDependency(scanRight);
    reconcile = std::make_shared<KVNDiffSourceArrayControllersOperation>(comparison.document->sourceArrayController(),
                                                                         unbound, &queue, probe);
    reconcile->addDependency(buildTable);
    queue.addOperations({scanLeft, scanRight, buildTable, reconcile});
    // Without folder rows to compare, the report may come before the files are done.
    QTRY_COMPARE_WITH_TIMEOUT(probe->completed(), 1, 30000);
    QTRY_COMPARE_WITH_TIMEOUT(queue.operationCount(), std::size_t(0), 30000);
    QVERIFY(probe->calledOnMainThread());
}

// What the document does on a final report: bring the folders up to date.
inline void KVNRefreshAndReread(KVNTestComparison &comparison)
{
    comparison.document->scheduleRefreshDiffStatus();
    KVNWaitUntilIdle(*comparison.document);
    comparison.reread();
}

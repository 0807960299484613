#include "KVNDiffSourceArrayControllersOperation.h"

#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNMainThread.h"

#include <QHash>

#include <cstdlib>

namespace {

[[noreturn]] void assertionFailure(const char *text)
{
    qFatal("%s", text);
    std::abort();
}

enum class Side { Left, Right };

KVNFileNodePtr nodeOn(const KVNDirDiffTableElement &row, Side side)
{
    return side == Side::Left ? row.leftNode() : row.rightNode();
}

void setNodeOn(KVNDirDiffTableElement &row, Side side, const KVNFileNodePtr &node)
{
    if (side == Side::Left)
        row.setLeftNode(node);
    else
        row.setRightNode(node);
}

void resetBothNodes(const KVNDirDiffTableElement &row)
{
    if (auto left = row.leftNode())
        left->setDiffResult(KVNDiffResultUnknown);
    if (auto right = row.rightNode())
        right->setDiffResult(KVNDiffResultUnknown);
}

// One side of an existing row E against its rescanned twin R. Change is
// detected by date alone: a size change under the same date goes unnoticed.
void sideTest(const KVNDirDiffTableElementPtr &updated, const KVNDirDiffTableElementPtr &existing, Side side,
              KVNTableElementSet &recompare)
{
    const KVNFileNodePtr fresh = nodeOn(*updated, side);
    const KVNFileNodePtr old = nodeOn(*existing, side);
    if (!fresh) {
        setNodeOn(*existing, side, nullptr);
        recompare.insert(existing);
        return;
    }
    if (!old) {
        setNodeOn(*existing, side, fresh);
        resetBothNodes(*existing);
        recompare.insert(existing);
        return;
    }
    if (old->modifiedDate() == fresh->modifiedDate())
        return;
    // The old node stays, with its observers; only its attributes move over.
    old->setFileAttrs(fresh->fileAttrs());
    old->setCrc32(fresh->crc32());
    resetBothNodes(*existing);
    recompare.insert(existing);
}

} // namespace

KVNDiffSourceArrayControllersOperation::KVNDiffSourceArrayControllersOperation(
    std::shared_ptr<KVNArrayController> boundSourceArrayController,
    std::shared_ptr<KVNArrayController> updatedSourceArrayController, KVNOperationQueue *operationQueue,
    std::shared_ptr<KVNFinalOperationDelegate> finalDelegate)
    : boundSourceArrayController_(std::move(boundSourceArrayController)),
      updatedSourceArrayController_(std::move(updatedSourceArrayController)), opQueue_(operationQueue),
      finalDelegate_(std::move(finalDelegate))
{
    if (!KVNMainThread::isMainThread())
        assertionFailure("attempting to initialize on non-main thread!");
    if (boundSourceArrayController_)
        boundSourceArrayControllerArrangedObjects_ = boundSourceArrayController_->arrangedObjects();
}

KVNDiffSourceArrayControllersOperation::~KVNDiffSourceArrayControllersOperation()
{
    finalDelegate_.reset();
}

void KVNDiffSourceArrayControllersOperation::main()
{
    // No test for a cancel: once started it runs through and queues its graph.
    const auto updated = updatedSourceArrayController_ ? updatedSourceArrayController_->arrangedObjects()
                                                       : std::vector<KVNDirDiffTableElementPtr>();
    const auto &bound = boundSourceArrayControllerArrangedObjects_;
    KVNTableElementSet recompare;

    // Keyed by the exact-case path, unlike the pairing.
    QHash<QByteArray, KVNDirDiffTableElementPtr> boundTable;
    QHash<QByteArray, KVNDirDiffTableElementPtr> updatedTable;
    boundTable.reserve(qsizetype(bound.size()));
    updatedTable.reserve(qsizetype(updated.size()));
    for (const auto &row : bound)
        boundTable.insert(row->relativePath(), row);
    for (const auto &row : updated)
        updatedTable.insert(row->relativePath(), row);

    std::vector<KVNDirDiffTableElementPtr> gone;
    for (const auto &row : bound)
        if (!updatedTable.contains(row->relativePath()))
            gone.push_back(row);
    for (const auto &row : gone) {
        if (auto parent = row->parentElement()) {
            recompare.insert(parent);
            parent->removeChildElement(row.get());
        }
        auto controller = boundSourceArrayController_;
        KVNMainThread::invokeAndWait([controller, row] {
            if (controller)
                controller->removeObject(row);
        });
    }
    removed_ = gone.size();

    std::size_t inserted = 0;
    for (std::size_t index = 0; index < updated.size(); ++index) {
        const auto &fresh = updated[index];
        const QByteArray path = fresh->relativePath();
        auto existing = boundTable.value(path);
        if (!existing) {
            if (auto parent = fresh->parentElement()) {
                // A parent that is new itself is not in the bound table: the row then
                // keeps its place in that parent's list but loses its parent reference.
                auto boundParent = boundTable.value(parent->relativePath());
                if (boundParent)
                    boundParent->addChildElement(fresh);
                fresh->setParentElement(boundParent);
            }
            if (boundSourceArrayController_)
                boundSourceArrayController_->insertObject(fresh, index);
            recompare.insert(fresh);
            ++inserted;
            continue;
        }
        sideTest(fresh, existing, Side::Left, recompare);
        sideTest(fresh, existing, Side::Right, recompare);
        if (!existing->leftNode() && !existing->rightNode())
            assertionFailure("both nodes cannot be nil!");
    }
    inserted_ = inserted;
    scheduleRowsToRecompare(recompare);
}

void KVNDiffSourceArrayControllersOperation::scheduleRowsToRecompare(const KVNTableElementSet &rows)
{
    std::vector<KVNCompareFileWorkItem> fileItems;
    std::vector<KVNCompareDirWorkItem> dirItems;
    const KVNPredicatePtr singles =
        KVNPredicate::predicateWithFormat(QStringLiteral("(rightNode == nil) || (leftNode == nil)"));
    const KVNPredicatePtr directories = KVNPredicate::predicateWithFormat(QStringLiteral("isDirectory == YES"));
    for (const auto &row : rows) {
        auto left = row->leftNode();
        auto right = row->rightNode();
        if (KVNPredicateEvaluate(singles, *row)) {
            // A directory on one side counts too, unlike in the marking of singles.
            if (left)
                left->setDiffResult(KVNDiffResultSingle);
            if (right)
                right->setDiffResult(KVNDiffResultSingle);
        } else if (KVNPredicateEvaluate(directories, *row)) {
            dirItems.push_back({left, right, nullptr});
        } else {
            // Contents for every file row, links included.
            fileItems.push_back({KVNCompareMethodContents, left, right, nullptr});
        }
    }
    recomparedFiles_ = fileItems.size();
    auto fileOperations = KVNCompareFileOperation::createFileCompareOps(fileItems);
    auto dirOperations = KVNCompareDirOperation::createDirCompareOps(dirItems);
    auto fileBarrier = std::make_shared<KVNOperation>();
    for (const auto &operation : fileOperations)
        fileBarrier->addDependency(operation);
    auto dirBarrier = std::make_shared<KVNOperation>();
    for (const auto &operation : dirOperations)
        dirBarrier->addDependency(operation);
    // The final report waits for the directories only, as it always has: with
    // no directory rows it may come while files are still being read.
    auto finalOperation = std::make_shared<KVNFinalOperation>(finalDelegate_);
    finalOperation->addDependency(dirBarrier);

    if (!opQueue_)
        return;
    opQueue_->addOperations(fileOperations);
    opQueue_->addOperation(fileBarrier);
    for (const auto &operation : dirOperations) {
        operation->addDependency(fileBarrier);
        opQueue_->addOperation(operation);
    }
    opQueue_->addOperations({dirBarrier, finalOperation});
}

#include "KVNRefreshTableOperation.h"

KVNRefreshTableOperation::KVNRefreshTableOperation(KVNPredicatePtr exclusionPredicate, uint64_t startingElementIndex,
                                                   KVNRowList arrangedObjects)
    : exclusionPredicate_(std::move(exclusionPredicate)), startingElementIndex_(startingElementIndex),
      arrangedObjects_(std::move(arrangedObjects))
{}

void KVNRefreshTableOperation::main()
{
    const KVNPredicatePtr inverse = exclusionPredicate_
                                        ? KVNPredicate::notPredicateWithSubpredicate(exclusionPredicate_)
                                        : KVNPredicate::truePredicate();
    auto delegate = delegate_.lock();
    // An empty table passes the all-ones index, and one more is an empty range.
    const uint64_t count = std::min<uint64_t>(startingElementIndex_ + 1, arrangedObjects_.size());
    uint64_t step = 0;
    // Backwards over pre-order: every row below a directory is final before it.
    for (uint64_t i = count; i-- > 0;) {
        if (isCancelled())
            break;
        const auto &row = arrangedObjects_[i];
        if (row->isDirectory() && !row->isApplication() && !KVNPredicateEvaluate(exclusionPredicate_, *row))
            rollUp(*row, inverse);
        if (delegate && step++ % kStepInterval == 0)
            delegate->incrementalRefreshStep(this, row);
    }
    if (delegate)
        delegate->refreshComplete(this);
}

void KVNRefreshTableOperation::rollUp(const KVNDirDiffTableElement &row, const KVNPredicatePtr &inverse)
{
    bool differ = false;
    bool single = false;
    for (const auto &child : row.filteredChildren(inverse)) {
        switch (child->diffResult()) {
        case KVNDiffResultDiffer:
            differ = true;
            break;
        case KVNDiffResultSingle:
            single = true;
            break;
        case KVNDiffResultDifferSingle:
            differ = single = true;
            break;
        default:
            break; // 0, 1 and 4 have nothing to report
        }
    }
    const int32_t result = differ && single ? KVNDiffResultDifferSingle
                           : single         ? KVNDiffResultSingle
                           : differ         ? KVNDiffResultDiffer
                                            : KVNDiffResultSame;
    if (auto left = row.leftNode())
        left->setDiffResult(result);
    if (auto right = row.rightNode())
        right->setDiffResult(result);
}

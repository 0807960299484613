#include "KVNMarkSingleOperation.h"

bool KVNMarkSingleOperation::markTree(const KVNBuildTreeFastOperationPtr &scan)
{
    auto tree = scan ? scan->fileTree() : nullptr;
    if (!tree)
        return true;
    // No view of the other side: a non-directory still at 0 is single, also a
    // pair whose compare failed, so that a pair that could not be read never looks the same.
    for (const auto &node : *tree->relativeLookupDict()) {
        if (isCancelled())
            return false;
        if (node->diffResult() == KVNDiffResultUnknown && !node->isDirectory())
            node->setDiffResult(KVNDiffResultSingle);
    }
    return true;
}

void KVNMarkSingleOperation::main()
{
    if (markTree(buildTreeOp1_))
        markTree(buildTreeOp2_);
}

#include "KVNCompareDirOperation.h"

KVNCompareDirOperation::KVNCompareDirOperation(std::vector<KVNCompareDirWorkItem> workItems)
    : workItems_(workItems.begin(), workItems.end())
{}

std::vector<KVNOperationPtr>
KVNCompareDirOperation::createDirCompareOps(const std::vector<KVNCompareDirWorkItem> &workItems)
{
    std::vector<KVNOperationPtr> operations;
    operations.reserve(workItems.size());
    for (const auto &item : workItems)
        operations.push_back(std::make_shared<KVNCompareDirOperation>(KVNComparePairOf(item)));
    return operations;
}

int32_t KVNCompareDirOperation::recursiveChildDiffCheck(const KVNFileNode &node)
{
    // A decided node is taken as it stands; its children are not looked at.
    const int32_t own = node.diffResult();
    if (own != KVNDiffResultUnknown)
        return own;
    bool differ = false;
    bool single = false;
    int32_t plain = KVNDiffResultSame;
    for (const auto &child : node.childNodes()) {
        if (isCancelled()) {
            plain = KVNDiffResultIncomplete;
            break;
        }
        const int32_t result = recursiveChildDiffCheck(*child);
        if (result == KVNDiffResultDiffer) {
            differ = true;
        } else if (result == KVNDiffResultSingle) {
            single = true;
        } else if (result == KVNDiffResultDifferSingle) {
            differ = true;
            single = true;
        }
        if (isCancelled()) {
            plain = KVNDiffResultIncomplete;
            break;
        }
    }
    if (single)
        return differ ? KVNDiffResultDifferSingle : KVNDiffResultSingle;
    if (differ)
        return KVNDiffResultDiffer;
    return plain;
}

void KVNCompareDirOperation::compareFilesAtFileNode1(const KVNFileNodePtr &node1, const KVNFileNodePtr &node2)
{
    if (!node1 || !node2)
        return;
    const int32_t left = recursiveChildDiffCheck(*node1);
    const int32_t right = recursiveChildDiffCheck(*node2);
    const int32_t result = left == right ? left : KVNDiffResultUnknown;
    node1->setDiffResult(result);
    node2->setDiffResult(result);
}

void KVNCompareDirOperation::main()
{
    for (const auto &item : workItems_) {
        compareFilesAtFileNode1(item.originalFileNode, item.modifiedFileNode);
        if (isCancelled())
            return;
    }
}

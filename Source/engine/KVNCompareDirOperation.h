#pragma once

#include "KVNCompareWorkItems.h"
#include "KVNOperation.h"

#include <vector>

// Gives a directory pair a first result from what has been decided below it.
// The final word on directories is the status refresh's.
class KVNCompareDirOperation : public KVNOperation {
public:
    explicit KVNCompareDirOperation(std::vector<KVNCompareDirWorkItem> workItems);
    explicit KVNCompareDirOperation(KVNCompareDirPair pair) : workItems_(std::move(pair)) {}
    static std::vector<KVNOperationPtr> createDirCompareOps(const std::vector<KVNCompareDirWorkItem> &workItems);

    // A result for the node, from its children; writes nothing.
    int32_t recursiveChildDiffCheck(const KVNFileNode &node);
    void compareFilesAtFileNode1(const KVNFileNodePtr &node1, const KVNFileNodePtr &node2);

protected:
    void main() override;

private:
    // One item in every use: kept inline, one allocation fewer per pair.
    KVNCompareItemList<KVNCompareDirPair> workItems_;
};

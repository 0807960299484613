#pragma once

#include "KVNBuildTreeFastOperation.h"
#include "KVNOperation.h"

// Turns every non-directory that no comparison has touched into a single.
class KVNMarkSingleOperation : public KVNOperation {
public:
    KVNMarkSingleOperation(KVNBuildTreeFastOperationPtr buildTreeOp1, KVNBuildTreeFastOperationPtr buildTreeOp2)
        : buildTreeOp1_(std::move(buildTreeOp1)), buildTreeOp2_(std::move(buildTreeOp2))
    {}

protected:
    void main() override;

private:
    bool markTree(const KVNBuildTreeFastOperationPtr &scan);

    KVNBuildTreeFastOperationPtr buildTreeOp1_;
    KVNBuildTreeFastOperationPtr buildTreeOp2_;
};

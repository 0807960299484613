#include "KVNCompareTreeOperation.h"

#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNMarkSingleOperation.h"

KVNCompareTreeOperation::KVNCompareTreeOperation(KVNBuildTreeFastOperationPtr buildTreeOp1,
                                                 KVNBuildTreeFastOperationPtr buildTreeOp2, KVNOperationQueue *opQueue,
                                                 std::shared_ptr<KVNFinalOperationDelegate> finalDelegate)
    : buildTreeOp1_(std::move(buildTreeOp1)), buildTreeOp2_(std::move(buildTreeOp2)), opQueue_(opQueue),
      finalDelegate_(std::move(finalDelegate))
{}

KVNCompareTreeOperation::~KVNCompareTreeOperation()
{
    finalDelegate_.reset();
}

void KVNCompareTreeOperation::main()
{
    if (isCancelled())
        return;
    std::vector<KVNCompareFileWorkItem> fileItems;
    std::vector<KVNCompareDirWorkItem> dirItems;
    auto fileBarrier = std::make_shared<KVNOperation>();

    auto leftTree = buildTreeOp1_ ? buildTreeOp1_->fileTree() : nullptr;
    auto rightTree = buildTreeOp2_ ? buildTreeOp2_->fileTree() : nullptr;
    if (leftTree && rightTree) {
        const auto &rightLookup = *rightTree->relativeLookupDict();
        fileItems.reserve(leftTree->relativeLookupDict()->size());
        // Only left nodes are visited, and the left type alone chooses the kind
        // of comparison; the root is not in the table and is never compared.
        for (const KVNFileNodePtr &left : *leftTree->relativeLookupDict()) {
            if (isCancelled())
                return;
            KVNFileNodePtr right = rightLookup.valueMatching(*left);
            if (!right)
                continue;
            auto attrs = left->fileAttrs();
            const KVNFileType type = attrs ? attrs->fileType : KVNFileType::Regular;
            if (type == KVNFileType::Directory)
                dirItems.push_back({left, std::move(right), nullptr});
            else
                fileItems.push_back({type == KVNFileType::Regular ? KVNCompareMethodContents : KVNCompareMethodDate,
                                     left, std::move(right), nullptr});
        }
    }
    filePairs_ = fileItems.size();
    dirPairs_ = dirItems.size();

    auto fileOperations = KVNCompareFileOperation::createFileCompareOps(fileItems);
    auto dirOperations = KVNCompareDirOperation::createDirCompareOps(dirItems);
    fileItems = {};
    dirItems = {};
    for (const auto &operation : fileOperations)
        fileBarrier->addDependency(operation);
    auto dirBarrier = std::make_shared<KVNOperation>();
    for (const auto &operation : dirOperations)
        dirBarrier->addDependency(operation);
    auto markSingle = std::make_shared<KVNMarkSingleOperation>(buildTreeOp1_, buildTreeOp2_);
    markSingle->addDependency(dirBarrier);
    markSingle->addDependency(fileBarrier);
    auto final = std::make_shared<KVNFinalOperation>(finalDelegate_);
    final->addDependency(markSingle);

    // All file pairs are decided before any directory pair is looked at.
    opQueue_->addOperations(fileOperations);
    opQueue_->addOperation(fileBarrier);
    for (const auto &operation : dirOperations) {
        operation->addDependency(fileBarrier);
        opQueue_->addOperation(operation);
    }
    opQueue_->addOperations({dirBarrier, markSingle, final});
}

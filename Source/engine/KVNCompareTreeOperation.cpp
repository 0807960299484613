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
    // The operations are all made before the first is queued; the items are
    // turned into operations a batch at a time, so that a million of them
    // never stand beside a million operations.
    constexpr std::size_t kBatch = 4096;
    std::vector<KVNCompareFileWorkItem> fileItems;
    std::vector<KVNCompareDirWorkItem> dirItems;
    std::vector<KVNOperationPtr> fileOperations;
    std::vector<KVNOperationPtr> dirOperations;
    std::size_t filePairs = 0;
    std::size_t dirPairs = 0;
    const auto flushFiles = [&] {
        auto made = KVNCompareFileOperation::createFileCompareOps(fileItems);
        fileOperations.insert(fileOperations.end(), made.begin(), made.end());
        filePairs += fileItems.size();
        fileItems.clear();
    };
    const auto flushDirs = [&] {
        auto made = KVNCompareDirOperation::createDirCompareOps(dirItems);
        dirOperations.insert(dirOperations.end(), made.begin(), made.end());
        dirPairs += dirItems.size();
        dirItems.clear();
    };
    auto fileBarrier = std::make_shared<KVNOperation>();

    auto leftTree = buildTreeOp1_ ? buildTreeOp1_->fileTree() : nullptr;
    auto rightTree = buildTreeOp2_ ? buildTreeOp2_->fileTree() : nullptr;
    if (leftTree && rightTree) {
        const auto &rightLookup = *rightTree->relativeLookupDict();
        fileOperations.reserve(leftTree->relativeLookupDict()->size());
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
            if (type == KVNFileType::Directory) {
                dirItems.push_back({left, std::move(right), nullptr});
                if (dirItems.size() == kBatch)
                    flushDirs();
            } else {
                fileItems.push_back({type == KVNFileType::Regular ? KVNCompareMethodContents : KVNCompareMethodDate,
                                     left, std::move(right), nullptr});
                if (fileItems.size() == kBatch)
                    flushFiles();
            }
        }
    }
    flushFiles();
    flushDirs();
    filePairs_ = filePairs;
    dirPairs_ = dirPairs;
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

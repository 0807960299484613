#include "KVNCompareTreeOperation.h"

#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNMarkSingleOperation.h"

#include <cstdint>

namespace {

// What the feeders of one run share. Only one of them runs at a time (each
// queues the next one, and the directories' first waits for the file
// barrier), and the queue's hand-over orders them, so nothing here is locked.
struct FeedRun {
    KVNFileTreePtr left;
    KVNFileTreePtr right;
    KVNOperationQueue *queue = nullptr;
    std::shared_ptr<KVNCompareTreeOperation::PairCounts> pairs;
    // Weak: a barrier holds its feeders, which must not hold it in turn.
    std::weak_ptr<KVNOperation> fileBarrier;
    std::weak_ptr<KVNOperation> dirBarrier;
    std::size_t window = 0;
    std::size_t fileCursor = 0; // the next left node the file walk looks at
    std::vector<uint32_t> dirs; // left directories the file walk passed, in table order
    std::size_t dirCursor = 0;
};

class PairFeeder : public KVNOperation {
public:
    PairFeeder(std::shared_ptr<FeedRun> run, bool directories) : run_(std::move(run)), directories_(directories) {}

protected:
    void main() override;

private:
    // The next compare operation, or null when the walk has run out.
    KVNOperationPtr nextOperation();

    std::shared_ptr<FeedRun> run_;
    bool directories_;
};

KVNOperationPtr PairFeeder::nextOperation()
{
    FeedRun &run = *run_;
    const KVNRelativeLookupDict &left = *run.left->relativeLookupDict();
    const KVNRelativeLookupDict &right = *run.right->relativeLookupDict();
    if (directories_) {
        while (run.dirCursor < run.dirs.size()) {
            const KVNFileNodePtr &node = *(left.begin() + run.dirs[run.dirCursor++]);
            if (KVNFileNodePtr partner = right.valueMatching(*node))
                return std::make_shared<KVNCompareDirOperation>(KVNCompareDirPair{node, std::move(partner)});
        }
        return nullptr;
    }
    // Only left nodes are visited, and the left type alone chooses the kind
    // of comparison; the root is not in the table and is never compared.
    while (run.fileCursor < left.size()) {
        const std::size_t index = run.fileCursor++;
        const KVNFileNodePtr &node = *(left.begin() + index);
        auto attrs = node->fileAttrs();
        const KVNFileType type = attrs ? attrs->fileType : KVNFileType::Regular;
        if (type == KVNFileType::Directory) {
            run.dirs.push_back(uint32_t(index)); // paired when the files are done
            continue;
        }
        if (KVNFileNodePtr partner = right.valueMatching(*node))
            return std::make_shared<KVNCompareFileOperation>(
                KVNCompareFilePair{type == KVNFileType::Regular ? KVNCompareMethodContents : KVNCompareMethodDate, node,
                                   std::move(partner)});
    }
    return nullptr;
}

void PairFeeder::main()
{
    FeedRun &run = *run_;
    auto barrier = (directories_ ? run.dirBarrier : run.fileBarrier).lock();
    if (!barrier)
        return;
    auto &count = directories_ ? run.pairs->dirs : run.pairs->files;
    // Small batches: the workers start on the window while it is being made.
    constexpr std::size_t kBatch = 64;
    std::vector<KVNOperationPtr> batch;
    batch.reserve(kBatch);
    // A cancel of the queue may come between a test and an addition; whatever
    // it did not reach is cancelled here, so nothing of a cancelled run runs a body.
    const auto queueBatch = [&] {
        run.queue->addOperations(batch);
        count.fetch_add(batch.size(), std::memory_order_relaxed);
        if (isCancelled())
            for (const auto &operation : batch)
                operation->cancel();
        batch.clear();
        return !isCancelled();
    };
    bool more = true;
    for (std::size_t made = 0; made < run.window; ++made) {
        KVNOperationPtr operation = nextOperation();
        if (!operation) {
            more = false;
            break;
        }
        barrier->addDependency(operation);
        batch.push_back(std::move(operation));
        if (batch.size() == kBatch && !queueBatch())
            return;
    }
    if (!queueBatch() || !more)
        return;
    // Queued behind this window, the next feeder runs once the window has
    // been taken up. The barrier may gain it: this feeder, one of its
    // dependencies, is still running.
    auto next = std::make_shared<PairFeeder>(run_, directories_);
    barrier->addDependency(next);
    run.queue->addOperation(next);
    if (isCancelled())
        next->cancel();
}

} // namespace

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
    auto fileBarrier = std::make_shared<KVNOperation>();
    auto dirBarrier = std::make_shared<KVNOperation>();
    std::vector<KVNOperationPtr> graph;
    KVNOperationPtr feeder;
    auto leftTree = buildTreeOp1_ ? buildTreeOp1_->fileTree() : nullptr;
    auto rightTree = buildTreeOp2_ ? buildTreeOp2_->fileTree() : nullptr;
    if (leftTree && rightTree) {
        auto run = std::make_shared<FeedRun>();
        run->left = leftTree;
        run->right = rightTree;
        run->queue = opQueue_;
        run->pairs = pairs_;
        run->fileBarrier = fileBarrier;
        run->dirBarrier = dirBarrier;
        run->window = window_;
        auto fileFeeder = std::make_shared<PairFeeder>(run, false);
        fileBarrier->addDependency(fileFeeder);
        // All file pairs are decided before any directory pair is looked at:
        // the directories' operations are only made once the file barrier has passed.
        auto dirFeeder = std::make_shared<PairFeeder>(run, true);
        dirFeeder->addDependency(fileBarrier);
        dirBarrier->addDependency(dirFeeder);
        graph = {fileBarrier, dirFeeder, dirBarrier};
        feeder = fileFeeder;
    } else {
        graph = {fileBarrier, dirBarrier};
    }
    auto markSingle = std::make_shared<KVNMarkSingleOperation>(buildTreeOp1_, buildTreeOp2_);
    markSingle->addDependency(dirBarrier);
    markSingle->addDependency(fileBarrier);
    auto final = std::make_shared<KVNFinalOperation>(finalDelegate_);
    final->addDependency(markSingle);
    graph.push_back(markSingle);
    graph.push_back(final);
    // The feeder last: nothing can run before the whole graph is in the queue.
    if (feeder)
        graph.push_back(feeder);
    opQueue_->addOperations(graph);
    // A cancel of the queue that came while the graph went in may have missed
    // part of it; the graph is complete all the same, and cancelled as a whole.
    if (isCancelled())
        for (const auto &operation : graph)
            operation->cancel();
}

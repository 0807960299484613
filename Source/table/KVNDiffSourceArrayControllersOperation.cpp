#include "KVNDiffSourceArrayControllersOperation.h"

#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNMainThread.h"

#include <QHash>

#include <unordered_map>

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

// Exact-case relative paths, told apart without making a string per row: a
// node's path is its directory's, made once per directory, and its name.
class PathKeys {
public:
    struct Key {
        uint64_t hash = 0;
        const QByteArray *directory = nullptr; // null: the whole path is in name
        QByteArray name;
    };
    struct Hash {
        std::size_t operator()(const Key &key) const noexcept { return std::size_t(key.hash); }
    };
    struct Equal {
        bool operator()(const Key &a, const Key &b) const
        {
            if (a.hash != b.hash)
                return false;
            if (a.directory && b.directory)
                return a.name == b.name && *a.directory == *b.directory;
            return whole(a) == whole(b);
        }
    };

    // The key of a row's path: that of its left node, or else its right one.
    Key keyOf(const KVNDirDiffTableElement &row)
    {
        KVNFileNodePtr node = row.leftNode();
        if (!node)
            node = row.rightNode();
        if (!node)
            return {fold(kSeed, QByteArray()), nullptr, QByteArray()};
        const KVNFileNodePtr parent = node->parentNode();
        if (!parent) {
            QByteArray path = node->relativePath();
            return {fold(kSeed, path), nullptr, std::move(path)};
        }
        const Directory &directory = directoryOf(parent.get());
        QByteArray name = node->name();
        return {fold(fold(directory.hash, QByteArrayView("/")), name), &directory.path, std::move(name)};
    }

private:
    static constexpr uint64_t kSeed = 1469598103934665603ull;
    struct Directory {
        QByteArray path;
        uint64_t hash = 0;
    };

    static uint64_t fold(uint64_t hash, QByteArrayView bytes)
    {
        for (const char c : bytes) {
            hash ^= uint8_t(c);
            hash *= 1099511628211ull;
        }
        return hash;
    }
    static QByteArray whole(const Key &key) { return key.directory ? *key.directory + '/' + key.name : key.name; }

    const Directory &directoryOf(const KVNFileNode *node)
    {
        if (node == lastNode_)
            return *lastDirectory_;
        auto [it, added] = directories_.try_emplace(node);
        if (added) {
            QByteArray path = node->relativePath();
            if (path == "./") // the root: its children are "./name"
                path = ".";
            it->second.hash = fold(kSeed, path);
            it->second.path = std::move(path);
        }
        lastNode_ = node;
        lastDirectory_ = &it->second;
        return it->second;
    }

    // The rows keep their nodes, and so their directories, alive meanwhile.
    std::unordered_map<const KVNFileNode *, Directory> directories_;
    const KVNFileNode *lastNode_ = nullptr;
    const Directory *lastDirectory_ = nullptr;
};

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

    // Keyed by the exact-case path, unlike the pairing; a later row of the
    // same path takes the place of an earlier one. Every path is made once:
    // a bound path that some fresh row finds is marked, the others went away.
    struct Slot {
        KVNDirDiffTableElement *row = nullptr; // the snapshot keeps it alive
        bool found = false;
    };
    PathKeys keys;
    std::unordered_map<PathKeys::Key, Slot, PathKeys::Hash, PathKeys::Equal> boundTable; // nodes stay put
    boundTable.reserve(bound.size());
    std::vector<Slot *> boundSlots;
    boundSlots.reserve(bound.size());
    for (const auto &row : bound) {
        Slot &slot = boundTable[keys.keyOf(*row)];
        slot.row = row.get();
        boundSlots.push_back(&slot);
    }
    std::vector<KVNDirDiffTableElement *> existingFor(updated.size(), nullptr);
    for (std::size_t index = 0; index < updated.size(); ++index) {
        const auto it = boundTable.find(keys.keyOf(*updated[index]));
        if (it == boundTable.end())
            continue;
        it->second.found = true;
        existingFor[index] = it->second.row;
    }

    std::vector<KVNDirDiffTableElementPtr> gone;
    for (std::size_t index = 0; index < bound.size(); ++index)
        if (!boundSlots[index]->found)
            gone.push_back(bound[index]);
    for (const auto &row : gone) {
        if (auto parent = row->parentElement()) {
            recompare.insert(parent);
            parent->removeChildElement(row.get());
        }
        // One hop a row, so that the main thread stays served between them.
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
        KVNDirDiffTableElement *found = existingFor[index];
        if (!found) {
            if (auto parent = fresh->parentElement()) {
                // A parent that is new itself is not in the bound table: the row then
                // keeps its place in that parent's list but loses its parent reference.
                KVNDirDiffTableElementPtr boundParent;
                if (const auto it = boundTable.find(keys.keyOf(*parent)); it != boundTable.end())
                    boundParent = KVNDirDiffTableElementPtr::fromThis(it->second.row);
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
        const auto existing = KVNDirDiffTableElementPtr::fromThis(found);
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

#include "KVNDiffSourceArrayControllersOperation.h"

#include "KVNCompareDirOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNMainThread.h"
#include "KVNProbeSlots.h"

#include <deque>
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
// node's path is its directory's, made once per directory, and its name,
// read in place. A key is good while its node lives.
class PathKeys {
public:
    struct Key {
        uint64_t hash = 0;
        const QByteArray *directory = nullptr; // null: the whole path is in name
        QByteArrayView name;
    };

    // The key of a row's path: that of its left node, or else its right one.
    // Gives the node as well, for the caller to keep while it keeps the key.
    Key keyOf(const KVNDirDiffTableElement &row, KVNFileNodePtr *keep = nullptr)
    {
        KVNFileNodePtr node = row.leftNode();
        if (!node)
            node = row.rightNode();
        Key key;
        if (!node) {
            key.hash = kSeed;
        } else if (const KVNFileNodePtr parent = node->parentNode()) {
            const Directory &directory = directoryOf(parent.get());
            key.directory = &directory.path;
            key.name = node->nameView();
            key.hash = fold(fold(directory.hash, QByteArrayView("/")), key.name);
        } else {
            // Its parent is gone: the path, made once, lives as long as this.
            const QByteArray &path = wholePaths_.emplace_back(node->relativePath());
            key.name = path;
            key.hash = fold(kSeed, path);
        }
        if (keep)
            *keep = std::move(node);
        return key;
    }

    static bool equal(const Key &a, const Key &b)
    {
        if (a.hash != b.hash)
            return false;
        if (a.directory && b.directory)
            return a.name == b.name && (a.directory == b.directory || *a.directory == *b.directory);
        return whole(a) == whole(b);
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
    static QByteArray whole(const Key &key)
    {
        if (!key.directory)
            return key.name.toByteArray();
        QByteArray path = *key.directory;
        return path.append('/').append(key.name);
    }

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
    std::deque<QByteArray> wholePaths_; // never moved, so views into them stay good
};

// The bound rows by path, in one open-addressed array: a million rows cost
// no allocation each. A later row of the same path takes the place of an
// earlier one.
class BoundTable {
public:
    struct Entry {
        PathKeys::Key key;
        KVNDirDiffTableElement *row = nullptr; // the snapshot keeps it alive
        bool found = false;                    // some fresh row has this path
    };

    explicit BoundTable(std::size_t count) : slots_(KVNMakeSlots(count)) { entries_.reserve(count); }

    // The entry of the key, made for the row or given to it.
    Entry &add(const PathKeys::Key &key, KVNDirDiffTableElement *row)
    {
        uint32_t &slot = slotOf(key);
        if (!slot) {
            entries_.push_back({key, row, false});
            slot = uint32_t(entries_.size());
        }
        Entry &entry = entries_[slot - 1];
        entry.row = row;
        return entry;
    }
    Entry *find(const PathKeys::Key &key)
    {
        const uint32_t slot = slotOf(key);
        return slot ? &entries_[slot - 1] : nullptr;
    }

private:
    uint32_t &slotOf(const PathKeys::Key &key)
    {
        return slots_[KVNProbeSlots(slots_, key.hash,
                                    [&](uint32_t i) { return PathKeys::equal(entries_[i].key, key); })];
    }

    std::vector<uint32_t> slots_; // entry index + 1; 0 is empty
    std::vector<Entry> entries_;  // never grows past its reserve, so entries stay put
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
    const KVNRowList updated =
        updatedSourceArrayController_ ? updatedSourceArrayController_->arrangedRows() : KVNRowList();
    const auto &bound = boundSourceArrayControllerArrangedObjects_;
    KVNTableElementSet recompare;

    // Keyed by the exact-case path, unlike the pairing. Every path is made
    // once: a bound path that some fresh row finds is marked, the others went
    // away. The bound rows' nodes are held, since their keys read their names
    // and a side test below may let a node go.
    PathKeys keys;
    BoundTable boundTable(bound.size());
    std::vector<BoundTable::Entry *> boundEntries;
    boundEntries.reserve(bound.size());
    std::vector<KVNFileNodePtr> keyNodes(bound.size());
    for (std::size_t index = 0; index < bound.size(); ++index) {
        const PathKeys::Key key = keys.keyOf(*bound[index], &keyNodes[index]);
        boundEntries.push_back(&boundTable.add(key, bound[index].get()));
    }
    std::vector<KVNDirDiffTableElement *> existingFor(updated.size(), nullptr);
    std::size_t index = 0;
    for (const auto &fresh : updated) {
        if (BoundTable::Entry *entry = boundTable.find(keys.keyOf(*fresh))) {
            entry->found = true;
            existingFor[index] = entry->row;
        }
        ++index;
    }

    std::vector<KVNDirDiffTableElementPtr> gone;
    for (std::size_t index = 0; index < bound.size(); ++index)
        if (!boundEntries[index]->found)
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
                if (const BoundTable::Entry *entry = boundTable.find(keys.keyOf(*parent)))
                    boundParent = KVNDirDiffTableElementPtr::fromThis(entry->row);
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

#pragma once

#include "KVNFileNode.h"
#include "KVNMergeDirection.h"
#include "KVNPredicate.h"
#include "KVNRef.h"
#include "KVNTinyLock.h"

#include <QString>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

class KVNDirDiffTableElement;
using KVNDirDiffTableElementPtr = KVNRef<KVNDirDiffTableElement>;

// One row of the comparison: a left node, a right node or both, at one
// relative path. It reads one result out of its two nodes, keeps a merge
// direction, defaults it when a result arrives, and sums its children's
// directions into a directory's. A table holds a row for every item, so a
// row is counted in place (KVNRef), keeps its small fields small and has no
// virtual table of its own for predicates (they reach it through a view).
class KVNDirDiffTableElement final : public KVNNodeObserver {
public:
    static constexpr uint64_t kNoRowLayerIndex = ~uint64_t(0);

    // initWithLeftNode:withRightNode:; either node may be null.
    static KVNDirDiffTableElementPtr make(const KVNFileNodePtr &leftNode, const KVNFileNodePtr &rightNode);
    KVNDirDiffTableElement(); // use make()
    ~KVNDirDiffTableElement() override;

    KVNFileNodePtr leftNode() const;
    KVNFileNodePtr rightNode() const;
    void setLeftNode(const KVNFileNodePtr &node);
    void setRightNode(const KVNFileNodePtr &node);

    uint32_t depthHint() const;
    void setDepthHint(uint32_t depth);
    uint64_t rowLayerIndex() const { return kNoRowLayerIndex; }

    KVNDirDiffTableElementPtr parentElement() const;
    void setParentElement(const KVNDirDiffTableElementPtr &parent);
    // A snapshot: rows may be added or removed by other threads meanwhile.
    std::vector<KVNDirDiffTableElementPtr> childElements() const;
    bool hasChildElements() const;                                // false while the list is nil
    void addChildElement(const KVNDirDiffTableElementPtr &child); // creates the list on first use
    void removeChildElement(const KVNDirDiffTableElement *child);
    // Gives back the room the list grew by while it was filled; later additions still work.
    void finishChildElements();
    std::vector<KVNDirDiffTableElementPtr> filteredChildren(const KVNPredicatePtr &predicate) const;

    // Values for the outline; empty without a node on that side.
    QString labelLeft() const { return label(leftNode()); }
    QString labelRight() const { return label(rightNode()); }
    QString dateLabelLeft() const { return dateLabel(leftNode()); }
    QString dateLabelRight() const { return dateLabel(rightNode()); }
    QString sizeLabelLeft() const { return sizeLabel(leftNode()); }
    QString sizeLabelRight() const { return sizeLabel(rightNode()); }
    std::optional<KVNDate> dateLeft() const;
    std::optional<KVNDate> dateRight() const;
    bool isExposed() const { return false; }
    void setIsExposed(bool) {}

    // From the left node when there is one, otherwise from the right.
    QByteArray relativePath() const;
    QString displayRelativePath() const;
    bool isDirectory() const;
    bool isApplication() const;
    bool isBundle() const;
    QString spotlightItemKind() const;
    QString spotlightItemFSName() const;
    std::optional<uint64_t> spotlightItemFSSize() const;

    int32_t diffResult() const;
    uint64_t mergeDirection() const { return mergeDirection_.load(std::memory_order_acquire); }
    void setMergeDirection(uint64_t direction);
    void updateMergeDirectionForDirectory();
    void updateAndNotifyParent();
    void respondToChangedDiffResult();

    // Worked out once from the relative path, so a row stays findable after a node swap.
    std::size_t hash() const;
    bool isEqual(const KVNDirDiffTableElement &other) const;
    QString description() const;

    // Told by the nodes this row shows.
    void observeValueForKeyPath(KVNNodeKey key, KVNFileNode &node) override;
    bool retainObserver() noexcept override { return KVNRefDetail::tryRetain(this); }
    void releaseObserver() noexcept override { KVNRefDetail::release(this); }
    KVNValue valueForKey(QStringView key) const;

private:
    static QString label(const KVNFileNodePtr &node);
    static QString dateLabel(const KVNFileNodePtr &node);
    static QString sizeLabel(const KVNFileNodePtr &node);
    KVNFileNodePtr primaryNode() const;
    void setNode(KVNFileNodePtr &slot, const KVNFileNodePtr &node);

    struct Children;
    // Stores a direction and keeps the counts of the list this row is in; with lock_ held.
    void storeMergeDirectionLocked(uint64_t direction);

    // Taken alone, or a parent's and then a child's: rows nest from parent to child.
    mutable KVNTinyLock lock_;
    std::atomic<uint8_t> mergeDirection_{KVNMergeDirectionNone};
    std::atomic<uint16_t> depthHint_{0};          // kDepthUnknown stands for every depth it cannot hold
    mutable std::atomic<uint32_t> cachedHash_{0}; // 0 until worked out
    KVNFileNodePtr leftNode_;
    KVNFileNodePtr rightNode_;
    KVNWeakRef<KVNDirDiffTableElement> parentElement_;
    std::unique_ptr<Children> childElements_; // directories only
    // The list whose direction counts include this row; not owned.
    Children *countedIn_ = nullptr;
};

// Set semantics by row identity (hash and isEqual), as the reconciliation needs.
struct KVNTableElementHash {
    std::size_t operator()(const KVNDirDiffTableElementPtr &e) const { return e ? e->hash() : 0; }
};
struct KVNTableElementEqual {
    bool operator()(const KVNDirDiffTableElementPtr &a, const KVNDirDiffTableElementPtr &b) const
    {
        return a && b ? a->isEqual(*b) : a == b;
    }
};

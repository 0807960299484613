#pragma once

#include "KVNDirDiffTableElement.h"
#include "KVNPredicate.h"
#include "KVNRowList.h"

#include <cstddef>
#include <mutex>
#include <vector>

// An ordered list of rows with a filter. Without a filter the arranged rows
// are the content in insertion order; with one, they are the content that
// passes it as of the last rearrangement, plus rows added since. Safe to use
// from several threads: every call sees a whole batch or none of it.
//
// The lists are KVNRowList values: content() and arrangedRows() are snapshots
// that share the controller's storage until either side changes, so handing
// one controller's content to another costs no second copy of the rows.
//
// Removals, and insertions at ascending places without a filter, are kept
// and made together when anything else reaches the rows: a reconciliation
// removes and then inserts rows one at a time, and each edit made on its own
// would move every row after it.
class KVNArrayController {
public:
    void addObjects(const std::vector<KVNDirDiffTableElementPtr> &objects);
    void insertObject(const KVNDirDiffTableElementPtr &object, std::size_t arrangedObjectIndex);
    void removeObject(const KVNDirDiffTableElementPtr &object);
    void removeObjectsAtArrangedObjectIndexes(const std::vector<std::size_t> &indexes);
    void setContent(KVNRowList content);
    // Gives back the room the lists grew by; for the end of a build.
    void compact();

    void setFilterPredicate(const KVNPredicatePtr &predicate); // rearranges
    KVNPredicatePtr filterPredicate() const;
    void rearrangeObjects();

    std::vector<KVNDirDiffTableElementPtr> arrangedObjects() const; // a snapshot, copied
    KVNRowList arrangedRows() const;                                // a snapshot, shared
    std::size_t arrangedObjectsCount() const;
    KVNRowList content() const; // a snapshot, shared

private:
    void rearrangeLocked();
    void applyPendingLocked() const;
    KVNRowList &arrangedLocked()
    {
        applyPendingLocked();
        return filter_ ? arranged_ : content_;
    }
    const KVNRowList &arrangedLocked() const
    {
        applyPendingLocked();
        return filter_ ? arranged_ : content_;
    }

    mutable std::mutex mutex_;
    // Mutable: a reader makes the pending edits before it reads.
    mutable KVNRowList content_;
    mutable KVNRowList arranged_; // used only with a filter; shares content_ while every row passes
    KVNPredicatePtr filter_;
    // Never both at once: an edit of the other kind makes these first.
    // Addresses suffice, since no row enters the lists before they are made.
    mutable std::vector<const KVNDirDiffTableElement *> pendingRemovals_;
    mutable std::vector<std::pair<std::size_t, KVNDirDiffTableElementPtr>> pendingInsertions_; // ascending
};

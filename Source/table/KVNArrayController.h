#pragma once

#include "KVNDirDiffTableElement.h"
#include "KVNPredicate.h"

#include <cstddef>
#include <mutex>
#include <vector>

// An ordered list of rows with a filter. Without a filter the arranged rows
// are the content in insertion order; with one, they are the content that
// passes it as of the last rearrangement, plus rows added since. Safe to use
// from several threads: every call sees a whole batch or none of it.
class KVNArrayController {
public:
    void addObjects(const std::vector<KVNDirDiffTableElementPtr> &objects);
    void insertObject(const KVNDirDiffTableElementPtr &object, std::size_t arrangedObjectIndex);
    void removeObject(const KVNDirDiffTableElementPtr &object);
    void removeObjectsAtArrangedObjectIndexes(const std::vector<std::size_t> &indexes);
    void setContent(std::vector<KVNDirDiffTableElementPtr> content);
    // Gives back the room the lists grew by; for the end of a build.
    void compact();

    void setFilterPredicate(const KVNPredicatePtr &predicate); // rearranges
    KVNPredicatePtr filterPredicate() const;
    void rearrangeObjects();

    std::vector<KVNDirDiffTableElementPtr> arrangedObjects() const; // a snapshot
    std::size_t arrangedObjectsCount() const;
    std::vector<KVNDirDiffTableElementPtr> content() const;

private:
    void rearrangeLocked();
    std::vector<KVNDirDiffTableElementPtr> &arrangedLocked() { return filter_ ? arranged_ : content_; }
    const std::vector<KVNDirDiffTableElementPtr> &arrangedLocked() const { return filter_ ? arranged_ : content_; }

    mutable std::mutex mutex_;
    std::vector<KVNDirDiffTableElementPtr> content_;
    std::vector<KVNDirDiffTableElementPtr> arranged_; // used only with a filter
    KVNPredicatePtr filter_;
};

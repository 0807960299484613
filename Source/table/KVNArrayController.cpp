#include "KVNArrayController.h"

#include <algorithm>

void KVNArrayController::addObjects(const std::vector<KVNDirDiffTableElementPtr> &objects)
{
    std::lock_guard lock(mutex_);
    applyPendingLocked();
    content_.append(objects);
    if (filter_)
        arranged_.append(objects);
}

void KVNArrayController::insertObject(const KVNDirDiffTableElementPtr &object, std::size_t arrangedObjectIndex)
{
    std::lock_guard lock(mutex_);
    if (!filter_) {
        if (!pendingRemovals_.empty())
            applyPendingLocked();
        const std::size_t at = std::min(arrangedObjectIndex, content_.size() + pendingInsertions_.size());
        if (!pendingInsertions_.empty() && at <= pendingInsertions_.back().first)
            applyPendingLocked();
        pendingInsertions_.emplace_back(at, object);
        return;
    }
    applyPendingLocked();
    // Into the content before the row that now stands at that arranged place.
    std::size_t at = content_.size();
    if (arrangedObjectIndex < arranged_.size()) {
        const auto &before = arranged_[arrangedObjectIndex];
        at = std::find(content_.begin(), content_.end(), before).index();
    }
    content_.insert(at, object);
    arranged_.insert(arrangedObjectIndex, object);
}

void KVNArrayController::removeObject(const KVNDirDiffTableElementPtr &object)
{
    std::lock_guard lock(mutex_);
    if (!pendingInsertions_.empty())
        applyPendingLocked();
    if (object)
        pendingRemovals_.push_back(object.get());
}

void KVNArrayController::applyPendingLocked() const
{
    if (!pendingRemovals_.empty()) {
        std::sort(pendingRemovals_.begin(), pendingRemovals_.end());
        const auto doomed = [this](std::size_t, const KVNDirDiffTableElementPtr &row) {
            return std::binary_search(pendingRemovals_.begin(), pendingRemovals_.end(), row.get());
        };
        content_.removeIf(doomed);
        if (filter_)
            arranged_.removeIf(doomed);
        pendingRemovals_ = {};
    }
    if (!pendingInsertions_.empty()) {
        content_.insertAscending(pendingInsertions_);
        pendingInsertions_ = {};
    }
}

void KVNArrayController::removeObjectsAtArrangedObjectIndexes(const std::vector<std::size_t> &indexes)
{
    std::lock_guard lock(mutex_);
    auto &arranged = arrangedLocked(); // makes the pending edits first
    std::vector<bool> doomed(arranged.size());
    for (std::size_t index : indexes)
        if (index < doomed.size())
            doomed[index] = true;
    std::vector<KVNDirDiffTableElementPtr> gone;
    arranged.removeIf([&](std::size_t index, const KVNDirDiffTableElementPtr &row) {
        if (doomed[index] && filter_)
            gone.push_back(row);
        return bool(doomed[index]);
    });
    if (filter_) {
        std::sort(gone.begin(), gone.end());
        content_.removeIf([&](std::size_t, const KVNDirDiffTableElementPtr &row) {
            return std::binary_search(gone.begin(), gone.end(), row);
        });
    }
}

void KVNArrayController::setContent(KVNRowList content)
{
    std::lock_guard lock(mutex_);
    // Edits of the content that goes are moot.
    pendingRemovals_ = {};
    pendingInsertions_ = {};
    content_ = std::move(content);
    rearrangeLocked();
}

void KVNArrayController::compact()
{
    std::lock_guard lock(mutex_);
    applyPendingLocked();
    content_.shrinkToFit();
    arranged_.shrinkToFit();
}

void KVNArrayController::setFilterPredicate(const KVNPredicatePtr &predicate)
{
    std::lock_guard lock(mutex_);
    applyPendingLocked();
    filter_ = predicate;
    rearrangeLocked();
}

KVNPredicatePtr KVNArrayController::filterPredicate() const
{
    std::lock_guard lock(mutex_);
    return filter_;
}

void KVNArrayController::rearrangeObjects()
{
    std::lock_guard lock(mutex_);
    applyPendingLocked();
    rearrangeLocked();
}

void KVNArrayController::rearrangeLocked()
{
    arranged_.clear();
    if (!filter_)
        return;
    // Up to the first row that fails, the arranged rows are the content's own.
    std::size_t index = 0;
    auto row = content_.begin();
    while (row != content_.end() && filter_->evaluateWithObject(**row)) {
        ++row;
        ++index;
    }
    arranged_ = content_.firstRows(index);
    if (row == content_.end())
        return;
    for (++row; row != content_.end(); ++row)
        if (filter_->evaluateWithObject(**row))
            arranged_.append(*row);
}

std::vector<KVNDirDiffTableElementPtr> KVNArrayController::arrangedObjects() const
{
    std::lock_guard lock(mutex_);
    return arrangedLocked().toVector();
}

KVNRowList KVNArrayController::arrangedRows() const
{
    std::lock_guard lock(mutex_);
    return arrangedLocked();
}

std::size_t KVNArrayController::arrangedObjectsCount() const
{
    std::lock_guard lock(mutex_);
    return arrangedLocked().size();
}

KVNRowList KVNArrayController::content() const
{
    std::lock_guard lock(mutex_);
    applyPendingLocked();
    return content_;
}

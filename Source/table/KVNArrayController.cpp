#include "KVNArrayController.h"

#include <algorithm>

void KVNArrayController::addObjects(const std::vector<KVNDirDiffTableElementPtr> &objects)
{
    std::lock_guard lock(mutex_);
    content_.insert(content_.end(), objects.begin(), objects.end());
    if (filter_)
        arranged_.insert(arranged_.end(), objects.begin(), objects.end());
}

void KVNArrayController::insertObject(const KVNDirDiffTableElementPtr &object, std::size_t arrangedObjectIndex)
{
    std::lock_guard lock(mutex_);
    if (!filter_) {
        content_.insert(content_.begin() + std::min(arrangedObjectIndex, content_.size()), object);
        return;
    }
    // Into the content before the row that now stands at that arranged place.
    auto at = arrangedObjectIndex < arranged_.size()
                  ? std::find(content_.begin(), content_.end(), arranged_[arrangedObjectIndex])
                  : content_.end();
    content_.insert(at, object);
    arranged_.insert(arranged_.begin() + std::min(arrangedObjectIndex, arranged_.size()), object);
}

void KVNArrayController::removeObject(const KVNDirDiffTableElementPtr &object)
{
    std::lock_guard lock(mutex_);
    std::erase(content_, object);
    if (filter_)
        std::erase(arranged_, object);
}

void KVNArrayController::removeObjectsAtArrangedObjectIndexes(const std::vector<std::size_t> &indexes)
{
    std::lock_guard lock(mutex_);
    auto &arranged = arrangedLocked();
    std::vector<bool> doomed(arranged.size());
    for (std::size_t index : indexes)
        if (index < doomed.size())
            doomed[index] = true;
    std::vector<KVNDirDiffTableElementPtr> gone;
    std::vector<KVNDirDiffTableElementPtr> kept;
    kept.reserve(arranged.size());
    for (std::size_t i = 0; i < arranged.size(); ++i)
        (doomed[i] ? gone : kept).push_back(arranged[i]);
    if (filter_) {
        arranged_.swap(kept);
        std::sort(gone.begin(), gone.end());
        std::erase_if(content_, [&](const auto &e) { return std::binary_search(gone.begin(), gone.end(), e); });
    } else {
        content_.swap(kept);
    }
}

void KVNArrayController::setContent(std::vector<KVNDirDiffTableElementPtr> content)
{
    std::lock_guard lock(mutex_);
    content_ = std::move(content);
    rearrangeLocked();
}

void KVNArrayController::compact()
{
    std::lock_guard lock(mutex_);
    content_.shrink_to_fit();
    arranged_.shrink_to_fit();
}

void KVNArrayController::setFilterPredicate(const KVNPredicatePtr &predicate)
{
    std::lock_guard lock(mutex_);
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
    rearrangeLocked();
}

void KVNArrayController::rearrangeLocked()
{
    arranged_.clear();
    if (!filter_)
        return;
    for (const auto &row : content_)
        if (filter_->evaluateWithObject(*row))
            arranged_.push_back(row);
}

std::vector<KVNDirDiffTableElementPtr> KVNArrayController::arrangedObjects() const
{
    std::lock_guard lock(mutex_);
    return arrangedLocked();
}

std::size_t KVNArrayController::arrangedObjectsCount() const
{
    std::lock_guard lock(mutex_);
    return arrangedLocked().size();
}

std::vector<KVNDirDiffTableElementPtr> KVNArrayController::content() const
{
    std::lock_guard lock(mutex_);
    return content_;
}

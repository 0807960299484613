#include "KVNRelativeLookupDict.h"

#include "KVNPathBytes.h"

#include <algorithm>
#include <bit>

namespace {
constexpr std::size_t kNotFound = ~std::size_t(0);

// The key hash in 32 bits. Its high bits choose the slot and its low bits
// make the tag; folding brings both halves of the 64-bit hash into each.
uint32_t fold(uint64_t hash)
{
    return uint32_t(hash ^ (hash >> 32));
}
} // namespace

// Slots are chosen by scaling the hash to the table's size, not by masking,
// so that the table can be sized to its contents instead of a power of two.
std::size_t KVNRelativeLookupDict::slotFor(uint32_t hash) const
{
    return std::size_t((uint64_t(hash) * slots_.size()) >> 32);
}

uint32_t KVNRelativeLookupDict::entryFor(uint32_t hash, std::size_t index) const
{
    return uint32_t((uint64_t(hash) << indexBits_) | (index + 1));
}

void KVNRelativeLookupDict::place(uint32_t hash, std::size_t index)
{
    const std::size_t capacity = slots_.size();
    std::size_t slot = slotFor(hash);
    while (slots_[slot] != 0)
        slot = slot + 1 == capacity ? 0 : slot + 1;
    slots_[slot] = entryFor(hash, index);
}

void KVNRelativeLookupDict::reserve(std::size_t count)
{
    nodes_.reserve(count);
    hashes_.reserve(count);
    if (count + count / 3 + 1 > slots_.size())
        rehash(count);
}

void KVNRelativeLookupDict::squeeze()
{
    rehash(nodes_.size());
    std::vector<uint32_t>().swap(hashes_);
    nodes_.shrink_to_fit();
}

// Room for count entries at a load of at most three quarters. An index stays
// below the capacity, so the tag has the bits the capacity leaves.
void KVNRelativeLookupDict::rehash(std::size_t count)
{
    const std::size_t capacity = std::max<std::size_t>(16, count + count / 3 + 1);
    if (capacity == slots_.size())
        return;
    std::vector<uint32_t>(capacity, 0).swap(slots_);
    indexBits_ = uint8_t(std::bit_width(capacity - 1));
    for (std::size_t i = 0; i < nodes_.size(); ++i)
        place(hashes_[i], i);
}

template <typename Matches> std::size_t KVNRelativeLookupDict::find(uint32_t hash, Matches matches) const
{
    if (slots_.empty())
        return kNotFound;
    const std::size_t capacity = slots_.size();
    const uint32_t indexMask = uint32_t((uint64_t(1) << indexBits_) - 1);
    const uint32_t tag = entryFor(hash, 0) & ~indexMask;
    for (std::size_t slot = slotFor(hash);; slot = slot + 1 == capacity ? 0 : slot + 1) {
        const uint32_t entry = slots_[slot];
        if (entry == 0)
            return kNotFound;
        if ((entry & ~indexMask) == tag && matches(*nodes_[(entry & indexMask) - 1]))
            return (entry & indexMask) - 1;
    }
}

void KVNRelativeLookupDict::insert(const KVNFileNodePtr &node)
{
    if (!node)
        return;
    const uint32_t hash = fold(node->lowercaseRelativePathHash());
    const std::size_t existing =
        find(hash, [&node](const KVNFileNode &other) { return other.hasSameLowercaseRelativePath(*node); });
    if (existing != kNotFound) {
        nodes_[existing] = node;
        return;
    }
    // A squeezed table has let its hashes go; growing needs them back.
    if (hashes_.size() != nodes_.size()) {
        hashes_.clear();
        hashes_.reserve(nodes_.size() + 1);
        for (const auto &present : nodes_)
            hashes_.push_back(fold(present->lowercaseRelativePathHash()));
    }
    if ((nodes_.size() + 1) * 4 > slots_.size() * 3)
        rehash((nodes_.size() + 1) * 2);
    nodes_.push_back(node);
    hashes_.push_back(hash);
    place(hash, nodes_.size() - 1);
}

KVNFileNodePtr KVNRelativeLookupDict::value(const QByteArray &lowercaseRelativePath) const
{
    const uint64_t hash = KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, lowercaseRelativePath.constData(),
                                                  lowercaseRelativePath.size());
    const std::size_t index = find(fold(hash), [&lowercaseRelativePath](const KVNFileNode &node) {
        return node.hasLowercaseRelativePath(lowercaseRelativePath);
    });
    return index == kNotFound ? nullptr : nodes_[index];
}

KVNFileNodePtr KVNRelativeLookupDict::valueMatching(const KVNFileNode &node) const
{
    const std::size_t index = find(fold(node.lowercaseRelativePathHash()), [&node](const KVNFileNode &other) {
        return other.hasSameLowercaseRelativePath(node);
    });
    return index == kNotFound ? nullptr : nodes_[index];
}

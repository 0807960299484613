#include "KVNRelativeLookupDict.h"

#include "KVNPathBytes.h"

#include <algorithm>

namespace {
constexpr std::size_t kNotFound = ~std::size_t(0);
} // namespace

// Slots are chosen by scaling the hash to the table's size, not by masking,
// so that the table can be sized to its contents instead of a power of two.
std::size_t KVNRelativeLookupDict::slotFor(uint32_t hash) const
{
    return std::size_t((uint64_t(hash) * slots_.size()) >> 32);
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
    nodes_.shrink_to_fit();
    hashes_.shrink_to_fit();
    rehash(nodes_.size());
}

// Room for count entries at a load of at most three quarters.
void KVNRelativeLookupDict::rehash(std::size_t count)
{
    const std::size_t capacity = std::max<std::size_t>(16, count + count / 3 + 1);
    if (capacity == slots_.size())
        return;
    std::vector<uint32_t>(capacity, 0).swap(slots_);
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
        std::size_t slot = slotFor(hashes_[i]);
        while (slots_[slot] != 0)
            slot = slot + 1 == capacity ? 0 : slot + 1;
        slots_[slot] = uint32_t(i + 1);
    }
}

template <typename Matches> std::size_t KVNRelativeLookupDict::find(uint64_t hash, Matches matches) const
{
    if (slots_.empty())
        return kNotFound;
    const std::size_t capacity = slots_.size();
    for (std::size_t slot = slotFor(uint32_t(hash));; slot = slot + 1 == capacity ? 0 : slot + 1) {
        const uint32_t entry = slots_[slot];
        if (entry == 0)
            return kNotFound;
        if (hashes_[entry - 1] == uint32_t(hash) && matches(*nodes_[entry - 1]))
            return entry - 1;
    }
}

void KVNRelativeLookupDict::insert(const KVNFileNodePtr &node)
{
    if (!node)
        return;
    const uint64_t hash = node->lowercaseRelativePathHash();
    const std::size_t existing =
        find(hash, [&node](const KVNFileNode &other) { return other.hasSameLowercaseRelativePath(*node); });
    if (existing != kNotFound) {
        nodes_[existing] = node;
        return;
    }
    if ((nodes_.size() + 1) * 4 > slots_.size() * 3)
        rehash((nodes_.size() + 1) * 2);
    nodes_.push_back(node);
    hashes_.push_back(uint32_t(hash));
    const std::size_t capacity = slots_.size();
    std::size_t slot = slotFor(uint32_t(hash));
    while (slots_[slot] != 0)
        slot = slot + 1 == capacity ? 0 : slot + 1;
    slots_[slot] = uint32_t(nodes_.size());
}

KVNFileNodePtr KVNRelativeLookupDict::value(const QByteArray &lowercaseRelativePath) const
{
    const uint64_t hash = KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, lowercaseRelativePath.constData(),
                                                  lowercaseRelativePath.size());
    const std::size_t index = find(hash, [&lowercaseRelativePath](const KVNFileNode &node) {
        return node.hasLowercaseRelativePath(lowercaseRelativePath);
    });
    return index == kNotFound ? nullptr : nodes_[index];
}

KVNFileNodePtr KVNRelativeLookupDict::valueMatching(const KVNFileNode &node) const
{
    const std::size_t index = find(node.lowercaseRelativePathHash(), [&node](const KVNFileNode &other) {
        return other.hasSameLowercaseRelativePath(node);
    });
    return index == kNotFound ? nullptr : nodes_[index];
}

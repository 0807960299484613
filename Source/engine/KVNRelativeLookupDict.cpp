#include "KVNRelativeLookupDict.h"

#include "KVNPathBytes.h"

namespace {
constexpr std::size_t kNotFound = ~std::size_t(0);
} // namespace

void KVNRelativeLookupDict::reserve(std::size_t count)
{
    nodes_.reserve(count);
    hashes_.reserve(count);
    rehash(count);
}

void KVNRelativeLookupDict::squeeze()
{
    nodes_.shrink_to_fit();
    hashes_.shrink_to_fit();
}

void KVNRelativeLookupDict::rehash(std::size_t count)
{
    std::size_t capacity = 16;
    while (capacity * 3 < count * 4)
        capacity *= 2;
    if (capacity <= slots_.size())
        return;
    slots_.assign(capacity, 0);
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
        std::size_t slot = hashes_[i] & (capacity - 1);
        while (slots_[slot] != 0)
            slot = (slot + 1) & (capacity - 1);
        slots_[slot] = uint32_t(i + 1);
    }
}

template <typename Matches> std::size_t KVNRelativeLookupDict::find(uint64_t hash, Matches matches) const
{
    if (slots_.empty())
        return kNotFound;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = uint32_t(hash) & mask;; slot = (slot + 1) & mask) {
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
        rehash(nodes_.size() * 2 + 1);
    nodes_.push_back(node);
    hashes_.push_back(uint32_t(hash));
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = uint32_t(hash) & mask;
    while (slots_[slot] != 0)
        slot = (slot + 1) & mask;
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

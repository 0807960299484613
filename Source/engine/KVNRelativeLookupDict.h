#pragma once

#include "KVNFileNode.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

// Every node of a scanned tree but its root, by lower-cased relative path. The
// key is derived from each node when needed, never stored: a million paths
// would cost more than the nodes themselves. Iteration goes in insertion order.
//
// Each 32-bit slot holds an index into the nodes and, in the bits the index
// does not need, a tag of the key's hash, so that a probe passes over other
// keys without reaching their nodes. The hashes themselves are kept only while
// the table grows; once squeezed, it holds 8 bytes per node and 4 per slot.
class KVNRelativeLookupDict {
public:
    void reserve(std::size_t count);
    // A node whose key is already present replaces the earlier one, in its place.
    void insert(const KVNFileNodePtr &node);
    // Gives back what growing left unused, the hashes included; for when the
    // table is complete. Inserting afterwards still works, at the cost of
    // hashing every node's key again.
    void squeeze();

    KVNFileNodePtr value(const QByteArray &lowercaseRelativePath) const;
    KVNFileNodePtr operator[](const QByteArray &lowercaseRelativePath) const { return value(lowercaseRelativePath); }
    bool contains(const QByteArray &lowercaseRelativePath) const { return value(lowercaseRelativePath) != nullptr; }
    // The node with the same key as a node of another tree.
    KVNFileNodePtr valueMatching(const KVNFileNode &node) const;

    std::size_t size() const { return nodes_.size(); }
    bool isEmpty() const { return nodes_.empty(); }
    std::vector<KVNFileNodePtr>::const_iterator begin() const { return nodes_.begin(); }
    std::vector<KVNFileNodePtr>::const_iterator end() const { return nodes_.end(); }

private:
    template <typename Matches> std::size_t find(uint32_t hash, Matches matches) const;
    std::size_t slotFor(uint32_t hash) const;
    uint32_t entryFor(uint32_t hash, std::size_t index) const;
    void rehash(std::size_t count);
    void place(uint32_t hash, std::size_t index);

    std::vector<KVNFileNodePtr> nodes_;
    std::vector<uint32_t> hashes_; // each node's folded key hash; only while the table grows
    std::vector<uint32_t> slots_;  // 0 is empty; else the tag above indexBits_ bits of index plus one
    uint8_t indexBits_ = 0;
};

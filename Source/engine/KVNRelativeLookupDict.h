#pragma once

#include "KVNFileNode.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

// Every node of a scanned tree but its root, by lower-cased relative path. The
// key is derived from each node when needed, never stored: a million paths
// would cost more than the nodes themselves. Iteration goes in insertion order.
class KVNRelativeLookupDict {
public:
    void reserve(std::size_t count);
    // A node whose key is already present replaces the earlier one, in its place.
    void insert(const KVNFileNodePtr &node);
    // Gives back what growing left unused, slots included; for when the table is complete.
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
    template <typename Matches> std::size_t find(uint64_t hash, Matches matches) const;
    std::size_t slotFor(uint32_t hash) const;
    void rehash(std::size_t count);

    std::vector<KVNFileNodePtr> nodes_;
    std::vector<uint32_t> hashes_; // low bits of each node's key hash, to skip most comparisons
    std::vector<uint32_t> slots_;  // index into nodes_ plus one; 0 is empty
};

#pragma once

#include "KVNDirDiffTableElement.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

// An ordered list of rows kept in blocks of 512 that lists share until one
// of them changes a block: a copy costs one count per block, not one per row.
// Appending touches only the last block; an edit elsewhere rebuilds the list
// from the block it starts in, a block at a time. Growing never moves what is
// there, so a list holds no room to spare beyond its last block and needs no
// compaction. A list is a value: it is not itself safe to change from two
// threads, but copies of it are independent of each other on any thread.
class KVNRowList {
public:
    using value_type = KVNDirDiffTableElementPtr;
    static constexpr std::size_t kChunkSize = 512;

private:
    struct Chunk;

public:
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = KVNRowList::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = const value_type *;
        using reference = const value_type &;

        const_iterator() = default;
        reference operator*() const { return chunks_[index_ / kChunkSize]->rows[index_ % kChunkSize]; }
        pointer operator->() const { return &**this; }
        const_iterator &operator++()
        {
            ++index_;
            return *this;
        }
        const_iterator operator++(int)
        {
            const_iterator before = *this;
            ++index_;
            return before;
        }
        bool operator==(const const_iterator &other) const { return index_ == other.index_; }
        std::size_t index() const { return index_; }

    private:
        friend class KVNRowList;
        Chunk *const *chunks_ = nullptr;
        std::size_t index_ = 0;
    };

    KVNRowList() = default;
    // Copies the rows; a vector converts wherever a list is asked for.
    KVNRowList(const std::vector<value_type> &rows);
    KVNRowList(const KVNRowList &other);
    KVNRowList(KVNRowList &&other) noexcept;
    KVNRowList &operator=(const KVNRowList &other);
    KVNRowList &operator=(KVNRowList &&other) noexcept;
    ~KVNRowList();

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const value_type &operator[](std::size_t index) const
    {
        return chunks_[index / kChunkSize]->rows[index % kChunkSize];
    }
    const_iterator begin() const { return iteratorAt(0); }
    const_iterator end() const { return iteratorAt(size_); }
    std::vector<value_type> toVector() const;
    bool operator==(const KVNRowList &other) const;

    void append(value_type row);
    void append(const std::vector<value_type> &rows);
    // At index, before the row there; at the end when index is past it.
    void insert(std::size_t index, const value_type &row);
    // The rows, each at its index as insert would put it, given one after
    // another in ascending order of index: the same list in one pass.
    void insertAscending(const std::vector<std::pair<std::size_t, value_type>> &rows);
    // Drops every row for which remove(index, row) is true, calling it once per
    // row in order until one is dropped; gives back how many went.
    template <typename Remove> std::size_t removeIf(Remove remove);
    void clear();
    // The first count rows, sharing the blocks they fill.
    KVNRowList firstRows(std::size_t count) const;
    // Gives back the room the list of blocks grew by.
    void shrinkToFit() { chunks_.shrink_to_fit(); }
    // Whether the two lists hold at least one block in common.
    bool sharesStorageWith(const KVNRowList &other) const;

private:
    struct Chunk {
        std::atomic<uint32_t> references{1};
        value_type rows[kChunkSize];
    };
    friend class const_iterator;

    const_iterator iteratorAt(std::size_t index) const
    {
        const_iterator it;
        it.chunks_ = chunks_.data();
        it.index_ = index;
        return it;
    }
    static bool isShared(const Chunk *chunk) { return chunk->references.load(std::memory_order_acquire) != 1; }
    static void release(Chunk *chunk);
    Chunk *writableLastChunk();
    // Leaves this list the blocks before chunkIndex and gives back the rest.
    KVNRowList takeChunksFrom(std::size_t chunkIndex);
    // Hands every row to take, moved out of blocks no other list holds, and
    // lets each block go once it is done, so rebuilding costs one block at most.
    template <typename Take> void drain(Take take);

    std::vector<Chunk *> chunks_;
    std::size_t size_ = 0;
};

template <typename Take> void KVNRowList::drain(Take take)
{
    std::size_t left = size_;
    for (Chunk *&chunk : chunks_) {
        const std::size_t count = std::min(left, kChunkSize);
        left -= count;
        const bool shared = isShared(chunk);
        for (std::size_t i = 0; i < count; ++i)
            take(shared ? value_type(chunk->rows[i]) : std::move(chunk->rows[i]));
        release(chunk);
        chunk = nullptr;
    }
    chunks_.clear();
    size_ = 0;
}

template <typename Remove> std::size_t KVNRowList::removeIf(Remove remove)
{
    std::size_t first = 0;
    while (first < size_ && !remove(first, (*this)[first]))
        ++first;
    if (first == size_)
        return 0;
    // Blocks before the first row to go stay as they are, shared or not.
    std::size_t index = first / kChunkSize * kChunkSize;
    KVNRowList tail = takeChunksFrom(first / kChunkSize);
    std::size_t removed = 0;
    tail.drain([&](value_type &&row) {
        const std::size_t at = index++;
        if (at == first || (at > first && remove(at, row)))
            ++removed;
        else
            append(std::move(row));
    });
    return removed;
}

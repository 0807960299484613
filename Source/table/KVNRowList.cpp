#include "KVNRowList.h"

#include <algorithm>

KVNRowList::KVNRowList(const std::vector<value_type> &rows)
{
    append(rows);
}

KVNRowList::KVNRowList(const KVNRowList &other) : chunks_(other.chunks_), size_(other.size_)
{
    for (Chunk *chunk : chunks_)
        chunk->references.fetch_add(1, std::memory_order_relaxed);
}

KVNRowList::KVNRowList(KVNRowList &&other) noexcept : chunks_(std::move(other.chunks_)), size_(other.size_)
{
    other.chunks_.clear();
    other.size_ = 0;
}

KVNRowList &KVNRowList::operator=(const KVNRowList &other)
{
    if (this != &other)
        *this = KVNRowList(other);
    return *this;
}

KVNRowList &KVNRowList::operator=(KVNRowList &&other) noexcept
{
    if (this != &other) {
        clear();
        chunks_.swap(other.chunks_);
        std::swap(size_, other.size_);
    }
    return *this;
}

KVNRowList::~KVNRowList()
{
    clear();
}

void KVNRowList::release(Chunk *chunk)
{
    if (chunk && chunk->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete chunk;
}

void KVNRowList::clear()
{
    for (Chunk *chunk : chunks_)
        release(chunk);
    chunks_.clear();
    size_ = 0;
}

std::vector<KVNRowList::value_type> KVNRowList::toVector() const
{
    return std::vector<value_type>(begin(), end());
}

bool KVNRowList::operator==(const KVNRowList &other) const
{
    return size_ == other.size_ && std::equal(begin(), end(), other.begin());
}

// The last block, copied first if another list holds it; a new one when the
// last is full.
KVNRowList::Chunk *KVNRowList::writableLastChunk()
{
    const std::size_t used = size_ % kChunkSize;
    if (used == 0) {
        auto fresh = std::make_unique<Chunk>();
        chunks_.push_back(fresh.get());
        return fresh.release();
    }
    Chunk *&last = chunks_.back();
    if (isShared(last)) {
        auto copy = std::make_unique<Chunk>();
        std::copy(last->rows, last->rows + used, copy->rows);
        release(last);
        last = copy.release();
    }
    return last;
}

void KVNRowList::append(value_type row)
{
    Chunk *last = writableLastChunk();
    last->rows[size_ % kChunkSize] = std::move(row);
    ++size_;
}

void KVNRowList::append(const std::vector<value_type> &rows)
{
    for (std::size_t done = 0; done < rows.size();) {
        Chunk *last = writableLastChunk();
        const std::size_t at = size_ % kChunkSize;
        const std::size_t count = std::min(kChunkSize - at, rows.size() - done);
        std::copy(rows.begin() + done, rows.begin() + done + count, last->rows + at);
        done += count;
        size_ += count;
    }
}

void KVNRowList::insert(std::size_t index, const value_type &row)
{
    if (index >= size_) {
        append(row);
        return;
    }
    std::size_t at = index / kChunkSize * kChunkSize;
    KVNRowList tail = takeChunksFrom(index / kChunkSize);
    tail.drain([&](value_type &&next) {
        if (at++ == index)
            append(row);
        append(std::move(next));
    });
}

void KVNRowList::insertAscending(const std::vector<std::pair<std::size_t, value_type>> &rows)
{
    if (rows.empty())
        return;
    std::size_t next = 0;
    const std::size_t first = std::min(rows.front().first, size_);
    KVNRowList tail = takeChunksFrom(first / kChunkSize);
    // size_ is the index the next row appended gets.
    tail.drain([&](value_type &&old) {
        while (next < rows.size() && rows[next].first <= size_)
            append(rows[next++].second);
        append(std::move(old));
    });
    for (; next < rows.size(); ++next)
        append(rows[next].second);
}

KVNRowList KVNRowList::takeChunksFrom(std::size_t chunkIndex)
{
    KVNRowList tail;
    tail.chunks_.assign(chunks_.begin() + chunkIndex, chunks_.end());
    tail.size_ = size_ - chunkIndex * kChunkSize;
    chunks_.resize(chunkIndex);
    size_ = chunkIndex * kChunkSize;
    return tail;
}

KVNRowList KVNRowList::firstRows(std::size_t count) const
{
    count = std::min(count, size_);
    KVNRowList first;
    const std::size_t whole = count / kChunkSize;
    first.chunks_.assign(chunks_.begin(), chunks_.begin() + whole);
    for (Chunk *chunk : first.chunks_)
        chunk->references.fetch_add(1, std::memory_order_relaxed);
    first.size_ = whole * kChunkSize;
    // The part of a block is copied, so that no list holds rows past its end.
    for (std::size_t i = first.size_; i < count; ++i)
        first.append((*this)[i]);
    return first;
}

bool KVNRowList::sharesStorageWith(const KVNRowList &other) const
{
    for (const Chunk *chunk : chunks_)
        if (std::find(other.chunks_.begin(), other.chunks_.end(), chunk) != other.chunks_.end())
            return true;
    return false;
}

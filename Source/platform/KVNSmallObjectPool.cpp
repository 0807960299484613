#include "KVNSmallObjectPool.h"

#include "KVNTinyLock.h"

#include <cassert>
#include <cstdint>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace KVNSmallObjectPool {
namespace {

// Chunks are aligned to their size, so an object's chunk is its address with
// the low bits cleared.
constexpr std::size_t kChunkSize = 64 * 1024;
constexpr std::size_t kChunkHeader = 64;
constexpr std::size_t kClasses = kMaxSize / 8;

struct FreeObject {
    FreeObject *next;
};

// Sits at the start of its chunk; the objects follow it.
struct Chunk {
    Chunk *previous;
    Chunk *next;          // in its class's list of chunks with room
    FreeObject *freeList; // objects given back
    char *unused;         // objects never handed out start here
    char *end;            // the end of the last whole object
    uint32_t live;
    uint32_t sizeClass;
    bool listed;

    char *firstObject() { return reinterpret_cast<char *>(this) + kChunkHeader; }
    bool hasRoom() const { return freeList || unused != end; }
};
static_assert(sizeof(Chunk) <= kChunkHeader);

// One per size class, each on its own cache line so that two scanners filling
// different classes do not share one. Trivially destructible: objects freed
// during static destruction still find their class.
struct alignas(64) SizeClass {
    KVNTinyLock lock;
    Chunk *withRoom = nullptr;
    Chunk *spare = nullptr; // empty chunks kept against thrashing, linked by next
    std::size_t spares = 0;
    std::size_t chunks = 0;
    std::size_t liveObjects = 0;
};

constinit SizeClass gClasses[kClasses];

std::size_t classOf(std::size_t size)
{
    return size == 0 ? 0 : (size - 1) / 8;
}

std::size_t objectSize(std::size_t sizeClass)
{
    return (sizeClass + 1) * 8;
}

void *mapAligned()
{
    const auto map = [](std::size_t length) {
        void *memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        return static_cast<char *>(memory);
    };
    // The kernel tends to place a mapping right below the last one, so after
    // the first aligned chunk an exact request is usually aligned already.
    char *memory = map(kChunkSize);
    if (reinterpret_cast<std::uintptr_t>(memory) % kChunkSize == 0)
        return memory;
    munmap(memory, kChunkSize);
    char *wide = map(2 * kChunkSize);
    const std::size_t before = (kChunkSize - reinterpret_cast<std::uintptr_t>(wide) % kChunkSize) % kChunkSize;
    if (before != 0)
        munmap(wide, before);
    munmap(wide + before + kChunkSize, kChunkSize - before);
    return wide + before;
}

Chunk *newChunk(std::size_t sizeClass)
{
    auto *chunk = new (mapAligned()) Chunk{};
    const std::size_t size = objectSize(sizeClass);
    chunk->unused = chunk->firstObject();
    chunk->end = chunk->unused + (kChunkSize - kChunkHeader) / size * size;
    chunk->sizeClass = static_cast<uint32_t>(sizeClass);
    return chunk;
}

void link(SizeClass &owner, Chunk *chunk)
{
    chunk->previous = nullptr;
    chunk->next = owner.withRoom;
    if (owner.withRoom)
        owner.withRoom->previous = chunk;
    owner.withRoom = chunk;
    chunk->listed = true;
}

void unlink(SizeClass &owner, Chunk *chunk)
{
    if (chunk->previous)
        chunk->previous->next = chunk->next;
    else
        owner.withRoom = chunk->next;
    if (chunk->next)
        chunk->next->previous = chunk->previous;
    chunk->listed = false;
}

} // namespace

void *allocate(std::size_t size)
{
    if (kPassesThrough || size > kMaxSize)
        return ::operator new(size);
    const std::size_t sizeClass = classOf(size);
    SizeClass &owner = gClasses[sizeClass];
    std::unique_lock guard(owner.lock);
    if (!owner.withRoom) {
        if (Chunk *spare = owner.spare) {
            owner.spare = spare->next;
            --owner.spares;
            link(owner, spare);
        } else {
            // The system call and its page fault happen outside the lock; a
            // chunk another thread added meanwhile simply joins the list.
            guard.unlock();
            Chunk *fresh = newChunk(sizeClass);
            guard.lock();
            ++owner.chunks;
            link(owner, fresh);
        }
    }
    Chunk *chunk = owner.withRoom;
    void *object;
    if (chunk->freeList) {
        object = chunk->freeList;
        chunk->freeList = chunk->freeList->next;
    } else {
        object = chunk->unused;
        chunk->unused += objectSize(sizeClass);
    }
    ++chunk->live;
    ++owner.liveObjects;
    if (!chunk->hasRoom())
        unlink(owner, chunk);
    return object;
}

void deallocate(void *memory, std::size_t size) noexcept
{
    if (!memory)
        return;
    if (kPassesThrough || size > kMaxSize) {
        ::operator delete(memory, size);
        return;
    }
    const std::size_t sizeClass = classOf(size);
    SizeClass &owner = gClasses[sizeClass];
    auto *chunk = reinterpret_cast<Chunk *>(reinterpret_cast<std::uintptr_t>(memory) & ~(kChunkSize - 1));
    assert(chunk->sizeClass == sizeClass && "deallocate was given another size than allocate");
    Chunk *release = nullptr;
    {
        std::lock_guard guard(owner.lock);
        auto *object = static_cast<FreeObject *>(memory);
        object->next = chunk->freeList;
        chunk->freeList = object;
        --owner.liveObjects;
        if (--chunk->live == 0) {
            if (chunk->listed)
                unlink(owner, chunk);
            chunk->freeList = nullptr;
            chunk->unused = chunk->firstObject();
            if (owner.spares < kSpareChunks) {
                chunk->next = owner.spare;
                owner.spare = chunk;
                ++owner.spares;
            } else {
                release = chunk;
                --owner.chunks;
            }
        } else if (!chunk->listed) {
            link(owner, chunk);
        }
    }
    if (release)
        munmap(release, kChunkSize);
}

Usage usage()
{
    Usage total{0, 0, 0};
    for (std::size_t sizeClass = 0; sizeClass < kClasses; ++sizeClass) {
        SizeClass &owner = gClasses[sizeClass];
        std::lock_guard guard(owner.lock);
        total.chunks += owner.chunks;
        total.liveBytes += owner.liveObjects * objectSize(sizeClass);
    }
    total.reservedBytes = total.chunks * kChunkSize;
    return total;
}

} // namespace KVNSmallObjectPool

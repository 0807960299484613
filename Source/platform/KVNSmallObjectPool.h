#pragma once

#include <cstddef>

// Memory for the objects that exist a million times (file nodes, table rows):
// no header in front of each object. Objects live in 64 KiB chunks of one size
// class each; the chunk is found from the address and the class from the size
// the caller passes back, so a caller must give deallocate exactly the size it
// asked allocate for. Chunks whose last object goes are given back to the
// system beyond a few spares, so a closed comparison returns its memory.
//
// Under AddressSanitizer the pool hands everything to ::operator new and
// ::operator delete, so that use-after-free, leaks and a wrong size passed back
// are still caught in the code that uses it.
namespace KVNSmallObjectPool {

inline constexpr std::size_t kMaxSize = 256; // larger requests go to ::operator new
// Empty chunks (64 KiB each) a size class keeps for its next objects: a rescan
// frees a whole fresh tree and builds the next, and mapping and faulting the
// chunks in again would cost more than the scan saves. Beyond this they go back.
inline constexpr std::size_t kSpareChunks = 32;

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kPassesThrough = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kPassesThrough = true;
#else
inline constexpr bool kPassesThrough = false;
#endif
#else
inline constexpr bool kPassesThrough = false;
#endif

// 8-byte aligned, size rounded up to a multiple of 8; throws std::bad_alloc.
void *allocate(std::size_t size);
// The same size that was asked for.
void deallocate(void *memory, std::size_t size) noexcept;

// Figures for benchmarks and tests: bytes in chunks held from the system, and
// bytes handed out (both zero when the pool passes through).
struct Usage {
    std::size_t reservedBytes;
    std::size_t liveBytes;
    std::size_t chunks;
};
Usage usage();

} // namespace KVNSmallObjectPool

// A base that makes a class's new and delete go to the pool.
struct KVNPooled {
    static void *operator new(std::size_t size) { return KVNSmallObjectPool::allocate(size); }
    static void operator delete(void *memory, std::size_t size) noexcept
    {
        KVNSmallObjectPool::deallocate(memory, size);
    }
};

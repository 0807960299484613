#pragma once

#include <cstddef>

// Memory for the objects that exist a million times (file nodes, table rows):
// no header in front of each object. Objects live in 64 KiB chunks of one size
// class each; the chunk is found from the address and the class from the size
// the caller passes back, so a caller must give deallocate exactly the size it
// asked allocate for. A chunk whose last object goes is given back to the
// system, so a closed comparison returns its memory.
//
// Under AddressSanitizer the pool hands everything to ::operator new and
// ::operator delete, so that use-after-free, leaks and a wrong size passed back
// are still caught in the code that uses it.
namespace KVNSmallObjectPool {

inline constexpr std::size_t kMaxSize = 256; // larger requests go to ::operator new

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

#include "KVNCrc32.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <string_view>

namespace {

constexpr uint32_t kReflectedPolynomial = 0xEDB88320u;

// tables[k][b] is the register after byte b followed by k zero bytes, so sixteen
// bytes can be looked up independently and combined with xor.
using SliceTables = std::array<std::array<uint32_t, 256>, 16>;

constexpr SliceTables makeSliceTables()
{
    SliceTables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t reg = byte;
        for (int bit = 0; bit < 8; ++bit)
            reg = (reg >> 1) ^ ((reg & 1u) ? kReflectedPolynomial : 0u);
        tables[0][byte] = reg;
    }
    for (std::size_t k = 1; k < tables.size(); ++k) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const uint32_t previous = tables[k - 1][byte];
            tables[k][byte] = (previous >> 8) ^ tables[0][previous & 0xffu];
        }
    }
    return tables;
}

constexpr SliceTables kTables = makeSliceTables();
static_assert(kTables[0][1] == 0x77073096u && kTables[0][255] == 0x2D02EF8Du);

inline uint32_t loadLittleEndian32(const unsigned char *p)
{
    uint32_t value;
    std::memcpy(&value, p, sizeof value);
    if constexpr (std::endian::native == std::endian::big)
        value = __builtin_bswap32(value);
    return value;
}

inline uint32_t slice4(uint32_t word, int table)
{
    return kTables[table][word & 0xffu] ^ kTables[table - 1][(word >> 8) & 0xffu] ^
           kTables[table - 2][(word >> 16) & 0xffu] ^ kTables[table - 3][word >> 24];
}

// Every kernel, and what it needs from the processor.
struct Implementation {
    const char *name;
    KVNCrc32::detail::Kernel kernel;
    bool (*supported)();
};

bool always()
{
    return true;
}

constexpr Implementation kImplementations[] = {
#if defined(__x86_64__)
    {"vpclmul", KVNCrc32::detail::vpclmulKernel, KVNCrc32::detail::cpuHasVpclmul},
    {"vpclmul256", KVNCrc32::detail::vpclmul256Kernel, KVNCrc32::detail::cpuHasVpclmul256},
    {"pclmul", KVNCrc32::detail::pclmulKernel, KVNCrc32::detail::cpuHasPclmul},
#endif
    {"portable", KVNCrc32::detail::portableKernel, always},
};

const Implementation *bestImplementation()
{
    // Ordered best first; the portable kernel always qualifies.
    for (const Implementation &candidate : kImplementations) {
        if (candidate.supported())
            return &candidate;
    }
    return &kImplementations[std::size(kImplementations) - 1];
}

// Null until first use; a race to resolve it is harmless since every thread
// picks the same entry.
constinit std::atomic<const Implementation *> gActive{nullptr};

inline const Implementation &active()
{
    const Implementation *implementation = gActive.load(std::memory_order_acquire);
    if (implementation) [[likely]]
        return *implementation;
    const Implementation *best = bestImplementation();
    if (gActive.compare_exchange_strong(implementation, best, std::memory_order_acq_rel))
        return *best;
    return *implementation; // selectImplementation() got there first
}

inline const unsigned char *bytes(const void *data)
{
    return static_cast<const unsigned char *>(data);
}

// Bounds the time between two looks at a cancel flag (microseconds at the
// speed of the folding kernels) while keeping the per-slice setup negligible.
constexpr std::size_t kCancelSlice = 64 * 1024;

} // namespace

namespace KVNCrc32 {

uint32_t detail::portableKernel(uint32_t state, const unsigned char *p, std::size_t length)
{
    while (length >= 16) {
        const uint32_t a = loadLittleEndian32(p) ^ state;
        const uint32_t b = loadLittleEndian32(p + 4);
        const uint32_t c = loadLittleEndian32(p + 8);
        const uint32_t d = loadLittleEndian32(p + 12);
        state = slice4(a, 15) ^ slice4(b, 11) ^ slice4(c, 7) ^ slice4(d, 3);
        p += 16;
        length -= 16;
    }
    if (length >= 8) {
        const uint32_t a = loadLittleEndian32(p) ^ state;
        const uint32_t b = loadLittleEndian32(p + 4);
        state = slice4(a, 7) ^ slice4(b, 3);
        p += 8;
        length -= 8;
    }
    while (length--)
        state = (state >> 8) ^ kTables[0][(state ^ *p++) & 0xffu];
    return state;
}

uint32_t crc32(const void *data, std::size_t length)
{
    return update(0, data, length);
}

uint32_t update(uint32_t crc, const void *data, std::size_t length)
{
    if (!data)
        return crc;
    return ~active().kernel(~crc, bytes(data), length);
}

void crc32Blocks(const void *data, std::size_t length, uint32_t *out)
{
    if (!data || !out)
        return;
    // One look-up of the kernel for the whole extent; consecutive blocks are
    // independent, so the processor overlaps one block's reduction with the
    // next block's folding without help.
    const detail::Kernel kernel = active().kernel;
    const unsigned char *p = bytes(data);
    while (length > 0) {
        const std::size_t size = std::min(length, kBlockSize);
        *out++ = ~kernel(~0u, p, size);
        p += size;
        length -= size;
    }
}

uint32_t crc32WithCancelFlag(const void *data, std::size_t length, const volatile unsigned char *cancelFlag)
{
    if (!cancelFlag)
        return crc32(data, length);
    if (!data)
        length = 0;
    const detail::Kernel kernel = active().kernel;
    const unsigned char *p = bytes(data);
    uint32_t state = ~0u;
    do {
        if (*cancelFlag)
            return 0;
        const std::size_t size = std::min(length, kCancelSlice);
        state = kernel(state, p, size);
        p += size;
        length -= size;
    } while (length > 0);
    return ~state;
}

uint32_t crc32FirstPageWithCancelFlag(const void *data, std::size_t length, const volatile unsigned char *cancelFlag)
{
    if (cancelFlag && *cancelFlag)
        return 0;
    return crc32(data, std::min(length, kBlockSize));
}

uint32_t reference(const void *data, std::size_t length)
{
    if (!data)
        return 0;
    const unsigned char *p = bytes(data);
    uint32_t state = ~0u;
    for (std::size_t i = 0; i < length; ++i)
        state = (state >> 8) ^ kTables[0][(state ^ p[i]) & 0xffu];
    return ~state;
}

const char *implementationName()
{
    return active().name;
}

bool selectImplementation(const char *name)
{
    if (!name)
        return false;
    const std::string_view wanted(name);
    if (wanted == "auto") {
        gActive.store(bestImplementation(), std::memory_order_release);
        return true;
    }
    for (const Implementation &candidate : kImplementations) {
        if (wanted == candidate.name) {
            if (!candidate.supported())
                return false;
            gActive.store(&candidate, std::memory_order_release);
            return true;
        }
    }
    return false;
}

} // namespace KVNCrc32

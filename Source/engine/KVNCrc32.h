#pragma once

#include <cstddef>
#include <cstdint>

// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320, start value all ones,
// result inverted): crc32("123456789") == 0xCBF43926, crc32 of nothing == 0.
//
// Every byte of both compared trees goes through here, one 4,096-byte block at
// a time, so the kernel is chosen once at run time: a carry-less-multiply
// folding kernel where the processor has one, slicing-by-16 tables otherwise.
// All functions are thread-safe. A null data pointer counts as empty data.
namespace KVNCrc32 {

// The comparison's unit: one checksum per block of this many bytes.
inline constexpr std::size_t kBlockSize = 4096;

// How many entries crc32Blocks writes for a buffer of this length.
constexpr std::size_t blockCount(std::size_t length)
{
    return (length + kBlockSize - 1) / kBlockSize;
}

uint32_t crc32(const void *data, std::size_t length);

// Streaming: crc32(a + b) == update(crc32(a), b), and update(0, x) == crc32(x).
uint32_t update(uint32_t crc, const void *data, std::size_t length);

// Writes the checksum of each consecutive kBlockSize block (the last one may be
// shorter) to out[0 .. blockCount(length) - 1]. Nothing is written for length 0.
void crc32Blocks(const void *data, std::size_t length, uint32_t *out);

// Tests the flag before every bounded slice of the buffer and answers 0 at
// once when it is set. A null flag never cancels.
uint32_t crc32WithCancelFlag(const void *data, std::size_t length, const volatile unsigned char *cancelFlag);

// Checksum of the first kBlockSize bytes (all of them when there are fewer).
// The flag is tested once, before; a set flag or empty data gives 0.
uint32_t crc32FirstPageWithCancelFlag(const void *data, std::size_t length, const volatile unsigned char *cancelFlag);

// One byte at a time from a single table: slow, simple, and the yardstick the
// tests hold the fast kernels to.
uint32_t reference(const void *data, std::size_t length);

// The kernel in use: "portable", "pclmul" (128-bit), "vpclmul256" (AVX2) or
// "vpclmul" (AVX-512).
const char *implementationName();

// For tests and benchmarks: "auto" (the best this machine has) or one of the
// kernel names above. Answers false, and changes nothing, when the name is
// unknown or the machine cannot run that kernel.
bool selectImplementation(const char *name);

// Shared between the dispatcher and the kernel units; not for callers.
namespace detail {
// All kernels work on the running register, i.e. the complement of the result.
using Kernel = uint32_t (*)(uint32_t state, const unsigned char *data, std::size_t length);

uint32_t portableKernel(uint32_t state, const unsigned char *data, std::size_t length);

#if defined(__x86_64__)
bool cpuHasPclmul();
bool cpuHasVpclmul256();
bool cpuHasVpclmul();
uint32_t pclmulKernel(uint32_t state, const unsigned char *data, std::size_t length);
uint32_t vpclmul256Kernel(uint32_t state, const unsigned char *data, std::size_t length);
uint32_t vpclmulKernel(uint32_t state, const unsigned char *data, std::size_t length);
#endif
} // namespace detail

} // namespace KVNCrc32

// Carry-less-multiply folding kernels for x86-64. Each function carries its own
// target attribute, so the rest of the program still builds for baseline
// x86-64 and only runs this code after the dispatcher has asked the processor.
#include "KVNCrc32.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

namespace {

// Folding works on 128-bit lanes whose bit i is the message bit i, i.e. the
// coefficient of the highest power first. Moving a lane forward over D bits is
// a multiplication by x^D mod P; split into its two 64-bit halves that is
// low * (x^(D+32) mod P) + high * (x^(D-32) mod P), each constant bit-reflected
// and shifted by one so that the 64x33-bit product lands aligned for the xor.
constexpr uint64_t reflectedPowerOfX(unsigned exponent)
{
    uint32_t reg = 0x80000000u; // x^0
    for (unsigned i = 0; i < exponent; ++i)
        reg = (reg >> 1) ^ ((reg & 1u) ? 0xEDB88320u : 0u);
    return uint64_t(reg) << 1;
}

struct FoldPair {
    uint64_t low;
    uint64_t high;
};

constexpr FoldPair foldOver(unsigned bits)
{
    return {reflectedPowerOfX(bits + 32), reflectedPowerOfX(bits - 32)};
}

constexpr FoldPair kFold128 = foldOver(128);
constexpr FoldPair kFold256 = foldOver(256);
constexpr FoldPair kFold384 = foldOver(384);
constexpr FoldPair kFold512 = foldOver(512);
constexpr FoldPair kFold768 = foldOver(768);
constexpr FoldPair kFold1024 = foldOver(1024);
constexpr FoldPair kFold1536 = foldOver(1536);
constexpr FoldPair kFold2048 = foldOver(2048);

// The last 128 bits become 32: two folds (x^96, x^64) and a Barrett reduction
// with mu = floor(x^64 / P) and P itself, both as 33-bit reflected values.
constexpr uint64_t kReduce96 = reflectedPowerOfX(96);
constexpr uint64_t kReduce64 = reflectedPowerOfX(64);
constexpr uint64_t kBarrettMu = 0x1F7011641u;
constexpr uint64_t kBarrettPolynomial = 0x1DB710641u;

// The widely published values for these distances; a wrong derivation fails here.
static_assert(kFold512.low == 0x154442BD4u && kFold512.high == 0x1C6E41596u);
static_assert(kFold128.low == 0x1751997D0u && kFold128.high == 0x0CCAA009Eu);
static_assert(kReduce64 == 0x163CD6124u);

#define KVN_PCLMUL_TARGET __attribute__((target("pclmul,sse4.1")))
// Helpers are forced inline so that the wide kernel gets them in its own
// (VEX) encoding instead of calling legacy-SSE code with dirty upper registers.
#define KVN_PCLMUL_INLINE __attribute__((target("pclmul,sse4.1"), always_inline)) inline
#define KVN_VPCLMUL256_TARGET __attribute__((target("avx2,vpclmulqdq,pclmul,sse4.1")))
#define KVN_VPCLMUL256_INLINE __attribute__((target("avx2,vpclmulqdq,pclmul,sse4.1"), always_inline)) inline
#define KVN_VPCLMUL_TARGET __attribute__((target("avx512f,avx512vl,avx512bw,vpclmulqdq,pclmul,sse4.1")))
#define KVN_VPCLMUL_INLINE                                                                                             \
    __attribute__((target("avx512f,avx512vl,avx512bw,vpclmulqdq,pclmul,sse4.1"), always_inline)) inline

KVN_PCLMUL_INLINE __m128i load128(const unsigned char *p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

KVN_PCLMUL_INLINE __m128i pair128(FoldPair pair)
{
    return _mm_set_epi64x(static_cast<long long>(pair.high), static_cast<long long>(pair.low));
}

KVN_PCLMUL_INLINE __m128i fold128(__m128i lane, __m128i constants)
{
    return _mm_xor_si128(_mm_clmulepi64_si128(lane, constants, 0x00), _mm_clmulepi64_si128(lane, constants, 0x11));
}

KVN_PCLMUL_INLINE uint32_t reduce128(__m128i lane)
{
    const __m128i low32 = _mm_set_epi32(0, 0, 0, -1);
    const __m128i folds = _mm_set_epi64x(static_cast<long long>(kReduce64), static_cast<long long>(kReduce96));
    const __m128i barrett =
        _mm_set_epi64x(static_cast<long long>(kBarrettPolynomial), static_cast<long long>(kBarrettMu));
    // 128 -> 96 bits: the low half times x^96, the high half moves down.
    __m128i t = _mm_xor_si128(_mm_clmulepi64_si128(lane, folds, 0x00), _mm_srli_si128(lane, 8));
    // 96 -> 64 bits: the first 32 bits times x^64, the other 64 move down.
    t = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(t, low32), folds, 0x10), _mm_srli_si128(t, 4));
    // Barrett: the quotient is the low 32 bits of (first 32 bits) * mu, and the
    // remainder is what q * P leaves in bits 32..63.
    const __m128i quotient = _mm_clmulepi64_si128(_mm_and_si128(t, low32), barrett, 0x00);
    const __m128i remainder = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(quotient, low32), barrett, 0x10), t);
    return static_cast<uint32_t>(_mm_extract_epi32(remainder, 1));
}

// Folds whole 16-byte lanes into `lane` (which already holds the first 16
// bytes, register mixed in), then reduces and finishes the last < 16 bytes.
KVN_PCLMUL_INLINE uint32_t finishNarrow(__m128i lane, const unsigned char *p, std::size_t length)
{
    const __m128i k128 = pair128(kFold128);
    while (length >= 16) {
        lane = _mm_xor_si128(fold128(lane, k128), load128(p));
        p += 16;
        length -= 16;
    }
    const uint32_t state = reduce128(lane);
    return length ? KVNCrc32::detail::portableKernel(state, p, length) : state;
}

// Four independent lanes of 64 bytes per step hide the multiply latency; they
// meet at the end with one fold each over their distance to the last lane.
KVN_PCLMUL_INLINE uint32_t narrowKernel(uint32_t state, const unsigned char *p, std::size_t length)
{
    if (length < 16)
        return KVNCrc32::detail::portableKernel(state, p, length);
    __m128i x0 = _mm_xor_si128(load128(p), _mm_cvtsi32_si128(static_cast<int>(state)));
    if (length < 64)
        return finishNarrow(x0, p + 16, length - 16);
    __m128i x1 = load128(p + 16);
    __m128i x2 = load128(p + 32);
    __m128i x3 = load128(p + 48);
    p += 64;
    length -= 64;
    const __m128i k512 = pair128(kFold512);
    while (length >= 64) {
        x0 = _mm_xor_si128(fold128(x0, k512), load128(p));
        x1 = _mm_xor_si128(fold128(x1, k512), load128(p + 16));
        x2 = _mm_xor_si128(fold128(x2, k512), load128(p + 32));
        x3 = _mm_xor_si128(fold128(x3, k512), load128(p + 48));
        p += 64;
        length -= 64;
    }
    x0 = _mm_xor_si128(_mm_xor_si128(fold128(x0, pair128(kFold384)), fold128(x1, pair128(kFold256))),
                       _mm_xor_si128(fold128(x2, pair128(kFold128)), x3));
    return finishNarrow(x0, p, length);
}

KVN_VPCLMUL256_INLINE __m256i load256(const unsigned char *p)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

KVN_VPCLMUL256_INLINE __m256i pair256(FoldPair pair)
{
    const auto low = static_cast<long long>(pair.low), high = static_cast<long long>(pair.high);
    return _mm256_set_epi64x(high, low, high, low);
}

KVN_VPCLMUL256_INLINE __m256i fold256Into(__m256i lanes, __m256i constants, __m256i next)
{
    return _mm256_xor_si256(_mm256_xor_si256(_mm256_clmulepi64_epi128(lanes, constants, 0x00),
                                             _mm256_clmulepi64_epi128(lanes, constants, 0x11)),
                            next);
}

// The same shape with 256-bit registers, for processors that multiply eight
// lanes per step without AVX-512 (or with it switched off).
KVN_VPCLMUL256_INLINE uint32_t mediumKernel(uint32_t state, const unsigned char *p, std::size_t length)
{
    if (length < 128)
        return narrowKernel(state, p, length);
    __m256i y0 = _mm256_xor_si256(load256(p), _mm256_set_epi32(0, 0, 0, 0, 0, 0, 0, static_cast<int>(state)));
    __m256i y1 = load256(p + 32);
    __m256i y2 = load256(p + 64);
    __m256i y3 = load256(p + 96);
    p += 128;
    length -= 128;
    const __m256i k1024 = pair256(kFold1024);
    while (length >= 128) {
        y0 = fold256Into(y0, k1024, load256(p));
        y1 = fold256Into(y1, k1024, load256(p + 32));
        y2 = fold256Into(y2, k1024, load256(p + 64));
        y3 = fold256Into(y3, k1024, load256(p + 96));
        p += 128;
        length -= 128;
    }
    const __m256i k256 = pair256(kFold256);
    y2 = fold256Into(y2, k256, y3);
    y0 = fold256Into(y0, pair256(kFold768), y2);
    __m256i y = fold256Into(y1, pair256(kFold512), y0);
    while (length >= 32) {
        y = fold256Into(y, k256, load256(p));
        p += 32;
        length -= 32;
    }
    const __m128i lane =
        _mm_xor_si128(fold128(_mm256_castsi256_si128(y), pair128(kFold128)), _mm256_extracti128_si256(y, 1));
    return finishNarrow(lane, p, length);
}

KVN_VPCLMUL_INLINE __m512i load512(const unsigned char *p)
{
    return _mm512_loadu_si512(p);
}

// Intrinsics that start from an undefined register trip -Wmaybe-uninitialized
// in this compiler's headers; plain sets and zero-masked forms do not.
KVN_VPCLMUL_INLINE __m512i pair512(FoldPair pair)
{
    const auto low = static_cast<long long>(pair.low), high = static_cast<long long>(pair.high);
    return _mm512_set_epi64(high, low, high, low, high, low, high, low);
}

// lane * x^D xor next, as one three-way xor.
KVN_VPCLMUL_INLINE __m512i fold512Into(__m512i lanes, __m512i constants, __m512i next)
{
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(lanes, constants, 0x00),
                                     _mm512_clmulepi64_epi128(lanes, constants, 0x11), next, 0x96);
}

// Sixteen lanes (four 512-bit registers, 256 bytes) per step. Below 256 bytes
// the setup would not pay off, and the narrow kernel handles it.
KVN_VPCLMUL_INLINE uint32_t wideKernel(uint32_t state, const unsigned char *p, std::size_t length)
{
    if (length < 256)
        return narrowKernel(state, p, length);
    __m512i z0 = _mm512_xor_si512(load512(p), _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(state))));
    __m512i z1 = load512(p + 64);
    __m512i z2 = load512(p + 128);
    __m512i z3 = load512(p + 192);
    p += 256;
    length -= 256;
    const __m512i k2048 = pair512(kFold2048);
    while (length >= 256) {
        z0 = fold512Into(z0, k2048, load512(p));
        z1 = fold512Into(z1, k2048, load512(p + 64));
        z2 = fold512Into(z2, k2048, load512(p + 128));
        z3 = fold512Into(z3, k2048, load512(p + 192));
        p += 256;
        length -= 256;
    }
    const __m512i k512 = pair512(kFold512);
    z2 = fold512Into(z2, k512, z3);
    z0 = fold512Into(z0, pair512(kFold1536), z2);
    __m512i z = fold512Into(z1, pair512(kFold1024), z0);
    while (length >= 64) {
        z = fold512Into(z, k512, load512(p));
        p += 64;
        length -= 64;
    }
    // Four lanes to one: each lane folds over its distance to the last lane.
    const __m512i toLast =
        _mm512_set_epi64(0, 0, static_cast<long long>(kFold128.high), static_cast<long long>(kFold128.low),
                         static_cast<long long>(kFold256.high), static_cast<long long>(kFold256.low),
                         static_cast<long long>(kFold384.high), static_cast<long long>(kFold384.low));
    const __m512i folded = fold512Into(z, toLast, _mm512_maskz_mov_epi64(0xC0, z));
    const __m256i halves = _mm256_xor_si256(_mm512_maskz_extracti64x4_epi64(0xF, folded, 0),
                                            _mm512_maskz_extracti64x4_epi64(0xF, folded, 1));
    const __m128i lane = _mm_xor_si128(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1));
    return finishNarrow(lane, p, length);
}

struct CpuFeatures {
    bool pclmul = false;
    bool vpclmul256 = false;
    bool vpclmul = false;
};

CpuFeatures detectFeatures()
{
    CpuFeatures features;
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return features;
    constexpr unsigned kPclmul = 1u << 1, kSse41 = 1u << 19, kOsXsave = 1u << 27;
    features.pclmul = (ecx & kPclmul) && (ecx & kSse41);
    if (!features.pclmul || !(ecx & kOsXsave))
        return features;
    const bool avx = ecx & (1u << 28);
    // The processor may have wide registers that the operating system does not
    // save; only XCR0 says which register state is usable.
    unsigned xcr0Low = 0, xcr0High = 0;
    __asm__ volatile("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
    constexpr unsigned kSseAvx = 0x06, kSseAvxOpmaskZmm = 0xE6; // + opmask, ZMM_Hi256, Hi16_ZMM
    const bool ymmState = avx && (xcr0Low & kSseAvx) == kSseAvx;
    const bool zmmState = ymmState && (xcr0Low & kSseAvxOpmaskZmm) == kSseAvxOpmaskZmm;
    if (!ymmState || !__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx))
        return features;
    constexpr unsigned kAvx2 = 1u << 5, kAvx512F = 1u << 16, kAvx512Bw = 1u << 30, kAvx512Vl = 1u << 31;
    constexpr unsigned kVpclmul = 1u << 10;
    features.vpclmul256 = (ebx & kAvx2) && (ecx & kVpclmul);
    features.vpclmul = features.vpclmul256 && zmmState && (ebx & kAvx512F) && (ebx & kAvx512Bw) && (ebx & kAvx512Vl);
    return features;
}

const CpuFeatures &cpuFeatures()
{
    static const CpuFeatures features = detectFeatures();
    return features;
}

} // namespace

namespace KVNCrc32::detail {

bool cpuHasPclmul()
{
    return cpuFeatures().pclmul;
}

bool cpuHasVpclmul256()
{
    return cpuFeatures().vpclmul256;
}

bool cpuHasVpclmul()
{
    return cpuFeatures().vpclmul;
}

KVN_PCLMUL_TARGET uint32_t pclmulKernel(uint32_t state, const unsigned char *data, std::size_t length)
{
    return narrowKernel(state, data, length);
}

KVN_VPCLMUL256_TARGET uint32_t vpclmul256Kernel(uint32_t state, const unsigned char *data, std::size_t length)
{
    return mediumKernel(state, data, length);
}

KVN_VPCLMUL_TARGET uint32_t vpclmulKernel(uint32_t state, const unsigned char *data, std::size_t length)
{
    return wideKernel(state, data, length);
}

} // namespace KVNCrc32::detail

#endif // __x86_64__

// CRC-32 throughput: one 4 KiB block per call (as a comparison checks a
// block), and a 256 KiB extent cut into block checksums (as one read brings
// them in), for the kernel chosen at run time and for every kernel this
// machine can run.
#include "KVNCrc32.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> randomBytes(std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    uint64_t state = 0x243F6A8885A308D3ull;
    for (auto &byte : bytes) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        byte = static_cast<unsigned char>(state >> 56);
    }
    return bytes;
}

void selectOrSkip(benchmark::State &state, const char *kernel)
{
    if (!KVNCrc32::selectImplementation(kernel))
        state.SkipWithError("kernel not available here");
    state.SetLabel(KVNCrc32::implementationName());
}

void crc32Block(benchmark::State &state, const char *kernel)
{
    selectOrSkip(state, kernel);
    const auto data = randomBytes(KVNCrc32::kBlockSize);
    for (auto _ : state)
        benchmark::DoNotOptimize(KVNCrc32::crc32(data.data(), data.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
    KVNCrc32::selectImplementation("auto");
}

void crc32Extent(benchmark::State &state, const char *kernel)
{
    selectOrSkip(state, kernel);
    const auto data = randomBytes(256 * 1024);
    std::vector<uint32_t> sums(KVNCrc32::blockCount(data.size()));
    for (auto _ : state) {
        KVNCrc32::crc32Blocks(data.data(), data.size(), sums.data());
        benchmark::DoNotOptimize(sums.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
    KVNCrc32::selectImplementation("auto");
}

} // namespace

int main(int argc, char **argv)
{
    // Only the kernels this processor runs; "auto" is the one a comparison uses.
    for (const char *kernel : {"auto", "portable", "pclmul", "vpclmul256", "vpclmul"}) {
        if (!KVNCrc32::selectImplementation(kernel))
            continue;
        benchmark::RegisterBenchmark((std::string("crc32/4KiB-block/") + kernel).c_str(), crc32Block, kernel);
        benchmark::RegisterBenchmark((std::string("crc32/256KiB-extent/") + kernel).c_str(), crc32Extent, kernel);
    }
    KVNCrc32::selectImplementation("auto");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

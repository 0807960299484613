// The small-object pool against ::operator new: allocate a batch and free it
// again, for the sizes of a row and a typical node, on one thread and on two
// at once (two scanners). A batch of 512 stays within one chunk; one of 8192
// empties about ten chunks a round, which go back to the system and are
// mapped again, the pool's worst case. Printed before the runs: what a
// million 77-byte objects cost in memory each way.
#include "KVNSmallObjectPool.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <malloc.h>
#include <new>
#include <string>
#include <vector>

namespace {

struct Pool {
    static void *allocate(std::size_t size) { return KVNSmallObjectPool::allocate(size); }
    static void deallocate(void *memory, std::size_t size) { KVNSmallObjectPool::deallocate(memory, size); }
};

struct Malloc {
    static void *allocate(std::size_t size) { return ::operator new(size); }
    static void deallocate(void *memory, std::size_t size) { ::operator delete(memory, size); }
};

// A batch made and then freed, in the order a scan and a close would.
template <typename Allocator> void allocateAndFree(benchmark::State &state)
{
    const auto size = std::size_t(state.range(0));
    std::vector<void *> objects(std::size_t(state.range(1)));
    for (auto _ : state) {
        for (auto &object : objects) {
            object = Allocator::allocate(size);
            benchmark::DoNotOptimize(object);
        }
        for (void *object : objects)
            Allocator::deallocate(object, size);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(1));
}

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return 0;
}

template <typename Allocator, typename Reserved> void printFootprint(const char *name, Reserved reserved)
{
    constexpr std::size_t kCount = 1'000'000;
    constexpr std::size_t kSize = 77;
    const long residentBefore = residentKiB();
    std::vector<void *> objects(kCount);
    const std::size_t reservedBefore = reserved();
    const long residentVector = residentKiB();
    for (auto &object : objects) {
        object = Allocator::allocate(kSize);
        std::memset(object, 0xA5, kSize);
    }
    const double perObject = double(reserved() - reservedBefore) / kCount;
    const double residentPerObject = double(residentKiB() - residentVector) * 1024 / kCount;
    for (void *object : objects)
        Allocator::deallocate(object, kSize);
    std::vector<void *>().swap(objects);
    malloc_trim(0);
    std::printf("%-8s 1,000,000 x %zu B: %.1f bytes reserved per object, %.1f bytes resident per object, "
                "%.1f MiB still resident after freeing\n",
                name, kSize, perObject, residentPerObject, double(residentKiB() - residentBefore) / 1024);
}

} // namespace

int main(int argc, char **argv)
{
    if (KVNSmallObjectPool::kPassesThrough)
        std::printf("note: the pool passes through to ::operator new in this build\n");
    printFootprint<Pool>("pool", [] { return KVNSmallObjectPool::usage().reservedBytes; });
    printFootprint<Malloc>("malloc", [] {
        const struct mallinfo2 info = mallinfo2();
        return info.arena + info.hblkhd;
    });

    for (int64_t batch : {512, 8192}) {
        for (int64_t size : {80, 96}) {
            for (int threads : {1, 2}) {
                benchmark::RegisterBenchmark("pool/allocate+free", allocateAndFree<Pool>)
                    ->Args({size, batch})
                    ->Threads(threads);
                benchmark::RegisterBenchmark("new/allocate+free", allocateAndFree<Malloc>)
                    ->Args({size, batch})
                    ->Threads(threads);
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

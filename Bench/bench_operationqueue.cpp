// The queue's cost per operation: N operations with empty bodies, added at
// once and waited for; and the same with a barrier that depends on all of
// them, the shape a comparison gives its file compares.
#include "KVNOperationQueue.h"

#include <benchmark/benchmark.h>

#include <atomic>

namespace {

std::vector<KVNOperationPtr> trivialOperations(std::size_t count, std::atomic<int64_t> &ran)
{
    std::vector<KVNOperationPtr> operations;
    operations.reserve(count + 1);
    for (std::size_t i = 0; i < count; ++i)
        operations.push_back(KVNBlockOperation::make([&ran](KVNBlockOperation &) { ran.fetch_add(1); }));
    return operations;
}

void trivial(benchmark::State &state, bool withBarrier)
{
    const auto count = std::size_t(state.range(0));
    KVNOperationQueue queue;
    queue.setMaxConcurrentOperationCount(KVNOperationQueue::KVNOperationQueueDefaultMaxConcurrentOperationCount);
    std::atomic<int64_t> ran{0};
    for (auto _ : state) {
        auto operations = trivialOperations(count, ran);
        if (withBarrier) {
            auto barrier = std::make_shared<KVNOperation>();
            for (const auto &operation : operations)
                barrier->addDependency(operation);
            operations.push_back(barrier);
        }
        queue.addOperations(operations);
        queue.waitUntilAllOperationsAreFinished();
    }
    if (ran.load() != int64_t(state.iterations()) * int64_t(count))
        state.SkipWithError("not every operation ran");
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
}

} // namespace

BENCHMARK_CAPTURE(trivial, operations, false)->RangeMultiplier(10)->Range(100, 100000)->UseRealTime();
BENCHMARK_CAPTURE(trivial, operations_then_barrier, true)->RangeMultiplier(10)->Range(100, 100000)->UseRealTime();

BENCHMARK_MAIN();

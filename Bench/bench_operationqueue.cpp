// The queue's cost per operation: N operations with empty bodies, added at
// once and waited for; the same with a barrier that depends on all of them;
// and the shape a comparison gives its file compares, the operations made by
// feeders a window at a time behind a barrier queued from the start, with the
// most operations the queue held at once.
#include "KVNOperationQueue.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <functional>

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

void windowed(benchmark::State &state)
{
    const auto count = std::size_t(state.range(0));
    const auto window = std::size_t(state.range(1));
    KVNOperationQueue queue;
    std::atomic<int64_t> ran{0};
    std::atomic<std::size_t> mostLive{0};
    queue.setOperationCountObserver([&mostLive](std::size_t now, std::size_t) {
        for (std::size_t seen = mostLive; now > seen && !mostLive.compare_exchange_weak(seen, now);) {
        }
    });
    for (auto _ : state) {
        auto barrier = std::make_shared<KVNOperation>();
        std::size_t made = 0;
        std::function<void()> feed = [&] {
            auto operations = trivialOperations(std::min(window, count - made), ran);
            made += operations.size();
            for (const auto &operation : operations)
                barrier->addDependency(operation);
            queue.addOperations(operations);
            if (made < count) {
                auto next = KVNBlockOperation::make([&feed](KVNBlockOperation &) { feed(); });
                barrier->addDependency(next);
                queue.addOperation(next);
            }
        };
        auto first = KVNBlockOperation::make([&feed](KVNBlockOperation &) { feed(); });
        barrier->addDependency(first);
        queue.addOperations({barrier, first});
        queue.waitUntilAllOperationsAreFinished();
    }
    if (ran.load() != int64_t(state.iterations()) * int64_t(count))
        state.SkipWithError("not every operation ran");
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
    state.counters["most_live"] = double(mostLive.load());
}

} // namespace

BENCHMARK(windowed)->Args({100000, 2048})->Args({1000000, 2048})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(trivial, operations, false)->RangeMultiplier(10)->Range(100, 100000)->UseRealTime();
BENCHMARK_CAPTURE(trivial, operations_then_barrier, true)->RangeMultiplier(10)->Range(100, 100000)->UseRealTime();

BENCHMARK_MAIN();

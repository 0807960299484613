// The array controllers as a comparison uses them: a table built in the
// batcher's batches and compacted, its content handed to the filtered
// controller, a snapshot of its rows, the front-of-table edits of a
// reconciliation, and its runs of edits when a subtree went and came. "bytes_per_row" is what a built controller holds
// on the heap.
#include "KVNArrayController.h"

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <map>
#include <memory>
#include <vector>

namespace {

constexpr std::size_t kBatch = 1000;

std::size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

const std::vector<KVNDirDiffTableElementPtr> &rows(std::size_t count)
{
    static std::map<std::size_t, std::vector<KVNDirDiffTableElementPtr>> made;
    auto &list = made[count];
    while (list.size() < count)
        list.push_back(KVNDirDiffTableElement::make(nullptr, nullptr));
    return list;
}

void build(KVNArrayController &controller, const std::vector<KVNDirDiffTableElementPtr> &all)
{
    std::vector<KVNDirDiffTableElementPtr> batch;
    for (std::size_t at = 0; at < all.size(); at += kBatch) {
        batch.assign(all.begin() + at, all.begin() + std::min(all.size(), at + kBatch));
        controller.addObjects(batch);
    }
    controller.compact();
}

void BM_BuildAndCompact(benchmark::State &state)
{
    const auto &all = rows(std::size_t(state.range(0)));
    double bytesPerRow = 0;
    for (auto _ : state) {
        const std::size_t before = heapInUse();
        KVNArrayController controller;
        build(controller, all);
        bytesPerRow = double(heapInUse() - before) / double(all.size());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    state.counters["bytes_per_row"] = bytesPerRow;
}

void BM_HandContentOn(benchmark::State &state)
{
    const auto &all = rows(std::size_t(state.range(0)));
    KVNArrayController source;
    build(source, all);
    for (auto _ : state) {
        KVNArrayController filtered;
        filtered.setContent(source.content());
        benchmark::DoNotOptimize(filtered.arrangedObjectsCount());
    }
}

void BM_ArrangedObjects(benchmark::State &state)
{
    const auto &all = rows(std::size_t(state.range(0)));
    KVNArrayController source;
    build(source, all);
    for (auto _ : state)
        benchmark::DoNotOptimize(source.arrangedObjects().size());
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_RemoveAndInsertAtFront(benchmark::State &state)
{
    const auto &all = rows(std::size_t(state.range(0)));
    KVNArrayController source;
    build(source, all);
    for (auto _ : state) {
        source.removeObjectsAtArrangedObjectIndexes({0});
        source.insertObject(all.front(), 0);
    }
}

// What a reconciliation does when a subtree of state.range(1) rows went and
// another came: removals a row at a time, then insertions a row at a time at
// rising places, then one read.
void BM_RunOfEdits(benchmark::State &state)
{
    const auto &all = rows(std::size_t(state.range(0)));
    const std::size_t run = std::size_t(state.range(1));
    KVNArrayController source;
    build(source, all);
    const std::size_t from = all.size() / 4;
    for (auto _ : state) {
        for (std::size_t i = 0; i < run; ++i)
            source.removeObject(all[from + i]);
        for (std::size_t i = 0; i < run; ++i)
            source.insertObject(all[from + i], from + i);
        benchmark::DoNotOptimize(source.arrangedObjectsCount());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * run * 2));
}

} // namespace

BENCHMARK(BM_BuildAndCompact)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HandContentOn)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArrangedObjects)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RemoveAndInsertAtFront)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RunOfEdits)->Args({1000000, 100000})->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

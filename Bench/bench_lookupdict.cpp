// The lookup table as pairing uses it: a tree of nodes made in memory, put in
// a table and squeezed, then looked up by the nodes of a second tree (every
// key present) and of a third (no key present), and by key text. The
// "bytes_per_node" counter is what the squeezed table holds on the heap.
#include "KVNFileNode.h"
#include "KVNRelativeLookupDict.h"

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <map>
#include <memory>
#include <vector>

namespace {

// count nodes under base: directories of 100 files, ten directories per
// directory above them, so that paths are three to five components deep.
std::vector<KVNFileNodePtr> makeTree(const QByteArray &base, std::size_t count, const QByteArray &prefix)
{
    std::vector<KVNFileNodePtr> nodes;
    nodes.reserve(count);
    auto root = KVNFileNode::make(base, "./", nullptr, 0);
    std::vector<KVNFileNodePtr> directories;
    for (std::size_t d = 0; nodes.size() < count; ++d) {
        const KVNFileNodePtr &parent = d < 10 ? root : directories[d / 10 - 1];
        auto directory = KVNFileNode::makeChild(parent, prefix + "Dir" + QByteArray::number(qulonglong(d)));
        parent->addChildNode(directory);
        directories.push_back(directory);
        nodes.push_back(directory);
        for (int f = 0; f < 100 && nodes.size() < count; ++f) {
            auto file = KVNFileNode::makeChild(directory, prefix + "File" + QByteArray::number(f) + ".Dat");
            directory->addChildNode(file);
            nodes.push_back(file);
        }
    }
    return nodes;
}

// Large blocks are mapped on their own and counted apart from the arena.
std::size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct Trees {
    std::vector<KVNFileNodePtr> right, left, other;
    KVNRelativeLookupDict lookup;
    double bytesPerNode = 0;
};

const Trees &trees(std::size_t count)
{
    static std::map<std::size_t, std::unique_ptr<Trees>> made;
    auto &slot = made[count];
    if (!slot) {
        slot = std::make_unique<Trees>();
        slot->right = makeTree("/r", count, "");
        slot->left = makeTree("/l", count, "");
        slot->other = makeTree("/o", count, "x");
        const std::size_t before = heapInUse();
        for (const auto &node : slot->right)
            slot->lookup.insert(node);
        slot->lookup.squeeze();
        slot->bytesPerNode = double(heapInUse() - before) / double(count);
    }
    return *slot;
}

void BM_LookupMatchingPresent(benchmark::State &state)
{
    const Trees &t = trees(std::size_t(state.range(0)));
    for (auto _ : state)
        for (const auto &node : t.left)
            benchmark::DoNotOptimize(t.lookup.valueMatching(*node));
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    state.counters["bytes_per_node"] = t.bytesPerNode;
}

void BM_LookupMatchingAbsent(benchmark::State &state)
{
    const Trees &t = trees(std::size_t(state.range(0)));
    for (auto _ : state)
        for (const auto &node : t.other)
            benchmark::DoNotOptimize(t.lookup.valueMatching(*node));
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_LookupByKey(benchmark::State &state)
{
    const Trees &t = trees(std::size_t(state.range(0)));
    std::vector<QByteArray> keys;
    for (std::size_t i = 0; i < t.left.size(); i += 97)
        keys.push_back(t.left[i]->lowercaseRelativePath());
    for (auto _ : state)
        for (const auto &key : keys)
            benchmark::DoNotOptimize(t.lookup.value(key));
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(keys.size()));
}

void BM_InsertAndSqueeze(benchmark::State &state)
{
    const Trees &t = trees(std::size_t(state.range(0)));
    for (auto _ : state) {
        KVNRelativeLookupDict lookup;
        lookup.reserve(8192);
        for (const auto &node : t.right)
            lookup.insert(node);
        lookup.squeeze();
        benchmark::DoNotOptimize(lookup.size());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}

} // namespace

BENCHMARK(BM_LookupMatchingPresent)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LookupMatchingAbsent)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LookupByKey)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertAndSqueeze)->Arg(200000)->Arg(1000000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

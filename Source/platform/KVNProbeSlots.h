#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

// Open addressing for small per-use tables: 32-bit slots that hold an index
// plus one (0 is empty), a power of two of them, at most half full.
inline std::vector<uint32_t> KVNMakeSlots(std::size_t count)
{
    return std::vector<uint32_t>(std::bit_ceil(2 * count + 1), 0);
}

// The slot whose index matches, or the empty one where it would go.
template <typename Matches>
std::size_t KVNProbeSlots(const std::vector<uint32_t> &table, uint64_t hash, Matches matches)
{
    const std::size_t mask = table.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask)
        if (!table[at] || matches(table[at] - 1))
            return at;
}

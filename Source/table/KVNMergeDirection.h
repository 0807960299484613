#pragma once

#include <cstdint>

// Which way a row would flow in a merge. Only Left and Right make the merge act.
enum KVNMergeDirection : uint64_t {
    KVNMergeDirectionLeft = 0,  // the right side flows to the left
    KVNMergeDirectionRight = 1, // the left side flows to the right
    KVNMergeDirectionNone = 2,
    KVNMergeDirectionChildrenBoth = 3,  // summary: flows go both ways below
    KVNMergeDirectionChildrenLeft = 4,  // summary: something below flows left
    KVNMergeDirectionChildrenRight = 5, // summary: something below flows right
};

// The word a row's description prints: "left", "right", "none", "children-both", ...
const char *KVNMergeDirectionWord(uint64_t direction);

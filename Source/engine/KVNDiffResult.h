#pragma once

#include <cstdint>

// The result of a node or row. The numbers are fixed: predicates and colours test them.
enum KVNDiffResult : int32_t {
    KVNDiffResultUnknown = 0,
    KVNDiffResultSame = 1,
    KVNDiffResultDiffer = 2,
    KVNDiffResultSingle = 3,
    KVNDiffResultIncomplete = 4,
    KVNDiffResultDifferSingle = 5,
};

// How a pair of non-directories is decided.
enum KVNCompareMethod : int32_t {
    KVNCompareMethodContents = 1,
    KVNCompareMethodSizeAndDate = 2,
    KVNCompareMethodDate = 3,
    KVNCompareMethodSize = 4,
};

const char *KVNDiffResultName(int32_t result);

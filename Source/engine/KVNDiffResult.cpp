#include "KVNDiffResult.h"

const char *KVNDiffResultName(int32_t result)
{
    switch (result) {
    case KVNDiffResultUnknown:
        return "unknown";
    case KVNDiffResultSame:
        return "same";
    case KVNDiffResultDiffer:
        return "different";
    case KVNDiffResultSingle:
        return "single";
    case KVNDiffResultIncomplete:
        return "incomplete";
    case KVNDiffResultDifferSingle:
        return "different-and-single";
    }
    return "invalid";
}

#include "KVNMergeDirection.h"

const char *KVNMergeDirectionWord(uint64_t direction)
{
    switch (direction) {
    case KVNMergeDirectionLeft:
        return "left";
    case KVNMergeDirectionRight:
        return "right";
    case KVNMergeDirectionNone:
        return "none";
    case KVNMergeDirectionChildrenBoth:
        return "children-both";
    case KVNMergeDirectionChildrenLeft:
        return "children-left";
    case KVNMergeDirectionChildrenRight:
        return "children-right";
    }
    return "unknown";
}

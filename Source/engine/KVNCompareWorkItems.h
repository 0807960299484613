#pragma once

#include "KVNDiffResult.h"
#include "KVNFileNode.h"

// One pair of non-directories and how to decide it. The ancestor is carried
// for document kinds that want one; nothing here fills or reads it.
struct KVNCompareFileWorkItem {
    int32_t compareMethod = KVNCompareMethodContents;
    KVNFileNodePtr fileNodeOriginal;
    KVNFileNodePtr fileNodeModified;
    KVNFileNodePtr fileNodeAncestor;
};

// One pair of directories.
struct KVNCompareDirWorkItem {
    KVNFileNodePtr originalFileNode;
    KVNFileNodePtr modifiedFileNode;
    KVNFileNodePtr ancestorFileNode;
};

#pragma once

#include "KVNFileNode.h"
#include "KVNRelativeLookupDict.h"

#include <memory>

// What one finished scan hands over: the root and every other node by its
// lower-cased relative path.
class KVNFileTree {
public:
    KVNFileTree(std::shared_ptr<const KVNRelativeLookupDict> relativeLookupDict, KVNFileNodePtr fileTreeRoot)
        : relativeLookupDict_(std::move(relativeLookupDict)), fileTreeRoot_(std::move(fileTreeRoot))
    {}
    const std::shared_ptr<const KVNRelativeLookupDict> &relativeLookupDict() const { return relativeLookupDict_; }
    const KVNFileNodePtr &fileTreeRoot() const { return fileTreeRoot_; }

private:
    std::shared_ptr<const KVNRelativeLookupDict> relativeLookupDict_;
    KVNFileNodePtr fileTreeRoot_;
};

using KVNFileTreePtr = std::shared_ptr<const KVNFileTree>;

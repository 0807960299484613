#pragma once

#include "KVNDiffResult.h"
#include "KVNFileNode.h"

#include <iterator>
#include <memory>
#include <vector>

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

// What an operation keeps of an item: the pair and how to decide it. The
// ancestor, almost always empty, is kept apart and only when there is one.
struct KVNCompareFilePair {
    int32_t compareMethod = KVNCompareMethodContents;
    KVNFileNodePtr fileNodeOriginal;
    KVNFileNodePtr fileNodeModified;
};

struct KVNCompareDirPair {
    KVNFileNodePtr originalFileNode;
    KVNFileNodePtr modifiedFileNode;
};

inline KVNCompareFilePair KVNComparePairOf(const KVNCompareFileWorkItem &item)
{
    return {item.compareMethod, item.fileNodeOriginal, item.fileNodeModified};
}
inline KVNCompareDirPair KVNComparePairOf(const KVNCompareDirWorkItem &item)
{
    return {item.originalFileNode, item.modifiedFileNode};
}
inline const KVNFileNodePtr &KVNCompareAncestorOf(const KVNCompareFileWorkItem &item)
{
    return item.fileNodeAncestor;
}
inline const KVNFileNodePtr &KVNCompareAncestorOf(const KVNCompareDirWorkItem &item)
{
    return item.ancestorFileNode;
}

// The items of one compare operation. One pair, the only shape in use, lives
// inline; several, or any ancestor, take one allocation more.
template <typename Pair> class KVNCompareItemList {
public:
    KVNCompareItemList() = default;
    explicit KVNCompareItemList(Pair pair) : one_(std::move(pair)), hasOne_(true) {}
    template <typename Iterator> KVNCompareItemList(Iterator first, Iterator last)
    {
        const auto count = std::size_t(std::distance(first, last));
        if (count == 1) {
            one_ = KVNComparePairOf(*first);
            hasOne_ = true;
        } else if (count > 1) {
            extra().pairs.reserve(count);
            for (Iterator it = first; it != last; ++it)
                extra_->pairs.push_back(KVNComparePairOf(*it));
        }
        std::size_t index = 0;
        for (Iterator it = first; it != last; ++it, ++index) {
            if (!KVNCompareAncestorOf(*it))
                continue;
            auto &ancestors = extra().ancestors;
            ancestors.resize(count);
            ancestors[index] = KVNCompareAncestorOf(*it);
        }
    }

    const Pair *begin() const { return extra_ && !extra_->pairs.empty() ? extra_->pairs.data() : &one_; }
    const Pair *end() const
    {
        return extra_ && !extra_->pairs.empty() ? extra_->pairs.data() + extra_->pairs.size() : &one_ + hasOne_;
    }
    std::size_t size() const { return std::size_t(end() - begin()); }
    bool empty() const { return begin() == end(); }
    const Pair &operator[](std::size_t index) const { return begin()[index]; }
    // The item's ancestor, or null.
    KVNFileNodePtr ancestor(std::size_t index) const
    {
        return extra_ && index < extra_->ancestors.size() ? extra_->ancestors[index] : KVNFileNodePtr();
    }

private:
    struct Extra {
        std::vector<Pair> pairs; // all of them, when there are several
        std::vector<KVNFileNodePtr> ancestors;
    };
    Extra &extra()
    {
        if (!extra_)
            extra_ = std::make_unique<Extra>();
        return *extra_;
    }

    Pair one_{};
    std::unique_ptr<Extra> extra_;
    bool hasOne_ = false;
};

#include "KVNBuildTableOperation.h"

#include "KVNPathBytes.h"
#include "KVNProbeSlots.h"

#include <algorithm>

namespace {

// The children of one directory by lower-cased name: for each name, the last
// child that has it, as a later one takes the place of an earlier one. The
// names are hashed and compared in place, with no key made per child.
class ChildIndex {
public:
    explicit ChildIndex(std::span<const KVNFileNodePtr> children)
        : children_(children), hashes_(children.size()), slots_(KVNMakeSlots(children.size()))
    {
        for (std::size_t i = 0; i < children.size(); ++i) {
            hashes_[i] = KVNPathBytes::hashLowercaseName(KVNPathBytes::kHashSeed, children[i]->nameView());
            slots_[probe(hashes_[i], children[i]->nameView())] = uint32_t(i + 1);
        }
    }
    uint64_t hashAt(std::size_t i) const { return hashes_[i]; }
    // The last child whose name lower-cases as name does, or null.
    KVNFileNodePtr find(uint64_t hash, QByteArrayView name) const
    {
        const uint32_t slot = slots_[probe(hash, name)];
        return slot ? children_[slot - 1] : KVNFileNodePtr();
    }

private:
    std::size_t probe(uint64_t hash, QByteArrayView name) const
    {
        return KVNProbeSlots(slots_, hash, [&](uint32_t i) {
            return hashes_[i] == hash && KVNPathBytes::lowercaseNamesEqual(children_[i]->nameView(), name);
        });
    }

    std::span<const KVNFileNodePtr> children_;
    std::vector<uint64_t> hashes_;
    std::vector<uint32_t> slots_; // child index + 1; 0 is empty
};

} // namespace

KVNBuildTableOperation::KVNBuildTableOperation(KVNBuildTreeFastOperationPtr buildTreeOp1,
                                               KVNBuildTreeFastOperationPtr buildTreeOp2,
                                               std::shared_ptr<KVNArrayController> arrayController)
    : arrayBatcher_(arrayController, 0.5), buildTreeOp1_(std::move(buildTreeOp1)),
      buildTreeOp2_(std::move(buildTreeOp2)), arrayController_(std::move(arrayController))
{
    arrayBatcher_.setDelegate(this);
}

void KVNBuildTableOperation::main()
{
    if (isCancelled())
        return;
    auto leftTree = buildTreeOp1_ ? buildTreeOp1_->fileTree() : nullptr;
    auto rightTree = buildTreeOp2_ ? buildTreeOp2_->fileTree() : nullptr;
    addChildrenOfLeftNode(leftTree ? leftTree->fileTreeRoot() : nullptr,
                          rightTree ? rightTree->fileTreeRoot() : nullptr, 0, nullptr);
    // Also after a cancel, so that what was built is in the controller.
    arrayBatcher_.flushQueue();
    if (arrayController_)
        arrayController_->compact();
    if (delegate_)
        delegate_->buildTableOperation(this, nullptr);
}

void KVNBuildTableOperation::addChildrenOfLeftNode(const KVNFileNodePtr &leftNode, const KVNFileNodePtr &rightNode,
                                                   uint32_t depthHint,
                                                   const KVNDirDiffTableElementPtr &parentTableElement)
{
    if (isCancelled())
        return;
    const auto leftChildren = leftNode ? leftNode->childNodes() : std::span<const KVNFileNodePtr>();
    const auto rightChildren = rightNode ? rightNode->childNodes() : std::span<const KVNFileNodePtr>();
    const ChildIndex leftIndex(leftChildren);
    const ChildIndex rightIndex(rightChildren);
    // Every left child, and the right ones whose names no left child has.
    // Siblings share their directory, so their names alone pair them.
    struct Merged {
        const KVNFileNode *node;
        uint64_t hash;
    };
    std::vector<Merged> merged;
    merged.reserve(leftChildren.size() + rightChildren.size());
    for (std::size_t i = 0; i < leftChildren.size(); ++i)
        merged.push_back({leftChildren[i].get(), leftIndex.hashAt(i)});
    for (std::size_t i = 0; i < rightChildren.size(); ++i)
        if (!leftIndex.find(rightIndex.hashAt(i), rightChildren[i]->nameView()))
            merged.push_back({rightChildren[i].get(), rightIndex.hashAt(i)});
    // Names are decoded once for the sort, not once per comparison.
    std::vector<std::pair<QString, std::size_t>> order;
    order.reserve(merged.size());
    for (std::size_t i = 0; i < merged.size(); ++i)
        order.emplace_back(merged[i].node->spotlightItemFSName(), i);
    std::stable_sort(order.begin(), order.end(), [](const auto &a, const auto &b) {
        return QString::compare(a.first, b.first, Qt::CaseInsensitive) < 0;
    });

    const uint32_t depth = depthHint + 1;
    for (const auto &entry : order) {
        const Merged &child = merged[entry.second];
        KVNFileNodePtr left = leftIndex.find(child.hash, child.node->nameView());
        KVNFileNodePtr right = rightIndex.find(child.hash, child.node->nameView());
        auto element = KVNDirDiffTableElement::make(left, right);
        element->setDepthHint(depth);
        element->setParentElement(parentTableElement);
        arrayBatcher_.addObjectToQueue(element);
        ++rowCount_;
        // Top-level rows are found only through the controller, by their depth.
        if (parentTableElement)
            parentTableElement->addChildElement(element);
        addChildrenOfLeftNode(left, right, depth, element);
        if (isCancelled())
            break;
    }
    if (parentTableElement)
        parentTableElement->finishChildElements();
}

void KVNBuildTableOperation::arrayBatcher(KVNNSArrayBatcher *, const std::vector<KVNDirDiffTableElementPtr> &)
{
    // Batches need no word of their own: the delegate hears of the whole table at the end.
}

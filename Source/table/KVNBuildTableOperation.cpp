#include "KVNBuildTableOperation.h"

#include "KVNPathBytes.h"

#include <QHash>

#include <algorithm>

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
    QHash<QByteArray, KVNFileNodePtr> leftTable;
    QHash<QByteArray, KVNFileNodePtr> rightTable;
    leftTable.reserve(qsizetype(leftChildren.size()));
    rightTable.reserve(qsizetype(rightChildren.size()));
    std::vector<std::pair<QByteArray, KVNFileNodePtr>> merged; // key and node
    merged.reserve(leftChildren.size() + rightChildren.size());
    // Siblings share their directory, so their names alone pair them.
    for (const auto &node : leftChildren) {
        QByteArray key = KVNPathBytes::lowercaseName(node->name());
        leftTable.insert(key, node); // a later same key replaces the earlier; both stay merged
        merged.emplace_back(std::move(key), node);
    }
    for (const auto &node : rightChildren) {
        QByteArray key = KVNPathBytes::lowercaseName(node->name());
        if (!leftTable.contains(key))
            merged.emplace_back(key, node);
        rightTable.insert(std::move(key), node);
    }
    // Names are decoded once for the sort, not once per comparison.
    std::vector<std::pair<QString, std::size_t>> order;
    order.reserve(merged.size());
    for (std::size_t i = 0; i < merged.size(); ++i)
        order.emplace_back(merged[i].second->spotlightItemFSName(), i);
    std::stable_sort(order.begin(), order.end(), [](const auto &a, const auto &b) {
        return QString::compare(a.first, b.first, Qt::CaseInsensitive) < 0;
    });

    const uint32_t depth = depthHint + 1;
    for (const auto &entry : order) {
        const QByteArray &key = merged[entry.second].first;
        KVNFileNodePtr left = leftTable.value(key);
        KVNFileNodePtr right = rightTable.value(key);
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

#include "KVNDirDiffTableElement.h"

#include "KVNPathBytes.h"
#include "KVNSmallObjectPool.h"

#include <QDateTime>
#include <QHashFunctions>
#include <QLocale>

#include <algorithm>
#include <mutex>

namespace {

enum Unchanged : uint64_t { kUnchanged = ~uint64_t(0) };

// The summary of a directory's children by which directions occur among them:
// index bits left, right, none, children-left, children-right. The unchanged
// entries are part of the rule, not gaps.
uint64_t summaryFor(bool left, bool right, bool none, bool childrenLeft, bool childrenRight)
{
    struct Rule {
        bool left, right, none, childrenLeft, childrenRight;
        uint64_t store;
    };
    static constexpr Rule rules[] = {
        {false, false, false, false, false, kUnchanged},
        {false, false, false, false, true, KVNMergeDirectionChildrenRight},
        {false, false, false, true, false, KVNMergeDirectionChildrenLeft},
        {false, false, true, false, false, KVNMergeDirectionNone},
        {false, false, true, false, true, KVNMergeDirectionChildrenRight},
        {false, false, true, true, false, KVNMergeDirectionChildrenLeft},
        {false, true, false, false, false, KVNMergeDirectionRight},
        {false, true, false, false, true, KVNMergeDirectionChildrenRight},
        {false, true, false, true, false, kUnchanged},
        {false, true, true, false, false, KVNMergeDirectionChildrenRight},
        {false, true, true, false, true, KVNMergeDirectionChildrenRight},
        {false, true, true, true, false, KVNMergeDirectionChildrenRight},
        {true, false, false, false, false, KVNMergeDirectionLeft},
        {true, false, false, false, true, kUnchanged},
        {true, false, false, true, false, KVNMergeDirectionChildrenLeft},
        {true, false, true, false, false, KVNMergeDirectionChildrenLeft},
        {true, false, true, false, true, kUnchanged},
        {true, false, true, true, false, KVNMergeDirectionChildrenLeft},
    };
    static_assert(std::size(rules) == 18, "every combination without both left and right");
    for (const Rule &rule : rules)
        if (rule.left == left && rule.right == right && rule.none == none && rule.childrenLeft == childrenLeft &&
            rule.childrenRight == childrenRight)
            return rule.store;
    return kUnchanged;
}

} // namespace

// The rows below a directory, and how many of them have each direction, so
// that a directory sums up its children without visiting them: a change that
// climbs to the top costs the depth, not the width, of the tree.
struct KVNDirDiffTableElement::Children : KVNPooled {
    std::vector<KVNDirDiffTableElementPtr> list;
    std::atomic<int32_t> directionCounts[6] = {};

    void count(uint64_t direction, int32_t delta)
    {
        if (direction < 6)
            directionCounts[direction].fetch_add(delta, std::memory_order_relaxed);
    }
};

KVNDirDiffTableElement::KVNDirDiffTableElement() = default;

// A row is made a million times: seven words and its counts.
static_assert(sizeof(void *) != 8 || sizeof(KVNDirDiffTableElement) <= 56);

namespace {
// No path nests this deep; a transient node's depth, the largest, lands here too.
constexpr uint16_t kDepthUnknown = 0xFFFF;
} // namespace

uint32_t KVNDirDiffTableElement::depthHint() const
{
    const uint16_t depth = depthHint_.load(std::memory_order_relaxed);
    return depth == kDepthUnknown ? KVNFileNode::KVNTransientDepthHint : depth;
}

void KVNDirDiffTableElement::setDepthHint(uint32_t depth)
{
    depthHint_.store(uint16_t(std::min<uint32_t>(depth, kDepthUnknown)), std::memory_order_relaxed);
}

KVNDirDiffTableElementPtr KVNDirDiffTableElement::make(const KVNFileNodePtr &leftNode, const KVNFileNodePtr &rightNode)
{
    auto element = KVNMakeRef<KVNDirDiffTableElement>();
    element->setLeftNode(leftNode);
    element->setRightNode(rightNode);
    return element;
}

KVNDirDiffTableElement::~KVNDirDiffTableElement()
{
    if (leftNode_)
        leftNode_->removeObserver(this);
    if (rightNode_)
        rightNode_->removeObserver(this);
    // Children that outlive this row no longer count into it.
    if (childElements_)
        for (const auto &child : childElements_->list) {
            std::lock_guard guard(child->lock_);
            if (child->countedIn_ == childElements_.get())
                child->countedIn_ = nullptr;
        }
}

KVNFileNodePtr KVNDirDiffTableElement::leftNode() const
{
    std::lock_guard guard(lock_);
    return leftNode_;
}

KVNFileNodePtr KVNDirDiffTableElement::rightNode() const
{
    std::lock_guard guard(lock_);
    return rightNode_;
}

void KVNDirDiffTableElement::setNode(KVNFileNodePtr &slot, const KVNFileNodePtr &node)
{
    std::lock_guard guard(lock_);
    if (slot == node)
        return;
    if (slot)
        slot->removeObserver(this);
    slot = node;
    if (!slot)
        return;
    slot->addObserver(this);
}

void KVNDirDiffTableElement::setLeftNode(const KVNFileNodePtr &node)
{
    setNode(leftNode_, node);
}

void KVNDirDiffTableElement::setRightNode(const KVNFileNodePtr &node)
{
    setNode(rightNode_, node);
}

KVNDirDiffTableElementPtr KVNDirDiffTableElement::parentElement() const
{
    std::lock_guard guard(lock_);
    return parentElement_.lock();
}

void KVNDirDiffTableElement::setParentElement(const KVNDirDiffTableElementPtr &parent)
{
    KVNWeakRef<KVNDirDiffTableElement> weak(parent);
    std::lock_guard guard(lock_);
    std::swap(parentElement_, weak);
    // The old reference goes after the lock: it may be the parent's memory's last.
}

std::vector<KVNDirDiffTableElementPtr> KVNDirDiffTableElement::childElements() const
{
    std::lock_guard guard(lock_);
    return childElements_ ? childElements_->list : std::vector<KVNDirDiffTableElementPtr>();
}

bool KVNDirDiffTableElement::hasChildElements() const
{
    std::lock_guard guard(lock_);
    return childElements_ != nullptr;
}

void KVNDirDiffTableElement::addChildElement(const KVNDirDiffTableElementPtr &child)
{
    if (!child)
        return;
    std::lock_guard guard(lock_);
    if (!childElements_)
        childElements_ = std::make_unique<Children>();
    childElements_->list.push_back(child);
    std::lock_guard childGuard(child->lock_);
    const uint64_t direction = child->mergeDirection();
    if (child->countedIn_)
        child->countedIn_->count(direction, -1);
    child->countedIn_ = childElements_.get();
    child->countedIn_->count(direction, 1);
}

void KVNDirDiffTableElement::finishChildElements()
{
    std::lock_guard guard(lock_);
    if (childElements_)
        childElements_->list.shrink_to_fit();
}

void KVNDirDiffTableElement::removeChildElement(const KVNDirDiffTableElement *child)
{
    std::lock_guard guard(lock_);
    if (!childElements_)
        return;
    auto &list = childElements_->list;
    const auto it = std::find_if(list.begin(), list.end(), [child](const auto &e) { return e.get() == child; });
    if (it == list.end())
        return;
    const KVNDirDiffTableElementPtr removed = *it; // alive until its count is taken back
    list.erase(std::remove_if(it, list.end(), [child](const auto &e) { return e.get() == child; }), list.end());
    std::lock_guard childGuard(removed->lock_);
    if (removed->countedIn_ == childElements_.get()) {
        childElements_->count(removed->mergeDirection(), -1);
        removed->countedIn_ = nullptr;
    }
}

std::vector<KVNDirDiffTableElementPtr> KVNDirDiffTableElement::filteredChildren(const KVNPredicatePtr &predicate) const
{
    std::vector<KVNDirDiffTableElementPtr> result;
    for (auto &child : childElements())
        if (KVNPredicateEvaluate(predicate, *child))
            result.push_back(std::move(child));
    return result;
}

QString KVNDirDiffTableElement::label(const KVNFileNodePtr &node)
{
    return node ? node->spotlightItemFSName() : QString();
}

QString KVNDirDiffTableElement::dateLabel(const KVNFileNodePtr &node)
{
    auto date = node ? node->modifiedDate() : std::nullopt;
    if (!date)
        return QString();
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(date->seconds * 1000 + date->nanoseconds / 1000000);
    const QLocale locale;
    return locale.toString(time.date(), QLocale::ShortFormat) + QLatin1Char(' ') +
           locale.toString(time.time(), QLocale::ShortFormat);
}

QString KVNDirDiffTableElement::sizeLabel(const KVNFileNodePtr &node)
{
    return node ? node->fileSizeLabel() : QString();
}

std::optional<KVNDate> KVNDirDiffTableElement::dateLeft() const
{
    auto node = leftNode();
    return node ? node->modifiedDate() : std::nullopt;
}

std::optional<KVNDate> KVNDirDiffTableElement::dateRight() const
{
    auto node = rightNode();
    return node ? node->modifiedDate() : std::nullopt;
}

KVNFileNodePtr KVNDirDiffTableElement::primaryNode() const
{
    std::lock_guard guard(lock_);
    return leftNode_ ? leftNode_ : rightNode_;
}

QByteArray KVNDirDiffTableElement::relativePath() const
{
    auto node = primaryNode();
    return node ? node->relativePath() : QByteArray();
}

QString KVNDirDiffTableElement::displayRelativePath() const
{
    return KVNPathBytes::displayString(relativePath());
}

bool KVNDirDiffTableElement::isDirectory() const
{
    auto node = primaryNode();
    return node && node->isDirectory();
}

bool KVNDirDiffTableElement::isApplication() const
{
    auto node = primaryNode();
    return node && node->isApplication();
}

bool KVNDirDiffTableElement::isBundle() const
{
    auto node = primaryNode();
    return node && node->isBundle();
}

QString KVNDirDiffTableElement::spotlightItemKind() const
{
    auto node = primaryNode();
    return node ? node->spotlightItemKind() : QString();
}

QString KVNDirDiffTableElement::spotlightItemFSName() const
{
    auto node = primaryNode();
    return node ? node->spotlightItemFSName() : QString();
}

std::optional<uint64_t> KVNDirDiffTableElement::spotlightItemFSSize() const
{
    auto node = primaryNode();
    return node ? node->spotlightItemFSSize() : std::nullopt;
}

int32_t KVNDirDiffTableElement::diffResult() const
{
    KVNFileNodePtr left, right;
    {
        std::lock_guard guard(lock_);
        left = leftNode_;
        right = rightNode_;
    }
    if (!left && !right)
        return KVNDiffResultUnknown;
    if (!right)
        return left->diffResult();
    if (!left)
        return right->diffResult();
    const int32_t l = left->diffResult();
    const int32_t r = right->diffResult();
    if (l == r)
        return l;
    if (l == KVNDiffResultUnknown)
        return r;
    if (r == KVNDiffResultUnknown)
        return l;
    // One side of a directory pair lifted by the parent rule alone.
    if (l == KVNDiffResultDifferSingle || r == KVNDiffResultDifferSingle)
        return KVNDiffResultDifferSingle;
    return KVNDiffResultUnknown;
}

void KVNDirDiffTableElement::respondToChangedDiffResult()
{
    KVNFileNodePtr left, right;
    {
        std::lock_guard guard(lock_);
        left = leftNode_;
        right = rightNode_;
    }
    // A directory pair's direction comes from its children.
    if (left && right && isDirectory())
        return;
    uint64_t direction = KVNMergeDirectionNone;
    switch (diffResult()) {
    case KVNDiffResultDiffer:
    case KVNDiffResultDifferSingle: {
        // The newer side wins; equal dates, or a missing side, leave nothing to do.
        const auto l = dateLeft();
        const auto r = dateRight();
        if (l && r && *l > *r)
            direction = KVNMergeDirectionRight;
        else if (l && r && *l < *r)
            direction = KVNMergeDirectionLeft;
        break;
    }
    case KVNDiffResultSingle:
        direction = left ? KVNMergeDirectionRight : KVNMergeDirectionLeft;
        break;
    default:
        break;
    }
    setMergeDirection(direction);
}

void KVNDirDiffTableElement::storeMergeDirectionLocked(uint64_t direction)
{
    const uint64_t old = mergeDirection_.exchange(uint8_t(direction), std::memory_order_acq_rel);
    if (countedIn_ && old != direction) {
        countedIn_->count(old, -1);
        countedIn_->count(direction, 1);
    }
}

void KVNDirDiffTableElement::setMergeDirection(uint64_t direction)
{
    // The row's lock guards the store only; holding it while the children
    // climb back through their parents could meet another thread's climb.
    {
        std::lock_guard guard(lock_);
        storeMergeDirectionLocked(direction);
    }
    for (const auto &child : childElements())
        child->setMergeDirection(direction);
    if (isDirectory())
        updateMergeDirectionForDirectory();
    updateAndNotifyParent();
}

void KVNDirDiffTableElement::updateAndNotifyParent()
{
    for (auto row = KVNDirDiffTableElementPtr::fromThis(this); row; row = row->parentElement())
        if (row->isDirectory())
            row->updateMergeDirectionForDirectory();
}

void KVNDirDiffTableElement::updateMergeDirectionForDirectory()
{
    std::lock_guard guard(lock_);
    if (!childElements_)
        return;
    bool seen[6];
    for (int direction = 0; direction < 6; ++direction)
        seen[direction] = childElements_->directionCounts[direction].load(std::memory_order_relaxed) > 0;
    uint64_t store;
    if (seen[KVNMergeDirectionChildrenBoth] || (seen[KVNMergeDirectionLeft] && seen[KVNMergeDirectionRight]) ||
        (seen[KVNMergeDirectionChildrenLeft] && seen[KVNMergeDirectionChildrenRight]))
        store = KVNMergeDirectionChildrenBoth;
    else
        store = summaryFor(seen[KVNMergeDirectionLeft], seen[KVNMergeDirectionRight], seen[KVNMergeDirectionNone],
                           seen[KVNMergeDirectionChildrenLeft], seen[KVNMergeDirectionChildrenRight]);
    if (store != kUnchanged)
        storeMergeDirectionLocked(store);
}

std::size_t KVNDirDiffTableElement::hash() const
{
    uint32_t cached = cachedHash_.load(std::memory_order_relaxed);
    if (cached == 0) {
        const std::size_t full = qHash(relativePath());
        cached = uint32_t(full ^ (full >> 32));
        if (cached == 0)
            cached = 1;
        cachedHash_.store(cached, std::memory_order_relaxed);
    }
    return cached;
}

bool KVNDirDiffTableElement::isEqual(const KVNDirDiffTableElement &other) const
{
    return hash() == other.hash();
}

QString KVNDirDiffTableElement::description() const
{
    auto left = leftNode();
    auto right = rightNode();
    // No colon after "right": the merge transcript prints this line as it is.
    return QStringLiteral("KVNDirDiffTableElement: depth: %1 left: %2 right %3 rowLayerIndex %4 mergeDirection: %5")
        .arg(depthHint())
        .arg(left ? left->displayRelativePath() : QStringLiteral("N/A"))
        .arg(right ? right->displayRelativePath() : QStringLiteral("N/A"))
        .arg(rowLayerIndex())
        .arg(QString::fromLatin1(KVNMergeDirectionWord(mergeDirection())));
}

void KVNDirDiffTableElement::observeValueForKeyPath(KVNNodeKey key, KVNFileNode &)
{
    // The display learns of row changes through the document's refreshes;
    // the row's own work here is its default direction.
    if (key == KVNNodeKey::DiffResult)
        respondToChangedDiffResult();
}

KVNValue KVNDirDiffTableElement::valueForKey(QStringView key) const
{
    if (key == u"diffResult")
        return KVNValue::fromInteger(diffResult());
    if (key == u"depthHint")
        return KVNValue::fromInteger(depthHint());
    if (key == u"isDirectory")
        return KVNValue::fromBool(isDirectory());
    if (key == u"leftNode")
        return KVNValue::fromObject(leftNode());
    if (key == u"rightNode")
        return KVNValue::fromObject(rightNode());
    if (key == u"mergeDirection")
        return KVNValue::fromInteger(int64_t(mergeDirection()));
    if (key == u"labelLeft")
        return KVNValue::fromString(labelLeft());
    if (key == u"labelRight")
        return KVNValue::fromString(labelRight());
    if (key == u"parentElement") {
        // The value keeps the row alive as long as it is held.
        return KVNValue::fromObject(parentElement());
    }
    // Everything else a row answers from its left node, or its right one.
    auto node = primaryNode();
    return node ? node->valueForKey(key) : KVNValue();
}

#include "KVNFileNode.h"

#include "KVNPathBytes.h"
#include "KVNSmallObjectPool.h"

#include <QMimeDatabase>
#include <QVarLengthArray>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>

namespace {

// Directories that hold an application or another kind of package; a package
// is shown with a size and an application is never rolled up. Asked per row,
// so it looks at the name in place.
bool hasExtension(QByteArrayView name, std::initializer_list<const char *> extensions)
{
    const qsizetype dot = name.lastIndexOf('.');
    if (dot <= 0 || dot == name.size() - 1)
        return false;
    const QByteArrayView extension = name.sliced(dot + 1);
    for (const char *candidate : extensions)
        if (extension.compare(QByteArrayView(candidate), Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

QByteArray withoutTrailingSlashes(QByteArray path, qsizetype keep)
{
    while (path.size() > keep && path.endsWith('/'))
        path.chop(1);
    return path;
}

} // namespace

// Where an anchor stands: a root's base, a transient node's directory, or the
// directory of a node made away from its directory's node.
struct KVNNodeAnchor {
    QByteArray basePath;          // absolute, without a trailing slash ("" for "/")
    QByteArray relativeDirectory; // "." for the root's children, "./a/b" below; absolute on a transient node
    QByteArray lowercaseRelativeDirectory;
    uint32_t depthHint = 0;
};

namespace {

// A directory's children: a pooled array, as large as the scan asks for.
class ChildList {
public:
    ChildList() = default;
    ChildList(const ChildList &) = delete;
    ChildList &operator=(const ChildList &) = delete;
    ~ChildList() { clear(); }

    std::span<const KVNFileNodePtr> view() const { return {items_, size_}; }
    bool empty() const { return size_ == 0; }
    void reserve(std::size_t count)
    {
        if (count > capacity_)
            grow(count);
    }
    void push_back(const KVNFileNodePtr &node)
    {
        if (size_ == capacity_)
            grow(std::max<std::size_t>(4, std::size_t(capacity_) * 2));
        new (items_ + size_) KVNFileNodePtr(node);
        ++size_;
    }
    void swap(ChildList &other) noexcept
    {
        std::swap(items_, other.items_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }
    void clear() noexcept
    {
        std::destroy_n(items_, size_);
        KVNSmallObjectPool::deallocate(items_, capacity_ * sizeof(KVNFileNodePtr));
        items_ = nullptr;
        size_ = capacity_ = 0;
    }

private:
    void grow(std::size_t capacity)
    {
        if (capacity > UINT32_MAX)
            throw std::length_error("more than 2^32 entries in one directory");
        auto *items = static_cast<KVNFileNodePtr *>(KVNSmallObjectPool::allocate(capacity * sizeof(KVNFileNodePtr)));
        std::uninitialized_move_n(items_, size_, items);
        std::destroy_n(items_, size_);
        KVNSmallObjectPool::deallocate(items_, capacity_ * sizeof(KVNFileNodePtr));
        items_ = items;
        capacity_ = uint32_t(capacity);
    }

    KVNFileNodePtr *items_ = nullptr;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
};

} // namespace

// What a directory needs; a plain file has none.
struct KVNFileNode::Extras : KVNPooled {
    ChildList children;                       // only the scan adds, before anyone else sees the tree
    KVNNodeObserver *firstObserver = nullptr; // guarded by a striped lock
    std::unique_ptr<Rare> rare;               // guarded by a striped lock; an anchor's is made with it
};

// What few nodes need.
struct KVNFileNode::Rare {
    std::unique_ptr<const KVNNodeAnchor> anchor;  // set when the node is made, never changed
    std::vector<KVNNodeObserver *> moreObservers; // guarded by a striped lock
    QString spotlightItemKind;                    // guarded by a striped lock
    KVNFileAttributes exoticAttrs;                // guarded by a striped lock; see KVNPackedAttributes
};

// A node is counted by the million: seven words, the last shared with the
// start of its name.
static_assert(sizeof(void *) != 8 || sizeof(KVNFileNode) == 56);

namespace {

// The attributes in two words: size, type and presence in one, the time in
// nanoseconds' room beside the seconds in the other. Sizes from 2^48 and
// times beyond some 270 years either side of 1970 do not fit; those keep
// their exact value beside the node (kExotic).
namespace KVNPackedAttributes {
constexpr int kSizeBits = 48;
constexpr uint64_t kSizeMask = (uint64_t(1) << kSizeBits) - 1;
constexpr uint64_t kHasAttrs = uint64_t(1) << 50;
constexpr uint64_t kHasSize = uint64_t(1) << 51;
constexpr uint64_t kExotic = uint64_t(1) << 52;
constexpr int kTypeShift = 48;
constexpr int kNanosecondBits = 30;
constexpr int64_t kSecondsLimit = int64_t(1) << (63 - kNanosecondBits);

bool fits(const KVNFileAttributes &attrs)
{
    const int64_t seconds = attrs.modificationDate.seconds;
    return attrs.fileSize <= kSizeMask && seconds >= -kSecondsLimit && seconds < kSecondsLimit &&
           attrs.modificationDate.nanoseconds < (1u << kNanosecondBits);
}
} // namespace KVNPackedAttributes

} // namespace

std::size_t KVNFileNode::blockSize(std::size_t nameSize)
{
    return sizeof(KVNFileNode) - kNameHeadSize + std::max(nameSize + 1, kNameHeadSize);
}

KVNFileNode *KVNFileNode::allocate(QByteArrayView name)
{
    if (name.size() > 0xFFFF)
        throw std::length_error("a file name longer than 65535 bytes");
    void *memory = KVNSmallObjectPool::allocate(blockSize(std::size_t(name.size())));
    auto *node = new (memory) KVNFileNode();
    // Through the block, not the member: the name runs past the member's end.
    char *bytes = static_cast<char *>(memory) + (node->nameHead_ - reinterpret_cast<char *>(node));
    if (!name.isEmpty())
        std::memcpy(bytes, name.data(), std::size_t(name.size()));
    bytes[name.size()] = 0;
    node->nameSize_ = uint16_t(name.size());
    return node;
}

void KVNFileNode::destroy(KVNFileNode *node)
{
    const std::size_t size = blockSize(node->nameSize_);
    node->~KVNFileNode();
    KVNSmallObjectPool::deallocate(node, size);
}

KVNFileNode::~KVNFileNode()
{
    delete extrasIfAny();
    if (parent_)
        parent_->releaseWeak();
}

// The use has ended: what the node owns goes, what its descendants may still
// read to make their paths (name, parent, anchor) stays with the memory.
void KVNFileNode::dispose()
{
    Extras *extras = extrasIfAny();
    ChildList children;
    {
        std::lock_guard guard(KVNStripedLocks::forAddress(this));
        if (extras) {
            children.swap(extras->children);
            if (extras->rare)
                extras->rare->spotlightItemKind = QString();
        }
    }
}

KVNFileNode::Extras &KVNFileNode::extras()
{
    if (Extras *extras = extrasIfAny())
        return *extras;
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    return extrasLocked();
}

KVNFileNode::Extras &KVNFileNode::extrasLocked()
{
    const std::uintptr_t link = link_.load(std::memory_order_relaxed);
    if (link & kExtrasTag)
        return *reinterpret_cast<Extras *>(link & ~kExtrasTag);
    // The observer the link held moves into the Extras.
    auto *made = new Extras;
    made->firstObserver = reinterpret_cast<KVNNodeObserver *>(link);
    link_.store(reinterpret_cast<std::uintptr_t>(made) | kExtrasTag, std::memory_order_release);
    return *made;
}

const KVNNodeAnchor &KVNFileNode::anchorPlace() const
{
    return *extrasIfAny()->rare->anchor;
}

// Before the node is published: nothing else can see it yet.
void KVNFileNode::setAnchor(KVNNodeAnchor anchor)
{
    flags_ |= kAnchored;
    auto &rare = extras().rare;
    rare = std::make_unique<Rare>();
    rare->anchor = std::make_unique<const KVNNodeAnchor>(std::move(anchor));
}

KVNFileNodePtr KVNFileNode::make(const QByteArray &basePath, const QByteArray &relativePath,
                                 const KVNFileNodePtr &parent, uint32_t depthHint)
{
    QByteArray relative = withoutTrailingSlashes(relativePath, 2);
    const bool root = relative == "./" || relative == "." || relative.isEmpty();
    if (!root && !relative.startsWith("./"))
        relative.prepend("./");
    const qsizetype slash = root ? -1 : relative.lastIndexOf('/');
    const QByteArray directory = root ? QByteArray() : relative.left(slash);
    KVNFileNode *node = allocate(root ? QByteArrayView() : QByteArrayView(relative).sliced(slash + 1));
    KVNFileNodePtr ref(node);
    if (parent) {
        parent->retainWeak();
        node->parent_ = parent.get();
    }
    // Under its directory's node a node derives its place; elsewhere it keeps its own.
    const bool derived = !root && parent && depthHint == parent->depthHint() + 1 &&
                         parent->relativePath() == (directory == "." ? QByteArray("./") : directory);
    if (!derived) {
        node->flags_ |= root ? kRoot : 0;
        node->setAnchor(
            {withoutTrailingSlashes(basePath, 0), directory, KVNPathBytes::lowercasePath(directory), depthHint});
    }
    return ref;
}

KVNFileNodePtr KVNFileNode::makeChild(const KVNFileNodePtr &parent, const QByteArray &name)
{
    KVNFileNode *node = allocate(name);
    KVNFileNodePtr ref(node);
    parent->retainWeak();
    node->parent_ = parent.get();
    return ref;
}

KVNFileNodePtr KVNFileNode::makeTransient(const QByteArray &absolutePath)
{
    const QByteArray path = withoutTrailingSlashes(absolutePath, 1);
    const qsizetype slash = path.lastIndexOf('/');
    const QByteArray directory = slash < 0 ? QByteArray() : path.left(slash);
    KVNFileNode *node = allocate(slash < 0 ? QByteArrayView(path) : QByteArrayView(path).sliced(slash + 1));
    KVNFileNodePtr ref(node);
    node->flags_ |= kTransient;
    node->setAnchor({QByteArray(), directory, KVNPathBytes::lowercasePath(directory), KVNTransientDepthHint});
    KVNDirectoryEntry entry;
    if (KVNDirectoryReader::attributesOfItem(path, entry))
        node->setFileAttrs(KVNFileAttributes::fromEntry(entry));
    return ref;
}

void KVNFileNode::addChildNode(const KVNFileNodePtr &child)
{
    if (!child)
        return;
    extras().children.push_back(child);
    if (child->parent_ == this)
        return;
    retainWeak();
    if (child->parent_)
        child->parent_->releaseWeak();
    child->parent_ = this;
}

void KVNFileNode::reserveChildNodes(std::size_t count)
{
    auto &children = extras().children;
    children.reserve(children.view().size() + count);
}

std::span<const KVNFileNodePtr> KVNFileNode::childNodes() const
{
    const Extras *extras = extrasIfAny();
    return extras ? extras->children.view() : std::span<const KVNFileNodePtr>();
}

bool KVNFileNode::hasChildNodes() const
{
    const Extras *extras = extrasIfAny();
    return extras && !extras->children.empty();
}

KVNFileNodePtr KVNFileNode::parentNode() const
{
    if (parent_ && parent_->tryRetain())
        return KVNFileNodePtr::adopt(const_cast<KVNFileNode *>(parent_));
    return nullptr;
}

const KVNFileNode *KVNFileNode::anchor() const
{
    const KVNFileNode *node = this;
    while (!node->isAnchor())
        node = node->parent_;
    return node;
}

uint32_t KVNFileNode::depthHint() const
{
    uint32_t steps = 0;
    const KVNFileNode *node = this;
    for (; !node->isAnchor(); node = node->parent_)
        ++steps;
    return node->anchorPlace().depthHint + steps;
}

KVNWeakRef<KVNFileNode> KVNFileNode::directoryNode() const
{
    return isAnchor() ? KVNWeakRef<KVNFileNode>() : KVNWeakRef<KVNFileNode>(parent_);
}

std::optional<KVNFileAttributes> KVNFileNode::fileAttrs() const
{
    using namespace KVNPackedAttributes;
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    if (!(sizeAndType_ & kHasAttrs))
        return std::nullopt;
    if (sizeAndType_ & kExotic)
        return extrasIfAny()->rare->exoticAttrs;
    KVNFileAttributes attrs;
    attrs.fileType = KVNFileType((sizeAndType_ >> kTypeShift) & 3);
    attrs.hasSize = sizeAndType_ & kHasSize;
    attrs.fileSize = sizeAndType_ & kSizeMask;
    attrs.modificationDate =
        KVNDate{modified_ >> kNanosecondBits, uint32_t(modified_ & ((int64_t(1) << kNanosecondBits) - 1))};
    return attrs;
}

void KVNFileNode::setFileAttrs(const std::optional<KVNFileAttributes> &attrs)
{
    {
        using namespace KVNPackedAttributes;
        std::lock_guard guard(KVNStripedLocks::forAddress(this));
        const KVNFileAttributes value = attrs.value_or(KVNFileAttributes());
        const uint64_t present = (attrs ? kHasAttrs : 0) | (value.hasSize ? kHasSize : 0);
        if (fits(value)) {
            sizeAndType_ = present | uint64_t(value.fileType) << kTypeShift | value.fileSize;
            modified_ = int64_t(uint64_t(value.modificationDate.seconds) << kNanosecondBits) |
                        int64_t(value.modificationDate.nanoseconds);
        } else {
            auto &rare = extrasLocked().rare;
            if (!rare)
                rare = std::make_unique<Rare>();
            rare->exoticAttrs = value;
            sizeAndType_ = present | kExotic | uint64_t(value.fileType) << kTypeShift;
        }
    }
    notifyObservers(KVNNodeKey::FileAttrs);
}

void KVNFileNode::setDiffResult(int32_t result)
{
    {
        std::lock_guard guard(monitor_);
        diffResult_.store(result, std::memory_order_release);
        // The parent's own setter runs inside this lock: locks nest child to parent.
        if (auto parent = parentNode())
            parent->notifyParentChangedDiffResult(*this);
    }
    notifyObservers(KVNNodeKey::DiffResult);
}

void KVNFileNode::notifyParentChangedDiffResult(const KVNFileNode &child)
{
    // Deliberately narrow: only a 5, or a 3 under a 2, climbs. The full roll-up
    // of a directory is the directory pass's and the status refresh's.
    const int32_t childResult = child.diffResult();
    if (childResult == KVNDiffResultDifferSingle)
        setDiffResult(KVNDiffResultDifferSingle);
    else if (childResult == KVNDiffResultSingle && diffResult() == KVNDiffResultDiffer)
        setDiffResult(KVNDiffResultDifferSingle);
}

// Paths are put together when asked and not kept: a million kept paths would
// weigh more than the nodes. A node below its anchor adds "/name" per level.
void KVNFileNode::appendRelativePath(QByteArray &path, bool lowercase) const
{
    QVarLengthArray<const KVNFileNode *, 24> chain;
    const KVNFileNode *node = this;
    for (; !node->isAnchor(); node = node->parent_)
        chain.append(node);
    const KVNNodeAnchor &anchor = node->anchorPlace();
    if (node->isRoot()) {
        path += '.';
    } else {
        path += lowercase ? anchor.lowercaseRelativeDirectory : anchor.relativeDirectory;
        path += '/';
        path += lowercase ? KVNPathBytes::lowercaseName(node->nameView()) : node->name();
    }
    for (qsizetype i = chain.size() - 1; i >= 0; --i) {
        path += '/';
        if (lowercase)
            path += KVNPathBytes::lowercaseName(chain[i]->nameView());
        else
            path += chain[i]->nameView();
    }
}

QByteArray KVNFileNode::relativePath() const
{
    if (isRoot())
        return QByteArrayLiteral("./");
    if (isTransient())
        return absolutePath();
    QByteArray path;
    path.reserve(64);
    appendRelativePath(path, false);
    return path;
}

QByteArray KVNFileNode::lowercaseRelativePath() const
{
    if (isRoot())
        return QByteArrayLiteral("./");
    QByteArray path;
    path.reserve(64);
    appendRelativePath(path, true);
    return path;
}

uint64_t KVNFileNode::lowercaseRelativePathHash() const
{
    if (isAnchor()) {
        const QByteArray key = lowercaseRelativePath();
        return KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, key.constData(), key.size());
    }
    // The same value as hashing the whole key: the anchor's key, then "/name" per level.
    QVarLengthArray<const KVNFileNode *, 24> chain;
    const KVNFileNode *node = this;
    for (; !node->isAnchor(); node = node->parent_)
        chain.append(node);
    uint64_t hash;
    if (node->isRoot()) {
        hash = KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, ".", 1);
    } else {
        const QByteArray key = node->lowercaseRelativePath();
        hash = KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, key.constData(), key.size());
    }
    for (qsizetype i = chain.size() - 1; i >= 0; --i)
        hash = KVNPathBytes::hashLowercaseName(KVNPathBytes::hashBytes(hash, "/", 1), chain[i]->nameView());
    return hash;
}

bool KVNFileNode::hasLowercaseRelativePath(const QByteArray &key) const
{
    return key == lowercaseRelativePath();
}

bool KVNFileNode::hasSameLowercaseRelativePath(const KVNFileNode &other) const
{
    // Level by level while both derive their place; siblings meet at one parent.
    const KVNFileNode *a = this;
    const KVNFileNode *b = &other;
    while (a != b) {
        if (a->isAnchor() || b->isAnchor()) {
            if (a->isRoot() || b->isRoot())
                return a->isRoot() && b->isRoot();
            return a->lowercaseRelativePath() == b->lowercaseRelativePath();
        }
        if (!KVNPathBytes::lowercaseNamesEqual(a->nameView(), b->nameView()))
            return false;
        a = a->parent_;
        b = b->parent_;
    }
    return true;
}

QByteArray KVNFileNode::absolutePath() const
{
    const KVNFileNode *top = anchor();
    const KVNNodeAnchor &place = top->anchorPlace();
    if (isRoot())
        return place.basePath.isEmpty() ? QByteArrayLiteral("/") : place.basePath;
    if (isTransient())
        return place.relativeDirectory + '/' + name();
    QByteArray path = place.basePath;
    path.reserve(place.basePath.size() + 64);
    QByteArray relative;
    appendRelativePath(relative, false);
    path += QByteArrayView(relative).sliced(1); // drop the leading "."
    return path;
}

QByteArray KVNFileNode::directoryPath() const
{
    if (isRoot())
        return absolutePath();
    if (isTransient())
        return anchorPlace().relativeDirectory;
    QByteArray path = absolutePath();
    path.chop(nameSize_ + 1);
    return path;
}

QString KVNFileNode::displayRelativePath() const
{
    return KVNPathBytes::displayString(relativePath());
}

std::optional<KVNDate> KVNFileNode::modifiedDate() const
{
    auto attrs = fileAttrs();
    if (!attrs)
        return std::nullopt;
    return attrs->modificationDate;
}

bool KVNFileNode::isDirectory() const
{
    using namespace KVNPackedAttributes;
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    return (sizeAndType_ & kHasAttrs) && KVNFileType((sizeAndType_ >> kTypeShift) & 3) == KVNFileType::Directory;
}

bool KVNFileNode::isApplication() const
{
    return isDirectory() && hasExtension(nameView(), {"app"});
}

bool KVNFileNode::isBundle() const
{
    return isDirectory() &&
           hasExtension(nameView(), {"app", "bundle", "framework", "plugin", "kvplugin", "kext", "pkg", "mpkg", "xpc",
                                     "appex", "docset", "qlgenerator", "saver", "prefpane"});
}

uint64_t KVNFileNode::fileSizeWChildren() const
{
    if (!isDirectory()) {
        auto attrs = fileAttrs();
        return attrs ? attrs->fileSize : 0;
    }
    uint64_t total = 0;
    // Iterative, so that a deep tree cannot exhaust the stack.
    std::vector<const KVNFileNode *> pending{this};
    while (!pending.empty()) {
        const KVNFileNode *node = pending.back();
        pending.pop_back();
        for (const auto &child : node->childNodes()) {
            if (child->isDirectory())
                pending.push_back(child.get());
            else if (auto attrs = child->fileAttrs())
                total += attrs->fileSize;
        }
    }
    return total;
}

QString KVNFileNode::fileSizeLabel() const
{
    if (isDirectory() && !isApplication() && !isBundle())
        return QStringLiteral("--");
    const uint64_t size = fileSizeWChildren();
    // The shifts truncate: no rounding, powers of 1024.
    if (size <= 1023)
        return QStringLiteral("%1 B").arg(size);
    if (size <= 0xFFFFF)
        return QStringLiteral("%1 KB").arg(size >> 10);
    if (size <= 0x3FFFFFFF)
        return QStringLiteral("%1 MB").arg(size >> 20);
    return QStringLiteral("%1 GB").arg(size >> 30);
}

QString KVNFileNode::cachedKind() const
{
    const Extras *extras = extrasIfAny();
    if (!extras)
        return QString();
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    return extras->rare ? extras->rare->spotlightItemKind : QString();
}

QString KVNFileNode::spotlightItemKind() const
{
    QString kind = cachedKind();
    if (!kind.isEmpty())
        return kind;
    auto attrs = fileAttrs();
    if (!attrs)
        return QString();
    switch (attrs->fileType) {
    case KVNFileType::Directory:
        kind = isApplication() ? QStringLiteral("Application")
               : isBundle()    ? QStringLiteral("Package")
                               : QStringLiteral("Folder");
        break;
    case KVNFileType::SymbolicLink:
        kind = QStringLiteral("Symbolic Link");
        break;
    case KVNFileType::Other:
        kind = QStringLiteral("Special File");
        break;
    case KVNFileType::Regular: {
        // By name only: reading contents to guess a kind costs a file read per row.
        static const QMimeDatabase database;
        kind = database.mimeTypeForFile(displayRelativePath(), QMimeDatabase::MatchExtension).comment();
        break;
    }
    }
    if (kind.isEmpty() || isTransient())
        return kind;
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    auto &rare = const_cast<KVNFileNode *>(this)->extrasLocked().rare;
    if (!rare)
        rare = std::make_unique<Rare>();
    rare->spotlightItemKind = kind;
    return kind;
}

QString KVNFileNode::spotlightItemFSName() const
{
    if (isRoot())
        return KVNPathBytes::displayString(KVNPathBytes::lastComponent(absolutePath()));
    return KVNPathBytes::displayString(name());
}

std::optional<uint64_t> KVNFileNode::spotlightItemFSSize() const
{
    auto attrs = fileAttrs();
    if (!attrs || !attrs->hasSize)
        return std::nullopt;
    return attrs->fileSize;
}

QString KVNFileNode::description() const
{
    return QStringLiteral("KVNFileNode: path: %1").arg(KVNPathBytes::displayString(absolutePath()));
}

int KVNFileNode::caseInsensitiveCompareLastPathComponent(const KVNFileNode &other) const
{
    const QString mine = spotlightItemFSName();
    const QString theirs = other.spotlightItemFSName();
    if (theirs.isEmpty() && !mine.isEmpty())
        return 1;
    const int order = QString::compare(mine, theirs, Qt::CaseInsensitive);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

void KVNFileNode::addObserver(KVNNodeObserver *observer)
{
    if (!observer)
        return;
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    // Nearly every node has exactly one row watching it: that one needs no list.
    if (link_.load(std::memory_order_relaxed) == 0) {
        link_.store(reinterpret_cast<std::uintptr_t>(observer), std::memory_order_release);
        return;
    }
    Extras &extras = extrasLocked();
    if (!extras.firstObserver) {
        extras.firstObserver = observer;
        return;
    }
    if (!extras.rare)
        extras.rare = std::make_unique<Rare>();
    extras.rare->moreObservers.push_back(observer);
}

void KVNFileNode::removeObserver(const KVNNodeObserver *observer)
{
    // One entry for this observer goes.
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    Extras *extras = extrasIfAny();
    if (!extras) {
        if (link_.load(std::memory_order_relaxed) == reinterpret_cast<std::uintptr_t>(observer))
            link_.store(0, std::memory_order_release);
        return;
    }
    if (extras->firstObserver == observer) {
        extras->firstObserver = nullptr;
        return;
    }
    if (extras->rare) {
        auto &list = extras->rare->moreObservers;
        if (auto it = std::find(list.begin(), list.end(), observer); it != list.end())
            list.erase(it);
    }
}

void KVNFileNode::notifyObservers(KVNNodeKey key)
{
    QVarLengthArray<KVNNodeObserver *, 2> pinned;
    {
        std::lock_guard guard(KVNStripedLocks::forAddress(this));
        const Extras *extras = extrasIfAny();
        auto *first =
            extras ? extras->firstObserver : reinterpret_cast<KVNNodeObserver *>(link_.load(std::memory_order_relaxed));
        if (first && first->retainObserver())
            pinned.append(first);
        if (extras && extras->rare)
            for (KVNNodeObserver *observer : extras->rare->moreObservers)
                if (observer->retainObserver())
                    pinned.append(observer);
    }
    // Observers run outside the striped lock: they take row locks of their own,
    // and letting one go may end it, which removes it from this node.
    for (KVNNodeObserver *observer : pinned)
        observer->observeValueForKeyPath(key, *this);
    for (KVNNodeObserver *observer : pinned)
        observer->releaseObserver();
}

KVNValue KVNFileNode::valueForKey(QStringView key) const
{
    if (key == u"spotlightItemFSName")
        return KVNValue::fromString(spotlightItemFSName());
    if (key == u"diffResult")
        return KVNValue::fromInteger(diffResult());
    if (key == u"isDirectory")
        return KVNValue::fromBool(isDirectory());
    if (key == u"spotlightItemKind") {
        const QString kind = spotlightItemKind();
        return kind.isEmpty() ? KVNValue() : KVNValue::fromString(kind);
    }
    if (key == u"spotlightItemFSSize") {
        auto size = spotlightItemFSSize();
        return size ? KVNValue::fromInteger(int64_t(*size)) : KVNValue();
    }
    if (key == u"depthHint")
        return KVNValue::fromInteger(depthHint());
    if (key == u"relativePath")
        return KVNValue::fromString(displayRelativePath());
    if (key == u"lowercaseRelativePath")
        return KVNValue::fromString(KVNPathBytes::displayString(lowercaseRelativePath()));
    if (key == u"absolutePath")
        return KVNValue::fromString(KVNPathBytes::displayString(absolutePath()));
    if (key == u"modifiedDate") {
        auto date = modifiedDate();
        return date ? KVNValue::fromDate(*date) : KVNValue();
    }
    if (key == u"fileSizeWChildren")
        return KVNValue::fromInteger(int64_t(fileSizeWChildren()));
    if (key == u"fileSizeLabel")
        return KVNValue::fromString(fileSizeLabel());
    if (key == u"isApplication")
        return KVNValue::fromBool(isApplication());
    if (key == u"isBundle")
        return KVNValue::fromBool(isBundle());
    if (key == u"crc32")
        return KVNValue::fromInteger(crc32());
    if (key == u"parentNode")
        return KVNValue::fromObject(parentNode());
    return KVNValue();
}

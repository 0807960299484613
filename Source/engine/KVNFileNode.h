#pragma once

#include "KVNDiffResult.h"
#include "KVNFileAttributes.h"
#include "KVNRef.h"
#include "KVNTinyLock.h"
#include "KVNValue.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

class KVNFileNode;
struct KVNNodeAnchor;
using KVNFileNodePtr = KVNRef<KVNFileNode>;

// The two properties of a node that rows observe.
enum class KVNNodeKey { DiffResult, FileAttrs };

// Told synchronously, on the thread that changed the node, after the change.
// A node keeps its observers by address, one word each: it tells one only
// after retainObserver() has pinned it, and an observer removes itself from
// its nodes before it goes.
class KVNNodeObserver {
public:
    virtual ~KVNNodeObserver() = default;
    virtual void observeValueForKeyPath(KVNNodeKey key, KVNFileNode &node) = 0;
    // False once the observer is on its way out.
    virtual bool retainObserver() noexcept = 0;
    virtual void releaseObserver() noexcept = 0;
};

// One scanned item of one side: a file, a symbolic link or a directory.
// Nodes are counted in place and their names are stored behind them: one
// pooled allocation of a few dozen bytes per item, with no virtual table
// (predicates reach a node through KVNValue::fromObject). A node reaches its
// path through its parents, whose memory it keeps (a weak count) even after
// their use has ended.
class KVNFileNode : public KVNRefCounted<KVNFileNode> {
public:
    static constexpr uint32_t KVNTransientDepthHint = 0xFFFFFFFFu;

    // A node of a tree under basePath. relativePath starts with "./" ("./" is
    // the root). The node is not added to the parent's children: addChildNode does that.
    static KVNFileNodePtr make(const QByteArray &basePath, const QByteArray &relativePath, const KVNFileNodePtr &parent,
                               uint32_t depthHint);
    // The scanner's fast way to the same node: a child of parent named name.
    static KVNFileNodePtr makeChild(const KVNFileNodePtr &parent, const QByteArray &name);
    // A one-off node for an absolute path, with attributes read from disk and no cache.
    static KVNFileNodePtr makeTransient(const QByteArray &absolutePath);

    // Structure
    void addChildNode(const KVNFileNodePtr &child);
    // Room for count more children, for a scan that knows how many will come.
    void reserveChildNodes(std::size_t count);
    std::span<const KVNFileNodePtr> childNodes() const; // empty when none (nil); stays while the node is in use
    bool hasChildNodes() const;
    // Nil once the parent is no longer in use.
    KVNFileNodePtr parentNode() const;
    uint32_t depthHint() const;
    bool isRoot() const { return flags_ & kRoot; }
    bool isTransient() const { return flags_ & kTransient; }

    // Attributes
    std::optional<KVNFileAttributes> fileAttrs() const;
    void setFileAttrs(const std::optional<KVNFileAttributes> &attrs); // notifies "fileAttrs"
    uint32_t crc32() const { return crc32_.load(std::memory_order_relaxed); }
    void setCrc32(uint32_t crc) { crc32_.store(crc, std::memory_order_relaxed); }

    // Result
    int32_t diffResult() const { return diffResult_.load(std::memory_order_acquire); }
    void setDiffResult(int32_t result); // notifies "diffResult"; a KVNDiffResult value
    void notifyParentChangedDiffResult(const KVNFileNode &child);

    // Derived values
    QByteArray name() const { return QByteArray(nameData(), nameSize_); } // raw bytes; empty on a root
    QByteArrayView nameView() const { return QByteArrayView(nameData(), nameSize_); }
    const char *nameData() const { return nameHead_; } // NUL-ended, from the node's last bytes onwards
    QByteArray absolutePath() const;
    // The absolute path of the directory that holds the node (on a root, the root's own).
    QByteArray directoryPath() const;
    // The node of the containing directory as the scan made it, whether in use
    // or not; null for a node that was not made under its directory's node.
    // Siblings answer the same, and the address is not reused while it is held.
    KVNWeakRef<KVNFileNode> directoryNode() const;
    QByteArray relativePath() const;
    QByteArray lowercaseRelativePath() const;
    // The pairing key's hash, and tests against a key, without making the key.
    uint64_t lowercaseRelativePathHash() const;
    bool hasLowercaseRelativePath(const QByteArray &key) const;
    bool hasSameLowercaseRelativePath(const KVNFileNode &other) const;
    QString displayRelativePath() const;
    std::optional<KVNDate> modifiedDate() const;
    QString fileSizeLabel() const;
    uint64_t fileSizeWChildren() const;
    bool isDirectory() const;
    bool isApplication() const;
    bool isBundle() const;
    QString spotlightItemKind() const;   // empty when unknown
    QString spotlightItemFSName() const; // the last path component, for display and predicates
    std::optional<uint64_t> spotlightItemFSSize() const;
    QString description() const;

    // Sibling order of the table: by last path component, without regard to case.
    int caseInsensitiveCompareLastPathComponent(const KVNFileNode &other) const;

    // Observation by the rows that show this node.
    void addObserver(KVNNodeObserver *observer);
    void removeObserver(const KVNNodeObserver *observer);

    KVNValue valueForKey(QStringView key) const;

private:
    friend class KVNRefCounted<KVNFileNode>;
    enum Flags : uint8_t { kRoot = 1, kTransient = 2, kAnchored = 16 };
    struct Extras;
    struct Rare;
    // link_ holds the one observer of a plain node, or (tagged) its Extras.
    static constexpr std::uintptr_t kExtrasTag = 1;

    static std::size_t blockSize(std::size_t nameSize);
    static KVNFileNode *allocate(QByteArrayView name);
    static void destroy(KVNFileNode *node);
    KVNFileNode() = default;
    ~KVNFileNode();
    void dispose();
    Extras *extrasIfAny() const
    {
        const std::uintptr_t link = link_.load(std::memory_order_acquire);
        return link & kExtrasTag ? reinterpret_cast<Extras *>(link & ~kExtrasTag) : nullptr;
    }
    Extras &extras();
    Extras &extrasLocked(); // with the striped lock held
    const KVNNodeAnchor &anchorPlace() const;
    void setAnchor(KVNNodeAnchor anchor);
    bool isAnchor() const { return flags_ & kAnchored; } // keeps its own location instead of deriving it
    const KVNFileNode *anchor() const;
    void appendRelativePath(QByteArray &path, bool lowercase) const;
    void notifyObservers(KVNNodeKey key);
    QString cachedKind() const;

    const KVNFileNode *parent_ = nullptr; // a weak count: the memory stays, the use may end
    // An observer (untagged, guarded by a striped lock) or the Extras: children,
    // observers, a cached kind, an anchor's location. Extras never go away.
    std::atomic<std::uintptr_t> link_{0};
    // The attributes, packed (KVNPackedAttributes) and guarded by a striped lock.
    uint64_t sizeAndType_ = 0;
    int64_t modified_ = 0;
    std::atomic<uint32_t> crc32_{0};
    std::atomic<int8_t> diffResult_{KVNDiffResultUnknown}; // one of the few KVNDiffResult values
    KVNTinyLock monitor_;                                  // taken by setDiffResult; nests from child to parent
    uint16_t nameSize_ = 0;
    uint8_t flags_ = 0; // fixed once the node is made
    // The name starts here and runs on past the node's end in the same block.
    static constexpr std::size_t kNameHeadSize = 7;
    char nameHead_[kNameHeadSize] = {};
};

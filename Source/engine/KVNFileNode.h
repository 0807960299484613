#pragma once

#include "KVNDiffResult.h"
#include "KVNFileAttributes.h"
#include "KVNTinyLock.h"
#include "KVNValue.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class KVNFileNode;
using KVNFileNodePtr = std::shared_ptr<KVNFileNode>;

// The two properties of a node that rows observe.
enum class KVNNodeKey { DiffResult, FileAttrs };

// Told synchronously, on the thread that changed the node, after the change.
class KVNNodeObserver {
public:
    virtual ~KVNNodeObserver() = default;
    virtual void observeValueForKeyPath(KVNNodeKey key, KVNFileNode &node) = 0;
};

// The place of a directory, shared by all its children: a node keeps its own
// name and this, not a private copy of its whole path, and still answers its
// path after its parent node is gone.
struct KVNNodeLocation {
    std::shared_ptr<const QByteArray> basePath; // absolute, without a trailing slash ("" for "/")
    QByteArray relativeDirectory;               // "." for the root's children, "./a/b" below
    QByteArray lowercaseRelativeDirectory;
    uint64_t lowercaseDirectoryHash = 0; // of lowercaseRelativeDirectory and "/", carried on by the children's names
};

// One scanned item of one side: a file, a symbolic link or a directory.
class KVNFileNode : public KVNKeyValueCoding, public std::enable_shared_from_this<KVNFileNode> {
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

    KVNFileNode(); // use the factories
    ~KVNFileNode() override;

    // Structure
    void addChildNode(const KVNFileNodePtr &child);
    const std::vector<KVNFileNodePtr> &childNodes() const; // empty when none (nil)
    bool hasChildNodes() const { return children_ != nullptr; }
    KVNFileNodePtr parentNode() const { return parent_.lock(); }
    uint32_t depthHint() const { return depthHint_; }
    bool isRoot() const { return flags_ & kRoot; }
    bool isTransient() const { return flags_ & kTransient; }

    // Attributes
    std::optional<KVNFileAttributes> fileAttrs() const;
    void setFileAttrs(const std::optional<KVNFileAttributes> &attrs); // notifies "fileAttrs"
    uint32_t crc32() const { return crc32_.load(std::memory_order_relaxed); }
    void setCrc32(uint32_t crc) { crc32_.store(crc, std::memory_order_relaxed); }

    // Result
    int32_t diffResult() const { return diffResult_.load(std::memory_order_acquire); }
    void setDiffResult(int32_t result); // notifies "diffResult"
    void notifyParentChangedDiffResult(const KVNFileNode &child);

    // Derived values
    QByteArray name() const { return name_; } // raw bytes; empty on a root
    QByteArray absolutePath() const;
    // The directory that holds the node, shared with its siblings, and its
    // absolute path (on a root, the root's own).
    const std::shared_ptr<const KVNNodeLocation> &location() const { return location_; }
    QByteArray directoryPath() const;
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
    void addObserver(const std::weak_ptr<KVNNodeObserver> &observer);
    void removeObserver(const KVNNodeObserver *observer);

    KVNValue valueForKey(QStringView key) const override;

private:
    enum Flags : uint8_t { kRoot = 1, kTransient = 2 };
    struct LazyCache;
    struct Children;
    struct Observers;

    void notifyObservers(KVNNodeKey key);
    std::shared_ptr<const KVNNodeLocation> childLocation();
    QString cachedKind() const;

    std::weak_ptr<KVNFileNode> parent_;
    std::shared_ptr<const KVNNodeLocation> location_;
    QByteArray name_;
    std::unique_ptr<Children> children_;           // guarded by the scan: only it adds children
    std::weak_ptr<KVNNodeObserver> firstObserver_; // guarded by a striped lock
    std::unique_ptr<Observers> observers_;         // the others; guarded by a striped lock
    mutable std::unique_ptr<LazyCache> lazyAttrs_; // guarded by a striped lock
    KVNFileAttributes attrs_;                      // guarded by a striped lock
    std::atomic<int32_t> diffResult_{KVNDiffResultUnknown};
    std::atomic<uint32_t> crc32_{0};
    uint32_t depthHint_ = 0;
    KVNTinyLock monitor_; // taken by setDiffResult; nests from child to parent
    uint8_t flags_ = 0;
    bool hasAttrs_ = false;
};

#include "KVNFileNode.h"

#include "KVNPathBytes.h"

#include <QMimeDatabase>

#include <mutex>

namespace {

const std::vector<KVNFileNodePtr> kNoChildren;

// Directories that hold an application or another kind of package; a package
// is shown with a size and an application is never rolled up.
bool hasExtension(const QByteArray &name, std::initializer_list<const char *> extensions)
{
    const QByteArray extension = KVNPathBytes::pathExtension(name).toLower();
    if (extension.isEmpty())
        return false;
    for (const char *candidate : extensions)
        if (extension == candidate)
            return true;
    return false;
}

std::shared_ptr<const QByteArray> normalisedBase(const QByteArray &basePath)
{
    QByteArray base = basePath;
    while (base.endsWith('/'))
        base.chop(1);
    return std::make_shared<const QByteArray>(base);
}

std::shared_ptr<const KVNNodeLocation> makeLocation(std::shared_ptr<const QByteArray> basePath, QByteArray relative,
                                                    QByteArray lowercase)
{
    uint64_t hash = KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, lowercase.constData(), lowercase.size());
    hash = KVNPathBytes::hashBytes(hash, "/", 1);
    return std::make_shared<const KVNNodeLocation>(
        KVNNodeLocation{std::move(basePath), std::move(relative), std::move(lowercase), hash});
}

} // namespace

struct KVNFileNode::LazyCache {
    QString spotlightItemKind;
};

struct KVNFileNode::Children {
    std::vector<KVNFileNodePtr> nodes;
    std::shared_ptr<const KVNNodeLocation> location;
};

struct KVNFileNode::Observers {
    std::vector<std::weak_ptr<KVNNodeObserver>> list;
};

KVNFileNode::KVNFileNode() = default;
KVNFileNode::~KVNFileNode() = default;

KVNFileNodePtr KVNFileNode::make(const QByteArray &basePath, const QByteArray &relativePath,
                                 const KVNFileNodePtr &parent, uint32_t depthHint)
{
    auto node = std::make_shared<KVNFileNode>();
    node->parent_ = parent;
    node->depthHint_ = depthHint;
    QByteArray relative = relativePath;
    while (relative.size() > 2 && relative.endsWith('/'))
        relative.chop(1);
    if (relative == "./" || relative == "." || relative.isEmpty()) {
        node->flags_ |= kRoot;
        node->location_ = makeLocation(normalisedBase(basePath), QByteArray(), QByteArray());
        return node;
    }
    if (!relative.startsWith("./"))
        relative.prepend("./");
    const qsizetype slash = relative.lastIndexOf('/');
    node->name_ = relative.mid(slash + 1);
    const QByteArray directory = relative.left(slash);
    if (parent && parent->relativePath() == (directory == "." ? QByteArray("./") : directory)) {
        node->location_ = parent->childLocation();
    } else {
        node->location_ = makeLocation(normalisedBase(basePath), directory, KVNPathBytes::lowercasePath(directory));
    }
    return node;
}

KVNFileNodePtr KVNFileNode::makeChild(const KVNFileNodePtr &parent, const QByteArray &name)
{
    auto node = std::make_shared<KVNFileNode>();
    node->parent_ = parent;
    node->depthHint_ = parent->depthHint_ + 1;
    node->name_ = name;
    node->location_ = parent->childLocation();
    return node;
}

KVNFileNodePtr KVNFileNode::makeTransient(const QByteArray &absolutePath)
{
    auto node = std::make_shared<KVNFileNode>();
    node->flags_ |= kTransient;
    node->depthHint_ = KVNTransientDepthHint;
    QByteArray path = absolutePath;
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    const qsizetype slash = path.lastIndexOf('/');
    node->name_ = slash < 0 ? path : path.mid(slash + 1);
    const QByteArray directory = slash < 0 ? QByteArray() : path.left(slash);
    node->location_ =
        makeLocation(std::make_shared<const QByteArray>(), directory, KVNPathBytes::lowercasePath(directory));
    KVNDirectoryEntry entry;
    if (KVNDirectoryReader::attributesOfItem(path, entry))
        node->setFileAttrs(KVNFileAttributes::fromEntry(entry));
    return node;
}

std::shared_ptr<const KVNNodeLocation> KVNFileNode::childLocation()
{
    // Only the scan adds children, on its own thread, before anyone else sees the tree.
    if (!children_)
        children_ = std::make_unique<Children>();
    if (!children_->location) {
        const QByteArray relative = isRoot() ? QByteArray(".") : relativePath();
        const QByteArray lowercase = isRoot() ? QByteArray(".") : lowercaseRelativePath();
        children_->location = makeLocation(location_->basePath, relative, lowercase);
    }
    return children_->location;
}

void KVNFileNode::addChildNode(const KVNFileNodePtr &child)
{
    if (!child)
        return;
    if (!children_)
        children_ = std::make_unique<Children>();
    children_->nodes.push_back(child);
    child->parent_ = weak_from_this();
}

const std::vector<KVNFileNodePtr> &KVNFileNode::childNodes() const
{
    return children_ ? children_->nodes : kNoChildren;
}

std::optional<KVNFileAttributes> KVNFileNode::fileAttrs() const
{
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    if (!hasAttrs_)
        return std::nullopt;
    return attrs_;
}

void KVNFileNode::setFileAttrs(const std::optional<KVNFileAttributes> &attrs)
{
    {
        std::lock_guard guard(KVNStripedLocks::forAddress(this));
        hasAttrs_ = attrs.has_value();
        attrs_ = attrs.value_or(KVNFileAttributes());
    }
    notifyObservers(KVNNodeKey::FileAttrs);
}

void KVNFileNode::setDiffResult(int32_t result)
{
    {
        std::lock_guard guard(monitor_);
        diffResult_.store(result, std::memory_order_release);
        // The parent's own setter runs inside this lock: locks nest child to parent.
        if (auto parent = parent_.lock())
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

uint64_t KVNFileNode::lowercaseRelativePathHash() const
{
    if (isRoot() || isTransient()) {
        const QByteArray key = lowercaseRelativePath();
        return KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, key.constData(), key.size());
    }
    return KVNPathBytes::hashLowercaseName(location_->lowercaseDirectoryHash, name_);
}

bool KVNFileNode::hasLowercaseRelativePath(const QByteArray &key) const
{
    if (isRoot() || isTransient())
        return key == lowercaseRelativePath();
    const QByteArray &directory = location_->lowercaseRelativeDirectory;
    const qsizetype nameStart = directory.size() + 1;
    return key.size() >= nameStart && key[directory.size()] == '/' && key.startsWith(directory) &&
           KVNPathBytes::lowercaseNameEquals(name_, key.constData() + nameStart, key.size() - nameStart);
}

bool KVNFileNode::hasSameLowercaseRelativePath(const KVNFileNode &other) const
{
    if (isRoot() || isTransient() || other.isRoot() || other.isTransient())
        return lowercaseRelativePath() == other.lowercaseRelativePath();
    if (location_ != other.location_ &&
        location_->lowercaseRelativeDirectory != other.location_->lowercaseRelativeDirectory)
        return false;
    const QByteArray otherName = KVNPathBytes::lowercaseName(other.name_);
    return KVNPathBytes::lowercaseNameEquals(name_, otherName.constData(), otherName.size());
}

// The paths are put together when asked and not kept: both parts are at
// hand, and a million kept paths would weigh more than the nodes.
QByteArray KVNFileNode::relativePath() const
{
    if (isRoot())
        return QByteArrayLiteral("./");
    if (isTransient())
        return absolutePath();
    QByteArray path;
    path.reserve(location_->relativeDirectory.size() + 1 + name_.size());
    path += location_->relativeDirectory;
    path += '/';
    path += name_;
    return path;
}

QByteArray KVNFileNode::lowercaseRelativePath() const
{
    if (isRoot())
        return QByteArrayLiteral("./");
    QByteArray path;
    const QByteArray lowerName = KVNPathBytes::lowercaseName(name_);
    path.reserve(location_->lowercaseRelativeDirectory.size() + 1 + lowerName.size());
    path += location_->lowercaseRelativeDirectory;
    path += '/';
    path += lowerName;
    return path;
}

QByteArray KVNFileNode::directoryPath() const
{
    const QByteArray &base = *location_->basePath;
    if (isRoot())
        return base.isEmpty() ? QByteArrayLiteral("/") : base;
    if (isTransient())
        return location_->relativeDirectory;
    QByteArray path = base;
    path += QByteArrayView(location_->relativeDirectory).sliced(1); // drop the leading "."
    return path;
}

QByteArray KVNFileNode::absolutePath() const
{
    if (isRoot())
        return directoryPath();
    return directoryPath() + '/' + name_;
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
    auto attrs = fileAttrs();
    return attrs && attrs->fileType == KVNFileType::Directory;
}

bool KVNFileNode::isApplication() const
{
    return isDirectory() && hasExtension(name_, {"app"});
}

bool KVNFileNode::isBundle() const
{
    return isDirectory() && hasExtension(name_, {"app", "bundle", "framework", "plugin", "kvplugin", "kext", "pkg",
                                                 "mpkg", "xpc", "appex", "docset", "qlgenerator", "saver", "prefpane"});
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
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    return lazyAttrs_ ? lazyAttrs_->spotlightItemKind : QString();
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
    if (!lazyAttrs_)
        lazyAttrs_ = std::make_unique<LazyCache>();
    lazyAttrs_->spotlightItemKind = kind;
    return kind;
}

QString KVNFileNode::spotlightItemFSName() const
{
    if (isRoot())
        return KVNPathBytes::displayString(KVNPathBytes::lastComponent(absolutePath()));
    return KVNPathBytes::displayString(name_);
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

void KVNFileNode::addObserver(const std::weak_ptr<KVNNodeObserver> &observer)
{
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    // Nearly every node has exactly one row watching it: that one needs no list.
    if (firstObserver_.expired()) {
        firstObserver_ = observer;
        return;
    }
    if (!observers_)
        observers_ = std::make_unique<Observers>();
    observers_->list.push_back(observer);
}

void KVNFileNode::removeObserver(const KVNNodeObserver *observer)
{
    std::lock_guard guard(KVNStripedLocks::forAddress(this));
    // One entry for this observer goes, and dead entries with it.
    bool removed = false;
    if (auto first = firstObserver_.lock(); !first || first.get() == observer) {
        removed = first != nullptr;
        firstObserver_.reset();
    }
    if (!observers_)
        return;
    auto &list = observers_->list;
    std::erase_if(list, [&](const std::weak_ptr<KVNNodeObserver> &weak) {
        auto locked = weak.lock();
        if (!locked)
            return true;
        if (!removed && locked.get() == observer) {
            removed = true;
            return true;
        }
        return false;
    });
    if (list.empty())
        observers_.reset();
}

void KVNFileNode::notifyObservers(KVNNodeKey key)
{
    std::shared_ptr<KVNNodeObserver> first;
    std::vector<std::shared_ptr<KVNNodeObserver>> more;
    {
        std::lock_guard guard(KVNStripedLocks::forAddress(this));
        first = firstObserver_.lock();
        if (observers_)
            for (const auto &weak : observers_->list)
                if (auto observer = weak.lock())
                    more.push_back(std::move(observer));
    }
    // Observers run outside the striped lock: they take row locks of their own.
    if (first)
        first->observeValueForKeyPath(key, *this);
    for (auto &observer : more)
        observer->observeValueForKeyPath(key, *this);
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
        return KVNValue::fromInteger(depthHint_);
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

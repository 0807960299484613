#include "KVNBuildTreeFastOperation.h"

#include "KVNDirectoryReader.h"
#include "KVNException.h"

#include <QFile>

#include <deque>
#include <sys/stat.h>

KVNBuildTreeFastOperation::KVNBuildTreeFastOperation(QByteArray baseURL) : baseURL_(std::move(baseURL)) {}

QByteArray KVNBuildTreeFastOperation::baseURL() const
{
    std::lock_guard lock(mutex_);
    return baseURL_;
}

KVNFileTreePtr KVNBuildTreeFastOperation::fileTree() const
{
    std::lock_guard lock(mutex_);
    return fileTree_;
}

void KVNBuildTreeFastOperation::main()
{
    // The only test for a cancel: once begun, a scan runs to its end.
    if (isCancelled())
        return;
    const QByteArray base = baseURL();
    struct stat info;
    if (::stat(base.constData(), &info) != 0)
        throw KVNException(QStringLiteral("KVNBuildTreeFastException"),
                           QStringLiteral("Unable to make FSRef from path"));

    auto lookup = std::make_shared<KVNRelativeLookupDict>();
    lookup->reserve(8192);
    KVNFileNodePtr root = KVNFileNode::make(base, "./", nullptr, 0);
    std::deque<KVNFileNodePtr> pending{root};
    KVNDirectoryReader reader;
    std::vector<KVNDirectoryEntry> entries;
    uint64_t count = 0;

    // Breadth-first: every directory of one level is read before the next level.
    while (!pending.empty()) {
        KVNFileNodePtr directory = std::move(pending.front());
        pending.pop_front();
        const KVNScanStatus status = reader.readDirectory(directory->absolutePath(), entries);
        // A directory that refuses access stays, empty; any other failure ends
        // the scan and what was built is delivered as it stands.
        if (status == KVNScanStatus::AccessDenied)
            continue;
        if (status != KVNScanStatus::Ok)
            break;
        if (!entries.empty())
            directory->reserveChildNodes(entries.size());
        for (const KVNDirectoryEntry &entry : entries) {
            // Linux names never hold "/", so there is nothing to swap for ":".
            KVNFileNodePtr node = KVNFileNode::makeChild(directory, entry.name);
            node->setFileAttrs(KVNFileAttributes::fromEntry(entry));
            directory->addChildNode(node);
            if (entry.type == KVNFileType::Directory)
                pending.push_back(node);
            // A later entry with the same key replaces the earlier one.
            lookup->insert(node);
            ++count;
        }
        itemCount_.store(count, std::memory_order_relaxed);
    }

    lookup->squeeze();
    std::lock_guard lock(mutex_);
    fileTree_ = std::make_shared<const KVNFileTree>(std::move(lookup), std::move(root));
}

#pragma once

#include "KVNFileTree.h"
#include "KVNOperation.h"

#include <QByteArray>

#include <atomic>
#include <memory>
#include <mutex>

// Reads one whole directory tree, breadth-first, into nodes. The tree is
// private to the operation's thread until it has finished.
class KVNBuildTreeFastOperation : public KVNOperation {
public:
    explicit KVNBuildTreeFastOperation(QByteArray baseURL);
    static std::shared_ptr<KVNBuildTreeFastOperation> make(const QByteArray &baseURL)
    {
        return std::make_shared<KVNBuildTreeFastOperation>(baseURL);
    }

    QByteArray baseURL() const;
    // Null until the operation has finished, and for good when it was cancelled before it started.
    KVNFileTreePtr fileTree() const;
    uint64_t itemCount() const { return itemCount_.load(std::memory_order_relaxed); }

protected:
    void main() override;

private:
    mutable std::mutex mutex_;
    QByteArray baseURL_;
    KVNFileTreePtr fileTree_;
    std::atomic<uint64_t> itemCount_{0};
};

using KVNBuildTreeFastOperationPtr = std::shared_ptr<KVNBuildTreeFastOperation>;

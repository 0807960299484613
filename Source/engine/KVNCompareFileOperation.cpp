#include "KVNCompareFileOperation.h"

#include "KVNCrc32.h"
#include "KVNException.h"
#include "KVNLog.h"
#include "KVNPathBytes.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<uint64_t> gBytesRead{0};
std::atomic<uint64_t> gPairsRead{0};

// Reads are large; checksums still go per 4,096-byte block, which is what
// defines the result. One buffer per side and thread, reused for every pair.
constexpr ssize_t kExtentSize = 256 * 1024;

char *threadBuffer(int side)
{
    thread_local std::unique_ptr<char[]> buffers[2];
    if (!buffers[side])
        buffers[side] = std::make_unique<char[]>(kExtentSize);
    return buffers[side].get();
}

[[noreturn]] void raiseUnableToOpen(const KVNFileNodePtr &node)
{
    throw KVNException(QStringLiteral("KVNFilesCompareException"),
                       QStringLiteral("Unable to open file %1").arg(KVNPathBytes::displayString(node->absolutePath())));
}

// What the scan saw of a node: whether it is a regular file, and its size.
std::pair<bool, int64_t> scannedRegularFile(const KVNFileNodePtr &node)
{
    const auto attrs = node->fileAttrs();
    if (!attrs || attrs->fileType != KVNFileType::Regular || !attrs->hasSize)
        return {false, -1};
    return {true, int64_t(attrs->fileSize)};
}

// The pairs go to the queue in scan order, so a worker mostly compares
// siblings one after another. It keeps the directory it last opened on each
// side and opens the next file relative to it: one lookup of a name instead of
// a walk of the whole path. The directories are let go once the queue has
// nothing ready, so that nothing stays held (and no volume stays busy) between runs.
class DirectoryCache {
public:
    ~DirectoryCache() { clear(); }

    int open(const KVNFileNode &node, int side, int flags)
    {
        // Off a worker nothing would ever let the directory go again.
        KVNWeakRef<KVNFileNode> directory = node.directoryNode();
        if (!directory.get() || !KVNOperation::isWorkerThread())
            return ::open(node.absolutePath().constData(), flags);
        Entry &entry = entries_[side];
        if (entry.directory.get() != directory.get()) {
            if (entry.fd >= 0)
                ::close(entry.fd);
            QByteArray path = node.directoryPath();
            if (path.isEmpty())
                path = "/";
            entry.directory = std::move(directory);
            entry.fd = ::open(path.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            KVNOperation::setIdleWork([] { cache().clear(); });
        }
        if (entry.fd < 0)
            return ::open(node.absolutePath().constData(), flags);
        return ::openat(entry.fd, node.nameData(), flags);
    }

    void clear()
    {
        for (Entry &entry : entries_) {
            if (entry.fd >= 0)
                ::close(entry.fd);
            entry = Entry();
        }
    }

    static DirectoryCache &cache()
    {
        thread_local DirectoryCache perThread;
        return perThread;
    }

private:
    struct Entry {
        KVNWeakRef<KVNFileNode> directory; // held, so that its address is not reused
        int fd = -1;
    };
    Entry entries_[2];
};

// Opens for reading, following a link. A pipe, device or socket would block or
// never end, so it counts as a file that cannot be opened. Only what the scan
// did not see as a regular file needs the look at its type: O_NONBLOCK means
// nothing to a regular file or a directory, and keeps one that has become a
// pipe since the scan from blocking.
int openForCompare(const KVNFileNode &node, int side, bool scannedRegular, int64_t expectedSize)
{
    const int fd = DirectoryCache::cache().open(node, side, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return -1;
    if (!scannedRegular) {
        struct stat info;
        if (::fstat(fd, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISDIR(info.st_mode))) {
            ::close(fd);
            return -1;
        }
    }
    // The read-ahead hint, where there is enough to read ahead; its status is of no interest.
    if (expectedSize < 0 || expectedSize > 4 * kExtentSize)
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

bool sizesEqual(const KVNFileNodePtr &a, const KVNFileNodePtr &b)
{
    auto left = a->fileAttrs();
    auto right = b->fileAttrs();
    const bool leftHas = left && left->hasSize;
    const bool rightHas = right && right->hasSize;
    if (leftHas != rightHas)
        return false;
    return !leftHas || left->fileSize == right->fileSize;
}

} // namespace

struct KVNCompareFileOperation::BlockReader {
    int fd;
    char *buffer;
    // The size the scan saw, or -1. A short read that reaches it is the end of
    // the file, which spares the read that would return 0; a file that has
    // changed size since is read until a read returns 0, as always.
    int64_t expectedSize = -1;
    int64_t total = 0;
    bool atEnd = false;
    ssize_t filled = 0;
    ssize_t offset = 0;

    // The next block: its byte count (0 at the end, negative on a read error) and data.
    ssize_t next(const char *&data)
    {
        if (offset >= filled) {
            ssize_t n = 0;
            if (!atEnd) {
                do {
                    n = ::read(fd, buffer, kExtentSize);
                } while (n < 0 && errno == EINTR);
            }
            if (n <= 0) {
                filled = offset = 0;
                return n;
            }
            gBytesRead.fetch_add(uint64_t(n), std::memory_order_relaxed);
            total += n;
            atEnd = n < kExtentSize && total == expectedSize;
            filled = n;
            offset = 0;
        }
        const ssize_t count = std::min<ssize_t>(KVNCompareFileOperation::kBlockSize, filled - offset);
        data = buffer + offset;
        offset += count;
        return count;
    }
};

KVNCompareFileOperation::KVNCompareFileOperation(std::vector<KVNCompareFileWorkItem> workItems)
    : workItems_(workItems.begin(), workItems.end())
{}

std::vector<KVNOperationPtr>
KVNCompareFileOperation::createFileCompareOps(const std::vector<KVNCompareFileWorkItem> &workItems)
{
    std::vector<KVNOperationPtr> operations;
    operations.reserve(workItems.size());
    for (const auto &item : workItems)
        operations.push_back(std::make_shared<KVNCompareFileOperation>(std::vector<KVNCompareFileWorkItem>{item}));
    return operations;
}

void KVNCompareFileOperation::cancel()
{
    cancelFlag_.store(1, std::memory_order_relaxed);
    KVNOperation::cancel();
}

uint64_t KVNCompareFileOperation::totalBytesRead()
{
    return gBytesRead.load(std::memory_order_relaxed);
}

uint64_t KVNCompareFileOperation::totalPairsRead()
{
    return gPairsRead.load(std::memory_order_relaxed);
}

void KVNCompareFileOperation::main()
{
    if (isCancelled())
        return;
    for (const auto &item : workItems_) {
        try {
            const uint32_t leftCrc = item.fileNodeOriginal ? item.fileNodeOriginal->crc32() : 0;
            const uint32_t rightCrc = leftCrc != 0 && item.fileNodeModified ? item.fileNodeModified->crc32() : 0;
            if (leftCrc != 0 && rightCrc != 0) {
                // Known checksums decide without opening a file.
                const int32_t result = leftCrc == rightCrc ? KVNDiffResultSame : KVNDiffResultDiffer;
                item.fileNodeModified->setDiffResult(result);
                item.fileNodeOriginal->setDiffResult(result);
            } else {
                posixCompareFilesAtFileNode1(item.fileNodeOriginal, item.fileNodeModified, item.compareMethod);
            }
        } catch (const KVNException &e) {
            KVNLog(QStringLiteral("Error comparing files: %1").arg(e.reason()));
        }
        if (isCancelled())
            return;
    }
}

void KVNCompareFileOperation::posixCompareFilesAtFileNode1(const KVNFileNodePtr &node1, const KVNFileNodePtr &node2,
                                                           int32_t compareMethod)
{
    if (!node1 || !node2)
        return;
    int32_t result = KVNDiffResultIncomplete;
    switch (compareMethod) {
    case KVNCompareMethodContents: {
        const auto [leftRegular, leftSize] = scannedRegularFile(node1);
        const auto [rightRegular, rightSize] = scannedRegularFile(node2);
        const int left = openForCompare(*node1, 0, leftRegular, leftSize);
        if (left < 0)
            raiseUnableToOpen(node1);
        const int right = openForCompare(*node2, 1, rightRegular, rightSize);
        if (right < 0) {
            ::close(left);
            raiseUnableToOpen(node2);
        }
        gPairsRead.fetch_add(1, std::memory_order_relaxed);
        result = compareReaders(BlockReader{left, threadBuffer(0), leftSize},
                                BlockReader{right, threadBuffer(1), rightSize});
        ::close(left);
        ::close(right);
        break;
    }
    case KVNCompareMethodSizeAndDate:
        result = sizesEqual(node1, node2) && node1->modifiedDate() == node2->modifiedDate() ? KVNDiffResultSame
                                                                                            : KVNDiffResultDiffer;
        break;
    case KVNCompareMethodDate:
        result = node1->modifiedDate() == node2->modifiedDate() ? KVNDiffResultSame : KVNDiffResultDiffer;
        break;
    case KVNCompareMethodSize:
        result = sizesEqual(node1, node2) ? KVNDiffResultSame : KVNDiffResultDiffer;
        break;
    default:
        break;
    }
    node1->setDiffResult(result);
    node2->setDiffResult(result);
}

int32_t KVNCompareFileOperation::compareFileHandle1(int fileHandle1, int fileHandle2)
{
    return compareReaders(BlockReader{fileHandle1, threadBuffer(0)}, BlockReader{fileHandle2, threadBuffer(1)});
}

int32_t KVNCompareFileOperation::compareReaders(BlockReader left, BlockReader right)
{
    ssize_t leftCount = 1;
    ssize_t rightCount = 1;
    uint32_t lastChecksum = 0;
    for (;;) {
        if (leftCount == 0 || rightCount == 0)
            return KVNDiffResultSame;
        if (isCancelled())
            return KVNDiffResultUnknown;
        const char *leftData = nullptr;
        const char *rightData = nullptr;
        leftCount = left.next(leftData);
        // A failed read counts as a block with the last checksum: it has no exit of its own.
        const uint32_t leftChecksum = leftCount > 0 ? KVNCrc32::crc32(leftData, size_t(leftCount)) : lastChecksum;
        rightCount = right.next(rightData);
        uint32_t rightChecksum = lastChecksum;
        if (rightCount > 0) {
            rightChecksum = KVNCrc32::crc32(rightData, size_t(rightCount));
            lastChecksum = rightChecksum;
        }
        if (leftChecksum != rightChecksum)
            return KVNDiffResultDiffer;
        if (leftCount == 0 && rightCount == 0)
            return KVNDiffResultSame;
        if ((leftCount > 0 && rightCount == 0) || (leftCount == 0 && rightCount > 0))
            return KVNDiffResultDiffer;
    }
}

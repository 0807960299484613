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

struct BlockReader {
    int fd;
    char *buffer;
    ssize_t filled = 0;
    ssize_t offset = 0;

    // The next block: its byte count (0 at the end, negative on a read error) and data.
    ssize_t next(const char *&data)
    {
        if (offset >= filled) {
            ssize_t n;
            do {
                n = ::read(fd, buffer, kExtentSize);
            } while (n < 0 && errno == EINTR);
            if (n <= 0) {
                filled = offset = 0;
                return n;
            }
            gBytesRead.fetch_add(uint64_t(n), std::memory_order_relaxed);
            filled = n;
            offset = 0;
        }
        const ssize_t count = std::min<ssize_t>(KVNCompareFileOperation::kBlockSize, filled - offset);
        data = buffer + offset;
        offset += count;
        return count;
    }
};

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

// Opens for reading, following a link. A pipe, device or socket would block or
// never end, so it counts as a file that cannot be opened.
int openForCompare(const KVNFileNodePtr &node)
{
    const int fd = ::open(node->absolutePath().constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return -1;
    struct stat info;
    if (::fstat(fd, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISDIR(info.st_mode))) {
        ::close(fd);
        return -1;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    // The read-ahead hint; its status is of no interest.
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

KVNCompareFileOperation::KVNCompareFileOperation(std::vector<KVNCompareFileWorkItem> workItems)
    : workItems_(std::move(workItems))
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
        const int left = openForCompare(node1);
        if (left < 0)
            raiseUnableToOpen(node1);
        const int right = openForCompare(node2);
        if (right < 0) {
            ::close(left);
            raiseUnableToOpen(node2);
        }
        gPairsRead.fetch_add(1, std::memory_order_relaxed);
        result = compareFileHandle1(left, right);
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
    BlockReader left{fileHandle1, threadBuffer(0)};
    BlockReader right{fileHandle2, threadBuffer(1)};
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

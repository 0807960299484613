#pragma once

#include "KVNCompareWorkItems.h"
#include "KVNOperation.h"

#include <atomic>
#include <memory>
#include <vector>

// Decides pairs of non-directories: both nodes get 1 (same) or 2 (different)
// by the item's compare method. Contents are compared block by block through
// the CRC-32 of each 4,096-byte block.
class KVNCompareFileOperation : public KVNOperation {
public:
    static constexpr int kBlockSize = 4096;

    explicit KVNCompareFileOperation(std::vector<KVNCompareFileWorkItem> workItems);
    // One pair, without the list a vector of items would cost.
    explicit KVNCompareFileOperation(KVNCompareFilePair pair) : workItems_(std::move(pair)) {}
    static std::vector<KVNOperationPtr> createFileCompareOps(const std::vector<KVNCompareFileWorkItem> &workItems);

    void cancel() override;
    // The result for two open files: 1, 2, or 0 if cancelled.
    int32_t compareFileHandle1(int fileHandle1, int fileHandle2);
    // Sets the result on both nodes. Throws KVNException when a file cannot be opened.
    void posixCompareFilesAtFileNode1(const KVNFileNodePtr &node1, const KVNFileNodePtr &node2, int32_t compareMethod);

    // Figures for statistics, summed over all operations of the process.
    static uint64_t totalBytesRead();
    static uint64_t totalPairsRead();

protected:
    void main() override;

private:
    struct BlockReader;
    int32_t compareReaders(BlockReader left, BlockReader right);

    // One item in every use: kept inline, one allocation fewer per pair.
    KVNCompareItemList<KVNCompareFilePair> workItems_;
    std::atomic<unsigned char> cancelFlag_{0};
};

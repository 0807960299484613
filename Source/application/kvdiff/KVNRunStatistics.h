#pragma once

#include "KVNOperationQueue.h"

#include <QByteArray>

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>

class KVNDirCompDocument;

// Per-stage times and counts of one comparison, gathered from its queue, so
// that a slow stage can be found: kvdiff --stats.
class KVNRunStatistics {
public:
    enum Stage { ScanLeft, ScanRight, Table, CompareFiles, CompareDirs, MarkSingles, Refresh, StageCount };

    // Starts listening to the document's queue; call before the run starts.
    explicit KVNRunStatistics(KVNDirCompDocument &document);
    ~KVNRunStatistics();
    // Writes the figures to standard error.
    void print() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Span {
        Clock::time_point first{};
        Clock::time_point last{};
        uint64_t count = 0;
    };
    void operationRan(const KVNOperation &operation, bool started);

    KVNDirCompDocument &document_;
    QByteArray originalPath_;
    Clock::time_point start_;
    uint64_t bytesReadAtStart_;
    std::size_t operationsAtStart_;
    mutable std::mutex mutex_;
    std::array<Span, StageCount> spans_{};
};

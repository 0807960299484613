#pragma once

#include "KVNOperationQueue.h"

#include <QByteArray>

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>

class KVNDirCompDocument;

// Per-stage times and counts of the runs on a document's queue while this
// listens, so that a slow stage can be found: kvdiff --stats, and the update
// stages of kvn_bench_pipeline.
class KVNRunStatistics {
public:
    enum Stage { ScanLeft, ScanRight, Table, Reconcile, CompareFiles, CompareDirs, MarkSingles, Refresh, StageCount };
    // Seconds from the start of listening; first is negative for a stage that never started.
    struct Figure {
        double first = -1;
        double last = 0;
        uint64_t count = 0;
    };

    // Starts listening to the document's queue; make it before the run starts.
    explicit KVNRunStatistics(KVNDirCompDocument &document);
    ~KVNRunStatistics();
    std::array<Figure, StageCount> figures() const;
    static const char *stageName(Stage stage);
    // Writes the figures of the stages that ran to standard error.
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

// kvn_bench_pipeline: times parts of a comparison that kvdiff does not show
// on their own.
//   scan ORIGINAL MODIFIED [RUNS]         both scans on one queue, as a run starts them
//   rescan ORIGINAL MODIFIED FILE [RUNS]  a full run, then the update after FILE changed
//   rescan-gone ORIGINAL MODIFIED DIR [RUNS]
//                                         the same, after DIR went from both trees, so that
//                                         its rows are removed (moved aside and back)
//   rescan-added ORIGINAL MODIFIED DIR [RUNS]
//                                         the same, after DIR came into both trees, so that
//                                         its rows are inserted
// Both also time the floor of any whole scan: a bare walk of both trees, one
// thread each, with one getdents64 per buffer and one statx per entry, that
// keeps nothing.
#include "KVNBuildTreeFastOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNDirCompDocument.h"
#include "KVNOperationQueue.h"
#include "KVNRunStatistics.h"
#include "KVNUserDefaults.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

int usage()
{
    std::fputs("usage: kvn_bench_pipeline scan ORIGINAL MODIFIED [RUNS]\n"
               "       kvn_bench_pipeline rescan ORIGINAL MODIFIED FILE [RUNS]\n"
               "       kvn_bench_pipeline rescan-gone ORIGINAL MODIFIED DIR [RUNS]\n"
               "       kvn_bench_pipeline rescan-added ORIGINAL MODIFIED DIR [RUNS]\n"
               "FILE is a non-empty regular file inside MODIFIED (absolute, or relative to it);\n"
               "one of its bytes is changed for the rescan and put back afterwards.\n"
               "DIR is a directory relative to both trees; it is moved beside each tree for\n"
               "the rescan (gone) or for the full run (added), and moved back afterwards.\n",
               stderr);
    return 2;
}

int runCount(int argc, char **argv, int at)
{
    const int runs = at < argc ? std::atoi(argv[at]) : 5;
    return std::max(1, runs);
}

// Entries under directoryFd, each stat'ed as the scanner does; a
// subdirectory is opened relative to its parent, the cheapest way down, and
// only when its turn comes, so that a wide tree holds few descriptors.
uint64_t bareWalk(int directoryFd)
{
    struct Record {
        uint64_t inode;
        int64_t offset;
        unsigned short length;
        unsigned char type;
        char name[1];
    };
    // One buffer a thread, as the scanner keeps: a directory is listed whole
    // before the walk goes down.
    thread_local std::vector<char> buffer(256 * 1024);
    std::vector<std::string> subdirectories;
    uint64_t count = 0;
    long got;
    while ((got = ::syscall(SYS_getdents64, directoryFd, buffer.data(), buffer.size())) > 0) {
        for (long at = 0; at < got;) {
            const auto *record = reinterpret_cast<const Record *>(buffer.data() + at);
            at += record->length;
            const char *name = record->name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            ++count;
            struct statx attributes;
            if (::syscall(SYS_statx, directoryFd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                          STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_MTIME, &attributes) == 0 &&
                S_ISDIR(attributes.stx_mode))
                subdirectories.emplace_back(name);
        }
    }
    for (const std::string &name : subdirectories) {
        const int fd = ::openat(directoryFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            continue;
        count += bareWalk(fd);
        ::close(fd);
    }
    return count;
}

// Median seconds of the bare walk of both trees at once.
double walkFloor(const QByteArray &original, const QByteArray &modified, int runs, uint64_t *items)
{
    std::vector<double> seconds;
    for (int run = 0; run < runs; ++run) {
        uint64_t counts[2] = {};
        const double start = now();
        std::thread other([&] {
            const int fd = ::open(modified.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            counts[1] = fd < 0 ? 0 : bareWalk(fd);
            ::close(fd);
        });
        const int fd = ::open(original.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        counts[0] = fd < 0 ? 0 : bareWalk(fd);
        ::close(fd);
        other.join();
        seconds.push_back(now() - start);
        *items = counts[0] + counts[1];
    }
    return median(seconds);
}

int scan(const QByteArray &original, const QByteArray &modified, int runs)
{
    std::vector<double> seconds;
    uint64_t left = 0, right = 0;
    for (int run = 0; run < runs; ++run) {
        KVNOperationQueue queue;
        queue.setMaxConcurrentOperationCount(KVNOperationQueue::KVNOperationQueueDefaultMaxConcurrentOperationCount);
        auto scanLeft = KVNBuildTreeFastOperation::make(original);
        auto scanRight = KVNBuildTreeFastOperation::make(modified);
        const double start = now();
        queue.addOperations({scanLeft, scanRight});
        queue.waitUntilAllOperationsAreFinished();
        seconds.push_back(now() - start);
        left = scanLeft->itemCount();
        right = scanRight->itemCount();
    }
    std::printf("scan: %.3f s median of %d (min %.3f, max %.3f), items %llu + %llu\n", median(seconds), runs,
                *std::min_element(seconds.begin(), seconds.end()), *std::max_element(seconds.begin(), seconds.end()),
                (unsigned long long)left, (unsigned long long)right);
    uint64_t walked = 0;
    const double floor = walkFloor(original, modified, runs, &walked);
    std::printf("scan floor (bare getdents64 + statx walk of both trees at once, nothing kept): %.3f s, %llu items;"
                " scan/floor %.2f\n",
                floor, (unsigned long long)walked, floor > 0 ? median(seconds) / floor : 0.0);
    return 0;
}

void waitForRun(KVNDirCompDocument &document, int completed)
{
    while (document.completedRuns() < completed)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

// What happens on disk between a full run and its update, undone afterwards
// with the times it found, so that the pair stays as it was made.
class Change {
public:
    virtual ~Change() = default;
    virtual void prepare() {} // before the full run
    virtual void apply() = 0;
    virtual void restore() = 0;
    // The file pairs the update must read again, where that is known.
    virtual std::optional<uint64_t> expectedPairs() const = 0;
};

// Changes one byte in the middle of a file.
class ByteFlip final : public Change {
public:
    explicit ByteFlip(const QByteArray &path) : path_(path)
    {
        fd_ = ::open(path.constData(), O_RDWR | O_CLOEXEC);
        if (fd_ < 0 || ::fstat(fd_, &before_) != 0 || !S_ISREG(before_.st_mode) || before_.st_size == 0) {
            std::fprintf(stderr, "kvn_bench_pipeline: %s: not a non-empty regular file\n", path.constData());
            std::exit(2);
        }
        at_ = before_.st_size / 2;
        if (::pread(fd_, &byte_, 1, at_) != 1)
            std::exit(2);
    }
    void apply() override { write(char(~byte_)); }
    void restore() override
    {
        write(byte_);
        const timespec times[2] = {before_.st_atim, before_.st_mtim};
        ::futimens(fd_, times);
    }
    std::optional<uint64_t> expectedPairs() const override { return 1; }
    ~ByteFlip() override { ::close(fd_); }

private:
    void write(char value)
    {
        if (::pwrite(fd_, &value, 1, at_) != 1) {
            std::perror(path_.constData());
            std::exit(2);
        }
    }
    QByteArray path_;
    int fd_ = -1;
    struct stat before_ {};
    off_t at_ = 0;
    char byte_ = 0;
};

// Moves a directory out of both trees to a place beside each, and back:
// after the full run (gone), or before it, to come back for the update
// (added). A place left over from an interrupted run is moved back first.
class SubtreeMove final : public Change {
public:
    enum Kind { Gone, Added };
    SubtreeMove(Kind kind, const QByteArray &original, const QByteArray &modified, const QByteArray &relative)
        : kind_(kind)
    {
        const QByteArray roots[] = {original, modified};
        for (int side = 0; side < 2; ++side) {
            Move &move = moves_[side];
            move.from = roots[side] + '/' + relative;
            move.aside = roots[side] + ".kvn-bench-aside";
            move.parent = move.from.left(move.from.lastIndexOf('/'));
            struct stat info;
            if (::lstat(move.aside.constData(), &info) == 0 && ::lstat(move.from.constData(), &info) != 0)
                rename(move.aside, move.from);
            if (::lstat(move.from.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
                ::stat(move.parent.constData(), &move.parentBefore) != 0) {
                std::fprintf(stderr, "kvn_bench_pipeline: %s: not a directory\n", move.from.constData());
                std::exit(2);
            }
        }
    }
    void prepare() override
    {
        if (kind_ == Added)
            moveAside();
    }
    void apply() override
    {
        if (kind_ == Gone)
            moveAside();
        else
            moveBack();
    }
    void restore() override { moveBack(); }
    // Every pair of a new subtree is read.
    std::optional<uint64_t> expectedPairs() const override
    {
        return kind_ == Gone ? std::optional<uint64_t>(0) : std::nullopt;
    }
    ~SubtreeMove() override { moveBack(); }

private:
    struct Move {
        QByteArray from, aside, parent;
        struct stat parentBefore {};
    };
    static void rename(const QByteArray &from, const QByteArray &to)
    {
        if (::rename(from.constData(), to.constData()) != 0) {
            std::perror(from.constData());
            std::exit(2);
        }
    }
    void moveAside()
    {
        for (const Move &move : moves_)
            rename(move.from, move.aside);
        aside_ = true;
    }
    void moveBack()
    {
        if (!aside_)
            return;
        for (const Move &move : moves_) {
            rename(move.aside, move.from);
            const timespec times[2] = {move.parentBefore.st_atim, move.parentBefore.st_mtim};
            ::utimensat(AT_FDCWD, move.parent.constData(), times, 0);
        }
        aside_ = false;
    }
    Kind kind_;
    Move moves_[2];
    bool aside_ = false;
};

// The median start and end of each stage of the updates, from their start.
void printStages(const std::vector<std::array<KVNRunStatistics::Figure, KVNRunStatistics::StageCount>> &runs)
{
    std::printf("update stages (medians; first start .. last end, seconds from the update's start):\n");
    for (int stage = 0; stage < KVNRunStatistics::StageCount; ++stage) {
        std::vector<double> first, last, count;
        for (const auto &figures : runs) {
            const auto &figure = figures[stage];
            if (figure.first < 0)
                continue;
            first.push_back(figure.first);
            last.push_back(figure.last);
            count.push_back(double(figure.count));
        }
        if (!first.empty())
            std::printf("  %-14s %7.3f .. %7.3f  %9.0f\n", KVNRunStatistics::stageName(KVNRunStatistics::Stage(stage)),
                        median(first), median(last), median(count));
    }
}

int rescan(const QByteArray &original, const QByteArray &modified, Change &change, int runs)
{
    std::vector<double> fullSeconds, rescanSeconds;
    std::vector<uint64_t> pairsReadAgain;
    std::vector<double> rowsBefore, rowsAfter;
    std::vector<std::array<KVNRunStatistics::Figure, KVNRunStatistics::StageCount>> stages;
    for (int run = 0; run < runs; ++run) {
        auto document = KVNDirCompDocument::make();
        document->setWatchesFileSystem(false);
        document->setOriginalURL(original, modified);
        QCoreApplication::processEvents();

        change.prepare();
        double start = now();
        document->performInitialTablePopulate();
        waitForRun(*document, 1);
        fullSeconds.push_back(now() - start);
        rowsBefore.push_back(double(document->sourceArrayController()->arrangedObjects().size()));

        change.apply();
        const uint64_t pairsBefore = KVNCompareFileOperation::totalPairsRead();
        {
            KVNRunStatistics statistics(*document);
            start = now();
            document->performTableUpdate();
            waitForRun(*document, 2);
            rescanSeconds.push_back(now() - start);
            stages.push_back(statistics.figures());
        }
        pairsReadAgain.push_back(KVNCompareFileOperation::totalPairsRead() - pairsBefore);
        rowsAfter.push_back(double(document->sourceArrayController()->arrangedObjects().size()));
        change.restore();

        document->goodByeKiss();
        document->refreshOperationQueue().cancelAllOperations();
        document->refreshOperationQueue().waitUntilAllOperationsAreFinished();
    }
    const double full = median(fullSeconds);
    const double update = median(rescanSeconds);
    const std::optional<uint64_t> expected = change.expectedPairs();
    const bool asExpected = std::all_of(pairsReadAgain.begin(), pairsReadAgain.end(),
                                        [&](uint64_t n) { return !expected || n == *expected; });
    std::printf("rescan: full run %.3f s, rescan %.3f s (medians of %d), full/rescan %.1f, rows %.0f before and %.0f"
                " after, file pairs read again:",
                full, update, runs, update > 0 ? full / update : 0.0, median(rowsBefore), median(rowsAfter));
    for (uint64_t n : pairsReadAgain)
        std::printf(" %llu", (unsigned long long)n);
    if (!asExpected)
        std::printf("  (expected exactly %llu)", (unsigned long long)*expected);
    std::printf("\n");
    uint64_t walked = 0;
    const double floor = walkFloor(original, modified, runs, &walked);
    std::printf("rescan/full %.3f; the two whole scans an update makes cannot take less than the bare walk of both"
                " trees, %.3f s, %.3f of the full run\n",
                full > 0 ? update / full : 0.0, floor, full > 0 ? floor / full : 0.0);
    printStages(stages);
    return asExpected ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    KVNRegisterApplicationDefaults(); // the exclusion kvdiff compares under
    const QByteArray command = argc > 1 ? argv[1] : "";
    if (command == "scan" && (argc == 4 || argc == 5))
        return scan(argv[2], argv[3], runCount(argc, argv, 4));
    const bool rescanning = command == "rescan" || command == "rescan-gone" || command == "rescan-added";
    if (rescanning && (argc == 5 || argc == 6)) {
        const QByteArray original = argv[2], modified = argv[3];
        std::unique_ptr<Change> change;
        if (command == "rescan") {
            QByteArray file = argv[4];
            change = std::make_unique<ByteFlip>(file.startsWith('/') ? file : modified + '/' + file);
        } else {
            const auto kind = command == "rescan-gone" ? SubtreeMove::Gone : SubtreeMove::Added;
            change = std::make_unique<SubtreeMove>(kind, original, modified, argv[4]);
        }
        return rescan(original, modified, *change, runCount(argc, argv, 5));
    }
    return usage();
}

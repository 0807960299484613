// kvn_bench_pipeline: times parts of a comparison that kvdiff does not show
// on their own.
//   scan ORIGINAL MODIFIED [RUNS]         both scans on one queue, as a run starts them
//   rescan ORIGINAL MODIFIED FILE [RUNS]  a full run, then the update after FILE changed
// Both also time the floor of any whole scan: a bare walk of both trees, one
// thread each, with one getdents64 per buffer and one statx per entry, that
// keeps nothing.
#include "KVNBuildTreeFastOperation.h"
#include "KVNCompareFileOperation.h"
#include "KVNDirCompDocument.h"
#include "KVNOperationQueue.h"
#include "KVNUserDefaults.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <map>
#include <mutex>
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
               "FILE is a non-empty regular file inside MODIFIED (absolute, or relative to it);\n"
               "one of its bytes is changed for the rescan and put back afterwards.\n",
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

// Changes one byte in the middle of the file, and puts it back, times included.
class ByteFlip {
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
    void flip() { write(char(~byte_)); }
    void restore()
    {
        write(byte_);
        const timespec times[2] = {before_.st_atim, before_.st_mtim};
        ::futimens(fd_, times);
    }
    ~ByteFlip() { ::close(fd_); }

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

// When each kind of operation first started and last finished, in seconds
// from the update's start, so that the slow stage of a rescan shows.
class StageClock {
public:
    void attach(KVNOperationQueue &queue)
    {
        {
            std::lock_guard lock(mutex_);
            spans_.clear();
            start_ = now();
        }
        queue.setOperationRunObserver([this](const KVNOperation &operation, bool started) {
            const double t = now();
            std::lock_guard lock(mutex_);
            Span &span = spans_[typeid(operation).name()];
            if (started && span.first < 0)
                span.first = t - start_;
            if (!started) {
                span.last = t - start_;
                ++span.count;
            }
        });
    }
    void detach(KVNOperationQueue &queue)
    {
        queue.setOperationRunObserver(nullptr);
        std::lock_guard lock(mutex_);
        for (const auto &[name, span] : spans_)
            runs_[name].push_back(span);
    }
    void print() const
    {
        std::printf("rescan stages (medians; first start .. last end, seconds from the update's start):\n");
        for (const auto &[name, spans] : runs_) {
            std::vector<double> first, last, count;
            for (const Span &span : spans) {
                first.push_back(span.first);
                last.push_back(span.last);
                count.push_back(double(span.count));
            }
            int status = 0;
            char *readable = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
            std::printf("  %-40s %7.3f .. %7.3f  %8.0f ran\n", status == 0 ? readable : name.c_str(), median(first),
                        median(last), median(count));
            std::free(readable);
        }
    }

private:
    struct Span {
        double first = -1;
        double last = 0;
        uint64_t count = 0;
    };
    std::mutex mutex_;
    std::map<std::string, Span> spans_;
    std::map<std::string, std::vector<Span>> runs_;
    double start_ = 0;
};

int rescan(const QByteArray &original, const QByteArray &modified, QByteArray file, int runs)
{
    if (!file.startsWith('/'))
        file = modified + '/' + file;
    ByteFlip flip(file);
    std::vector<double> fullSeconds, rescanSeconds;
    std::vector<uint64_t> pairsReadAgain;
    StageClock stages;
    for (int run = 0; run < runs; ++run) {
        auto document = KVNDirCompDocument::make();
        document->setWatchesFileSystem(false);
        document->setOriginalURL(original, modified);
        QCoreApplication::processEvents();

        double start = now();
        document->performInitialTablePopulate();
        waitForRun(*document, 1);
        fullSeconds.push_back(now() - start);

        flip.flip();
        const uint64_t pairsBefore = KVNCompareFileOperation::totalPairsRead();
        stages.attach(document->refreshOperationQueue());
        start = now();
        document->performTableUpdate();
        waitForRun(*document, 2);
        rescanSeconds.push_back(now() - start);
        stages.detach(document->refreshOperationQueue());
        pairsReadAgain.push_back(KVNCompareFileOperation::totalPairsRead() - pairsBefore);
        flip.restore();

        document->goodByeKiss();
        document->refreshOperationQueue().cancelAllOperations();
        document->refreshOperationQueue().waitUntilAllOperationsAreFinished();
    }
    const double full = median(fullSeconds);
    const double update = median(rescanSeconds);
    const bool exactlyOne =
        std::all_of(pairsReadAgain.begin(), pairsReadAgain.end(), [](uint64_t n) { return n == 1; });
    std::printf("rescan: full run %.3f s, rescan %.3f s (medians of %d), full/rescan %.1f, file pairs read again:",
                full, update, runs, update > 0 ? full / update : 0.0);
    for (uint64_t n : pairsReadAgain)
        std::printf(" %llu", (unsigned long long)n);
    std::printf("%s\n", exactlyOne ? "" : "  (expected exactly 1)");
    uint64_t walked = 0;
    const double floor = walkFloor(original, modified, runs, &walked);
    std::printf("rescan/full %.3f; the two whole scans an update makes cannot take less than the bare walk of both"
                " trees, %.3f s, %.3f of the full run\n",
                full > 0 ? update / full : 0.0, floor, full > 0 ? floor / full : 0.0);
    stages.print();
    return exactlyOne ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    KVNRegisterApplicationDefaults(); // the exclusion kvdiff compares under
    const QByteArray command = argc > 1 ? argv[1] : "";
    if (command == "scan" && (argc == 4 || argc == 5))
        return scan(argv[2], argv[3], runCount(argc, argv, 4));
    if (command == "rescan" && (argc == 5 || argc == 6))
        return rescan(argv[2], argv[3], argv[4], runCount(argc, argv, 5));
    return usage();
}

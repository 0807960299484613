// kvn_bench_pipeline: times parts of a comparison that kvdiff does not show
// on their own.
//   scan ORIGINAL MODIFIED [RUNS]         both scans on one queue, as a run starts them
//   rescan ORIGINAL MODIFIED FILE [RUNS]  a full run, then the update after FILE changed
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
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
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

int rescan(const QByteArray &original, const QByteArray &modified, QByteArray file, int runs)
{
    if (!file.startsWith('/'))
        file = modified + '/' + file;
    ByteFlip flip(file);
    std::vector<double> fullSeconds, rescanSeconds;
    std::vector<uint64_t> pairsReadAgain;
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
        start = now();
        document->performTableUpdate();
        waitForRun(*document, 2);
        rescanSeconds.push_back(now() - start);
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

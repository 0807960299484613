// ctest-label: concurrency
#include "KVNCrc32.h"

#include <QtTest>

#include <atomic>
#include <csignal>
#include <cstring>
#include <numeric>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

std::vector<unsigned char> randomBytes(std::size_t size, uint32_t seed)
{
    std::vector<unsigned char> bytes(size);
    std::generate(bytes.begin(), bytes.end(), std::mt19937(seed));
    return bytes;
}

// In order of preference, worst first.
const char *const kKernels[] = {"portable", "pclmul", "vpclmul256", "vpclmul"};

// A read of the guarded page raises the flag and unguards the page, so a test
// sees whether, and how often, a scan first reaches that point.
struct {
    unsigned char *page = nullptr;
    std::size_t size = 0;
    volatile unsigned char *flag = nullptr;
    volatile sig_atomic_t trips = 0;
} gGuard;

void onGuardedRead(int, siginfo_t *info, void *)
{
    auto *address = static_cast<unsigned char *>(info->si_addr);
    if (address < gGuard.page || address >= gGuard.page + gGuard.size) {
        std::signal(SIGSEGV, SIG_DFL); // not ours: a real crash, reported as one
        return;
    }
    *gGuard.flag = 1;
    gGuard.trips = gGuard.trips + 1;
    mprotect(gGuard.page, gGuard.size, PROT_READ | PROT_WRITE);
}

// The times scan() tripped on the page at `page`, and what it answered.
template <typename Scan> std::pair<int, uint32_t> guarded(unsigned char *page, volatile unsigned char *flag, Scan scan)
{
    gGuard = {page, std::size_t(sysconf(_SC_PAGESIZE)), flag, 0};
    *flag = 0;
    if (mprotect(page, gGuard.size, PROT_NONE) != 0)
        return {-1, 0};
    const uint32_t result = scan();
    mprotect(page, gGuard.size, PROT_READ | PROT_WRITE);
    return {gGuard.trips, result};
}

} // namespace

class TestCrc32 : public QObject {
    Q_OBJECT

    static void addKernelRows()
    {
        QTest::addColumn<QByteArray>("kernel");
        for (const char *kernel : kKernels)
            QTest::newRow(kernel) << QByteArray(kernel);
    }
    static void selectRowKernel()
    {
        QFETCH(QByteArray, kernel);
        if (!KVNCrc32::selectImplementation(kernel.constData()))
            QSKIP("this processor cannot run the kernel");
    }

private slots:
    void initTestCase()
    {
        struct sigaction action {};
        action.sa_sigaction = onGuardedRead;
        action.sa_flags = SA_SIGINFO;
        QCOMPARE(sigaction(SIGSEGV, &action, nullptr), 0);
    }
    void cleanup() { QVERIFY(KVNCrc32::selectImplementation("auto")); }

    void kernelAgreesWithReference_data() { addKernelRows(); }
    void kernelAgreesWithReference()
    {
        selectRowKernel();
        for (auto crc32 : {KVNCrc32::crc32, KVNCrc32::reference}) {
            QCOMPARE(crc32("123456789", 9), 0xCBF43926u);
            QCOMPARE(crc32("a", 1), 0xE8B7BE43u);
        }
        // Every misalignment over the lengths where the kernels switch paths,
        // then lengths around the wide steps.
        constexpr std::size_t kMiB = 1024 * 1024;
        const auto data = randomBytes(kMiB + 64, 3);
        std::vector<std::size_t> lengths(1025);
        std::iota(lengths.begin(), lengths.end(), 0);
        lengths.insert(lengths.end(), {4095, 4096, 4097, 8192 + 5, 70000, kMiB - 1, kMiB, kMiB + 1});
        for (std::size_t length : lengths) {
            for (std::size_t offset = 0; offset < 64; offset += length <= 300 ? 1 : 7) {
                const unsigned char *start = data.data() + offset;
                if (KVNCrc32::crc32(start, length) != KVNCrc32::reference(start, length))
                    QFAIL(qPrintable(QStringLiteral("offset %1 length %2").arg(offset).arg(length)));
            }
        }
        // Streaming from every split point of a short head into a long tail.
        const uint32_t whole = KVNCrc32::reference(data.data(), 70000);
        for (std::size_t split = 0; split <= 600; ++split)
            QCOMPARE(KVNCrc32::update(KVNCrc32::crc32(data.data(), split), data.data() + split, 70000 - split), whole);
        // Blocks: each one's own checksum, and nothing written past the last.
        constexpr std::size_t kBlock = KVNCrc32::kBlockSize;
        for (std::size_t length :
             {std::size_t(0), std::size_t(1), kBlock, kBlock + 1, 17 * kBlock, 64 * kBlock + 100}) {
            const std::size_t count = KVNCrc32::blockCount(length);
            std::vector<uint32_t> out(count + 1, 0xA5A5A5A5u);
            KVNCrc32::crc32Blocks(data.data() + 3, length, out.data());
            for (std::size_t i = 0; i < count; ++i)
                QCOMPARE(out[i],
                         KVNCrc32::reference(data.data() + 3 + i * kBlock, std::min(kBlock, length - i * kBlock)));
            QCOMPARE(out[count], 0xA5A5A5A5u);
        }
    }

    void cancelFlag_data() { addKernelRows(); }
    void cancelFlag()
    {
        selectRowKernel();
        constexpr std::size_t kSize = 4 * 1024 * 1024;
        void *mapped = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        QVERIFY(mapped != MAP_FAILED);
        auto *buffer = static_cast<unsigned char *>(mapped);
        const std::unique_ptr<void, std::function<void(void *)>> unmap(mapped, [](void *p) { munmap(p, kSize); });
        const unsigned char set = 1, clear = 0;
        // Set beforehand: not a byte is read (the memory is unreadable yet).
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, &set), 0u);
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer, kSize, &set), 0u);
        QCOMPARE(mprotect(buffer, kSize, PROT_READ | PROT_WRITE), 0);
        const auto data = randomBytes(kSize, 8);
        std::memcpy(buffer, data.data(), kSize);
        // Clear, or no flag, or null data: the ordinary checksum.
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, &clear), KVNCrc32::reference(buffer, kSize));
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, nullptr), KVNCrc32::reference(buffer, kSize));
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(nullptr, 100, &clear), 0u);
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(nullptr, 100, &clear), 0u);
        // Raised a quarter through, the scan stops there and answers 0.
        volatile unsigned char flag = 0;
        QCOMPARE(
            guarded(buffer + kSize / 4, &flag, [&] { return KVNCrc32::crc32WithCancelFlag(buffer, kSize, &flag); }),
            std::make_pair(1, 0u));
        // The first page: the first block's checksum, and no byte past it read.
        const std::size_t firstPage = std::max(std::size_t(sysconf(_SC_PAGESIZE)), KVNCrc32::kBlockSize);
        for (std::size_t length : {5000, 4096, 1000, 0})
            QCOMPARE(guarded(buffer + firstPage, &flag,
                             [&] { return KVNCrc32::crc32FirstPageWithCancelFlag(buffer, length, &flag); }),
                     std::make_pair(0, KVNCrc32::reference(buffer, std::min(length, KVNCrc32::kBlockSize))));
    }

    void selectionAndNullData()
    {
        QVERIFY(KVNCrc32::selectImplementation("portable"));
        for (const char *name : {"sparkle", "", static_cast<const char *>(nullptr)})
            QVERIFY(!KVNCrc32::selectImplementation(name));
        QCOMPARE(QByteArray(KVNCrc32::implementationName()), QByteArray("portable"));
        // "auto" settles on the last kernel in order of preference this machine accepts.
        QByteArray best;
        for (const char *kernel : kKernels)
            if (KVNCrc32::selectImplementation(kernel))
                best = kernel;
        QVERIFY(KVNCrc32::selectImplementation("auto"));
        QCOMPARE(QByteArray(KVNCrc32::implementationName()), best);
        // Null data counts as empty.
        QCOMPARE(KVNCrc32::crc32(nullptr, 100), 0u);
        QCOMPARE(KVNCrc32::update(0x12345678u, nullptr, 100), 0x12345678u);
        uint32_t out = 7;
        KVNCrc32::crc32Blocks(nullptr, 100, &out);
        QCOMPARE(out, 7u);
    }

    // Workers checksum while the kernel is switched under them; every kernel
    // gives the same answers, so any torn choice shows up.
    void concurrentUseWhileKernelsChange()
    {
        const auto data = randomBytes(256 * KVNCrc32::kBlockSize + 123, 10);
        std::vector<uint32_t> expected(KVNCrc32::blockCount(data.size()));
        for (std::size_t i = 0, at = 0; i < expected.size(); ++i, at += KVNCrc32::kBlockSize)
            expected[i] = KVNCrc32::reference(data.data() + at, std::min(KVNCrc32::kBlockSize, data.size() - at));
        std::atomic<bool> stop{false};
        std::atomic<int> mismatches{0}, rounds{0};
        auto work = [&] {
            for (std::vector<uint32_t> out(expected.size()); !stop; ++rounds) {
                KVNCrc32::crc32Blocks(data.data(), data.size(), out.data());
                mismatches += out != expected;
            }
        };
        std::thread workers[] = {std::thread(work), std::thread(work), std::thread(work), std::thread(work)};
        for (int i = 0; rounds < 40 || i < 200; ++i) {
            KVNCrc32::selectImplementation(i % 5 == 4 ? "auto" : kKernels[i % 4]);
            std::this_thread::yield();
        }
        stop = true;
        for (auto &worker : workers)
            worker.join();
        QCOMPARE(mismatches.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestCrc32)
#include "tst_crc32.moc"

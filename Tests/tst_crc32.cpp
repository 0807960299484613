// ctest-label: concurrency
#include "KVNCrc32.h"

#include <QtTest>

#include <csignal>
#include <cstring>
#include <numeric>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

namespace {

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

private slots:
    void initTestCase()
    {
        struct sigaction action {};
        action.sa_sigaction = onGuardedRead;
        action.sa_flags = SA_SIGINFO;
        QCOMPARE(sigaction(SIGSEGV, &action, nullptr), 0);
        for (const char *name : {"sparkle", "", static_cast<const char *>(nullptr)})
            QVERIFY(!KVNCrc32::selectImplementation(name));
    }
    void cleanup() { QVERIFY(KVNCrc32::selectImplementation("auto")); }

    void eachKernelAgreesAndHonoursCancel_data()
    {
        QTest::addColumn<QByteArray>("kernel");
        for (const char *kernel : {"portable", "pclmul", "vpclmul256", "vpclmul"})
            QTest::newRow(kernel) << QByteArray(kernel);
    }
    void eachKernelAgreesAndHonoursCancel()
    {
        QFETCH(QByteArray, kernel);
        if (!KVNCrc32::selectImplementation(kernel.constData()))
            QSKIP("this processor cannot run the kernel");
        QCOMPARE(KVNCrc32::reference("123456789", 9), 0xCBF43926u); // the kernels are held to it below
        // Every misalignment over the lengths where the kernels switch paths,
        // then lengths around the wide steps.
        constexpr std::size_t kMiB = 1024 * 1024, kSize = 4 * kMiB;
        std::vector<unsigned char> data(kSize);
        std::generate(data.begin(), data.end(), std::mt19937(3));
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
        // Null data counts as empty.
        const unsigned char set = 1, clear = 0;
        QCOMPARE(KVNCrc32::crc32(nullptr, 100), 0u);
        QCOMPARE(KVNCrc32::update(0x12345678u, nullptr, 100), 0x12345678u);
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(nullptr, 100, &clear), 0u);
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(nullptr, 100, &clear), 0u);
        uint32_t out = 7;
        KVNCrc32::crc32Blocks(nullptr, 100, &out);
        QCOMPARE(out, 7u);

        auto *buffer =
            static_cast<unsigned char *>(mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        QVERIFY(buffer != MAP_FAILED);
        const std::unique_ptr<void, std::function<void(void *)>> unmap(buffer, [](void *p) { munmap(p, kSize); });
        // A cancel flag set beforehand: not a byte is read (the memory is unreadable yet).
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, &set), 0u);
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer, kSize, &set), 0u);
        QCOMPARE(mprotect(buffer, kSize, PROT_READ | PROT_WRITE), 0);
        std::memcpy(buffer, data.data(), kSize);
        // Clear, or no flag: the ordinary checksum.
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, &clear), KVNCrc32::reference(buffer, kSize));
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer, kSize, nullptr), KVNCrc32::reference(buffer, kSize));
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
};

QTEST_GUILESS_MAIN(TestCrc32)
#include "tst_crc32.moc"

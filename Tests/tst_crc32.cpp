// ctest-label: concurrency
#include "KVNCrc32.h"

#include <QtTest>

#include <atomic>
#include <csignal>
#include <cstring>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Bit at a time, straight from the definition; owes nothing to the tables the
// library's reference uses, so it anchors that reference.
uint32_t bitwiseCrc(const unsigned char *data, std::size_t length)
{
    uint32_t reg = ~0u;
    for (std::size_t i = 0; i < length; ++i) {
        reg ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            reg = (reg & 1u) ? (reg >> 1) ^ 0xEDB88320u : reg >> 1;
    }
    return ~reg;
}

std::vector<unsigned char> randomBytes(std::size_t size, uint32_t seed)
{
    std::mt19937 generator(seed);
    std::vector<unsigned char> bytes(size);
    for (auto &byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

// In order of preference, worst first.
const char *const kKernels[] = {"portable", "pclmul", "vpclmul256", "vpclmul"};

// Anonymous pages, so that a test can make some of them unreadable.
class PageBuffer {
public:
    explicit PageBuffer(std::size_t size) : size_(size)
    {
        void *memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        data_ = memory == MAP_FAILED ? nullptr : static_cast<unsigned char *>(memory);
    }
    ~PageBuffer()
    {
        if (data_)
            munmap(data_, size_);
    }
    PageBuffer(const PageBuffer &) = delete;
    PageBuffer &operator=(const PageBuffer &) = delete;
    unsigned char *data() const { return data_; }
    std::size_t size() const { return size_; }

private:
    std::size_t size_;
    unsigned char *data_ = nullptr;
};

// A read of the guarded page sets the cancel flag and makes the page readable
// again, so a test sees exactly when a kernel first reaches that point.
struct TripwireState {
    unsigned char *page = nullptr;
    std::size_t pageSize = 0;
    volatile unsigned char *flag = nullptr;
    volatile sig_atomic_t trips = 0;
    struct sigaction previous {};
};
TripwireState gTripwire;

void tripwireHandler(int signal, siginfo_t *info, void *context)
{
    auto *address = static_cast<unsigned char *>(info->si_addr);
    if (gTripwire.page && address >= gTripwire.page && address < gTripwire.page + gTripwire.pageSize) {
        *gTripwire.flag = 1;
        gTripwire.trips = gTripwire.trips + 1;
        mprotect(gTripwire.page, gTripwire.pageSize, PROT_READ | PROT_WRITE);
        return;
    }
    // Not ours: let the earlier handler (or the default action) have it.
    if (gTripwire.previous.sa_flags & SA_SIGINFO) {
        gTripwire.previous.sa_sigaction(signal, info, context);
    } else if (gTripwire.previous.sa_handler != SIG_DFL && gTripwire.previous.sa_handler != SIG_IGN) {
        gTripwire.previous.sa_handler(signal);
    } else {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
}

class Tripwire {
public:
    Tripwire(unsigned char *page, std::size_t pageSize, volatile unsigned char *flag)
    {
        gTripwire.page = page;
        gTripwire.pageSize = pageSize;
        gTripwire.flag = flag;
        gTripwire.trips = 0;
        struct sigaction action {};
        action.sa_sigaction = tripwireHandler;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        installed_ = sigaction(SIGSEGV, &action, &gTripwire.previous) == 0 && mprotect(page, pageSize, PROT_NONE) == 0;
    }
    ~Tripwire()
    {
        mprotect(gTripwire.page, gTripwire.pageSize, PROT_READ | PROT_WRITE);
        sigaction(SIGSEGV, &gTripwire.previous, nullptr);
        gTripwire.page = nullptr;
    }
    bool installed() const { return installed_; }
    int trips() const { return gTripwire.trips; }

private:
    bool installed_ = false;
};

} // namespace

class TestCrc32 : public QObject {
    Q_OBJECT

private slots:
    void cleanup();

    void knownVectors_data();
    void knownVectors();
    void referenceAgreesWithBitwiseDefinition();

    void everyShortLengthAtEveryAlignment_data();
    void everyShortLengthAtEveryAlignment();
    void lengthsAroundKernelBoundaries_data();
    void lengthsAroundKernelBoundaries();
    void streamingEqualsOneShot_data();
    void streamingEqualsOneShot();
    void blocksEqualPerBlockChecksums_data();
    void blocksEqualPerBlockChecksums();
    void nullDataIsEmpty();

    void cancelFlagSetBeforehandReadsNothing_data();
    void cancelFlagSetBeforehandReadsNothing();
    void cancelFlagSetMidwayStopsTheScan_data();
    void cancelFlagSetMidwayStopsTheScan();
    void firstPageCoversOnlyTheFirstBlock_data();
    void firstPageCoversOnlyTheFirstBlock();

    void selectionRejectsUnknownAndUnsupported();
    void concurrentUseWhileKernelsChange();

private:
    void addKernelRows();
    void selectRowKernel();
};

void TestCrc32::cleanup()
{
    QVERIFY(KVNCrc32::selectImplementation("auto"));
}

void TestCrc32::addKernelRows()
{
    QTest::addColumn<QByteArray>("kernel");
    for (const char *kernel : kKernels)
        QTest::newRow(kernel) << QByteArray(kernel);
}

void TestCrc32::selectRowKernel()
{
    QFETCH(QByteArray, kernel);
    if (!KVNCrc32::selectImplementation(kernel.constData()))
        QSKIP("this processor cannot run the kernel");
    QCOMPARE(QByteArray(KVNCrc32::implementationName()), kernel);
}

void TestCrc32::knownVectors_data()
{
    addKernelRows();
}

void TestCrc32::knownVectors()
{
    selectRowKernel();
    const struct {
        const char *text;
        uint32_t crc;
    } vectors[] = {
        {"", 0x00000000u},
        {"a", 0xE8B7BE43u},
        {"123456789", 0xCBF43926u},
        {"The quick brown fox jumps over the lazy dog", 0x414FA339u},
    };
    for (const auto &vector : vectors) {
        const std::size_t length = std::strlen(vector.text);
        QCOMPARE(KVNCrc32::crc32(vector.text, length), vector.crc);
        QCOMPARE(KVNCrc32::reference(vector.text, length), vector.crc);
    }
    // Long enough for every kernel's widest loop: 4,096 bytes of 0xFF is a
    // value computed independently of this code.
    const std::vector<unsigned char> ones(4096, 0xFF);
    QCOMPARE(KVNCrc32::crc32(ones.data(), ones.size()), bitwiseCrc(ones.data(), ones.size()));
}

void TestCrc32::referenceAgreesWithBitwiseDefinition()
{
    const auto data = randomBytes(5000, 11);
    for (std::size_t length : {0, 1, 2, 3, 7, 8, 100, 4096, 5000})
        QCOMPARE(KVNCrc32::reference(data.data(), length), bitwiseCrc(data.data(), length));
}

void TestCrc32::everyShortLengthAtEveryAlignment_data()
{
    addKernelRows();
}

void TestCrc32::everyShortLengthAtEveryAlignment()
{
    selectRowKernel();
    const auto data = randomBytes(1024 + 64, 1);
    std::mt19937 generator(2);
    for (std::size_t length = 0; length <= 1024; ++length) {
        const std::size_t offset = generator() % 64;
        const unsigned char *start = data.data() + offset;
        QCOMPARE(KVNCrc32::crc32(start, length), KVNCrc32::reference(start, length));
    }
    // Every misalignment, over the lengths where the kernels switch paths.
    for (std::size_t offset = 0; offset < 64; ++offset) {
        for (std::size_t length = 0; length <= 300; ++length) {
            const unsigned char *start = data.data() + offset;
            if (KVNCrc32::crc32(start, length) != KVNCrc32::reference(start, length))
                QFAIL(qPrintable(QStringLiteral("offset %1 length %2").arg(offset).arg(length)));
        }
    }
}

void TestCrc32::lengthsAroundKernelBoundaries_data()
{
    addKernelRows();
}

void TestCrc32::lengthsAroundKernelBoundaries()
{
    selectRowKernel();
    constexpr std::size_t kMiB = 1024 * 1024;
    const auto data = randomBytes(kMiB + 64, 3);
    const std::size_t lengths[] = {15,   16,   17,   31,   32,   33,   63,   64,       65,       127,  128,
                                   129,  191,  192,  255,  256,  257,  319,  320,      511,      512,  513,
                                   1023, 1024, 1025, 4095, 4096, 4097, 8191, 8192 + 5, kMiB - 1, kMiB, kMiB + 1};
    for (std::size_t length : lengths) {
        for (std::size_t offset : {0, 1, 7, 8, 15, 16, 33, 63}) {
            if (offset + length > data.size())
                continue;
            const unsigned char *start = data.data() + offset;
            if (KVNCrc32::crc32(start, length) != KVNCrc32::reference(start, length))
                QFAIL(qPrintable(QStringLiteral("offset %1 length %2").arg(offset).arg(length)));
        }
    }
    // Structured data that random bytes rarely produce: all zeros, all ones.
    for (unsigned char fill : {0x00, 0xFF}) {
        const std::vector<unsigned char> uniform(70000, fill);
        for (std::size_t length : {64, 256, 4096, 70000})
            QCOMPARE(KVNCrc32::crc32(uniform.data(), length), KVNCrc32::reference(uniform.data(), length));
    }
}

void TestCrc32::streamingEqualsOneShot_data()
{
    addKernelRows();
}

void TestCrc32::streamingEqualsOneShot()
{
    selectRowKernel();
    const auto data = randomBytes(200000, 4);
    const uint32_t whole = KVNCrc32::crc32(data.data(), data.size());
    QCOMPARE(whole, KVNCrc32::reference(data.data(), data.size()));
    QCOMPARE(KVNCrc32::update(0, data.data(), data.size()), whole);

    std::mt19937 generator(5);
    for (int round = 0; round < 50; ++round) {
        // Pieces from empty up to several wide steps, in random order of size.
        uint32_t crc = 0;
        std::size_t position = 0;
        while (position < data.size()) {
            const std::size_t piece = std::min<std::size_t>(data.size() - position, generator() % 9000);
            crc = KVNCrc32::update(crc, data.data() + position, piece);
            position += piece;
        }
        QCOMPARE(crc, whole);
    }
    // Split at every point of a short buffer.
    for (std::size_t split = 0; split <= 600; ++split) {
        const uint32_t head = KVNCrc32::crc32(data.data(), split);
        QCOMPARE(KVNCrc32::update(head, data.data() + split, 600 - split), KVNCrc32::reference(data.data(), 600));
    }
}

void TestCrc32::blocksEqualPerBlockChecksums_data()
{
    addKernelRows();
}

void TestCrc32::blocksEqualPerBlockChecksums()
{
    selectRowKernel();
    constexpr std::size_t kBlock = KVNCrc32::kBlockSize;
    const auto data = randomBytes(64 * kBlock + 100 + 3, 6);
    constexpr uint32_t kSentinel = 0xA5A5A5A5u;
    for (std::size_t length : {std::size_t(0), std::size_t(1), kBlock - 1, kBlock, kBlock + 1, 3 * kBlock + 17,
                               17 * kBlock, 64 * kBlock + 100}) {
        const std::size_t count = KVNCrc32::blockCount(length);
        std::vector<uint32_t> out(count + 1, kSentinel);
        KVNCrc32::crc32Blocks(data.data() + 3, length, out.data());
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t size = std::min(kBlock, length - i * kBlock);
            QCOMPARE(out[i], KVNCrc32::reference(data.data() + 3 + i * kBlock, size));
        }
        QCOMPARE(out[count], kSentinel); // nothing past the last block
    }
    QCOMPARE(KVNCrc32::blockCount(0), std::size_t(0));
    QCOMPARE(KVNCrc32::blockCount(kBlock), std::size_t(1));
    QCOMPARE(KVNCrc32::blockCount(kBlock + 1), std::size_t(2));
}

void TestCrc32::nullDataIsEmpty()
{
    QCOMPARE(KVNCrc32::crc32(nullptr, 0), 0u);
    QCOMPARE(KVNCrc32::crc32(nullptr, 100), 0u);
    QCOMPARE(KVNCrc32::update(0x12345678u, nullptr, 100), 0x12345678u);
    QCOMPARE(KVNCrc32::reference(nullptr, 100), 0u);
    uint32_t out = 7;
    KVNCrc32::crc32Blocks(nullptr, 100, &out);
    QCOMPARE(out, 7u);
    const unsigned char clear = 0;
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(nullptr, 100, &clear), 0u);
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(nullptr, 100, &clear), 0u);
}

void TestCrc32::cancelFlagSetBeforehandReadsNothing_data()
{
    addKernelRows();
}

void TestCrc32::cancelFlagSetBeforehandReadsNothing()
{
    selectRowKernel();
    // Unreadable memory: a single read would crash the test.
    PageBuffer buffer(1024 * 1024);
    QVERIFY(buffer.data());
    QCOMPARE(mprotect(buffer.data(), buffer.size(), PROT_NONE), 0);
    const unsigned char set = 1;
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data(), buffer.size(), &set), 0u);
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), buffer.size(), &set), 0u);
    QCOMPARE(mprotect(buffer.data(), buffer.size(), PROT_READ | PROT_WRITE), 0);

    // Clear flag (or none): the ordinary checksum.
    const auto data = randomBytes(300000, 7);
    const unsigned char clear = 0;
    const uint32_t expected = KVNCrc32::reference(data.data(), data.size());
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(data.data(), data.size(), &clear), expected);
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(data.data(), data.size(), nullptr), expected);
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(data.data(), 0, &clear), 0u);
}

void TestCrc32::cancelFlagSetMidwayStopsTheScan_data()
{
    addKernelRows();
}

void TestCrc32::cancelFlagSetMidwayStopsTheScan()
{
    selectRowKernel();
    const std::size_t pageSize = std::size_t(sysconf(_SC_PAGESIZE));
    PageBuffer buffer(4 * 1024 * 1024);
    QVERIFY(buffer.data());
    const auto data = randomBytes(buffer.size(), 8);
    std::memcpy(buffer.data(), data.data(), data.size());

    // The flag goes up when the scan is about a quarter through; the scan
    // must notice within a bounded distance and answer 0 instead of a checksum.
    volatile unsigned char flag = 0;
    {
        Tripwire tripwire(buffer.data() + buffer.size() / 4, pageSize, &flag);
        QVERIFY(tripwire.installed());
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data(), buffer.size(), &flag), 0u);
        QCOMPARE(tripwire.trips(), 1);
    }
    QCOMPARE(flag, 1);
    // A scan that ends before the wire is a normal checksum.
    flag = 0;
    {
        Tripwire tripwire(buffer.data() + buffer.size() / 4, pageSize, &flag);
        QVERIFY(tripwire.installed());
        const std::size_t before = buffer.size() / 4;
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data(), before, &flag), KVNCrc32::reference(data.data(), before));
        QCOMPARE(tripwire.trips(), 0);
    }
}

void TestCrc32::firstPageCoversOnlyTheFirstBlock_data()
{
    addKernelRows();
}

void TestCrc32::firstPageCoversOnlyTheFirstBlock()
{
    selectRowKernel();
    const std::size_t pageSize = std::size_t(sysconf(_SC_PAGESIZE));
    PageBuffer buffer(std::max<std::size_t>(3 * pageSize, 3 * KVNCrc32::kBlockSize));
    QVERIFY(buffer.data());
    const auto data = randomBytes(buffer.size(), 9);
    std::memcpy(buffer.data(), data.data(), data.size());
    volatile unsigned char flag = 0;

    // 5,000 bytes: the checksum is that of the first 4,096, and nothing beyond
    // the first page-aligned block is touched.
    {
        Tripwire tripwire(buffer.data() + std::max(pageSize, KVNCrc32::kBlockSize), pageSize, &flag);
        QVERIFY(tripwire.installed());
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 5000, &flag),
                 KVNCrc32::reference(data.data(), KVNCrc32::kBlockSize));
        QCOMPARE(tripwire.trips(), 0);
    }
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 4096, &flag),
             KVNCrc32::reference(data.data(), 4096));
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 1000, &flag),
             KVNCrc32::reference(data.data(), 1000));
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 0, &flag), 0u);
    flag = 1;
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 5000, &flag), 0u);
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data(), 1000, &flag), 0u);
}

void TestCrc32::selectionRejectsUnknownAndUnsupported()
{
    QVERIFY(KVNCrc32::selectImplementation("portable"));
    QVERIFY(!KVNCrc32::selectImplementation("sparkle"));
    QVERIFY(!KVNCrc32::selectImplementation(""));
    QVERIFY(!KVNCrc32::selectImplementation(nullptr));
    QCOMPARE(QByteArray(KVNCrc32::implementationName()), QByteArray("portable"));

    // "auto" settles on the last kernel in order of preference that this
    // machine accepts.
    QVERIFY(KVNCrc32::selectImplementation("auto"));
    QByteArray best;
    for (const char *kernel : kKernels) {
        if (KVNCrc32::selectImplementation(kernel))
            best = kernel;
    }
    QVERIFY(KVNCrc32::selectImplementation("auto"));
    QCOMPARE(QByteArray(KVNCrc32::implementationName()), best);
#if !defined(__x86_64__)
    for (const char *kernel : {"pclmul", "vpclmul256", "vpclmul"})
        QVERIFY(!KVNCrc32::selectImplementation(kernel));
#endif
}

void TestCrc32::concurrentUseWhileKernelsChange()
{
    // Workers checksum their own extents while the kernel is switched under
    // them; every kernel gives the same answers, so any torn choice shows up.
    const auto data = randomBytes(256 * KVNCrc32::kBlockSize + 123, 10);
    std::vector<uint32_t> expected(KVNCrc32::blockCount(data.size()));
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const std::size_t offset = i * KVNCrc32::kBlockSize;
        expected[i] = KVNCrc32::reference(data.data() + offset, std::min(KVNCrc32::kBlockSize, data.size() - offset));
    }

    std::atomic<bool> stop{false};
    std::atomic<int> mismatches{0};
    std::atomic<int> rounds{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&] {
            std::vector<uint32_t> out(expected.size());
            while (!stop.load(std::memory_order_relaxed)) {
                KVNCrc32::crc32Blocks(data.data(), data.size(), out.data());
                if (out != expected)
                    mismatches.fetch_add(1);
                rounds.fetch_add(1);
            }
        });
    }
    const char *const cycle[] = {"portable", "pclmul", "vpclmul256", "vpclmul", "auto"};
    for (int i = 0; rounds.load() < 40 || i < 200; ++i) {
        KVNCrc32::selectImplementation(cycle[i % 5]);
        std::this_thread::yield();
    }
    stop = true;
    for (auto &worker : workers)
        worker.join();
    QCOMPARE(mismatches.load(), 0);
}

QTEST_GUILESS_MAIN(TestCrc32)
#include "tst_crc32.moc"

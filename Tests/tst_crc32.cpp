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
struct PageBuffer {
    explicit PageBuffer(std::size_t size) : size(size)
    {
        void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        data = memory == MAP_FAILED ? nullptr : static_cast<unsigned char *>(memory);
    }
    ~PageBuffer()
    {
        if (data)
            munmap(data, size);
    }
    const std::size_t size;
    unsigned char *data;
};

// A read of the guarded page sets the cancel flag and makes the page readable
// again, so a test sees exactly when a kernel first reaches that point.
struct TripwireState {
    unsigned char *page = nullptr;
    std::size_t pageSize = 0;
    volatile unsigned char *flag = nullptr;
    volatile sig_atomic_t trips = 0;
    struct sigaction previous {};
} gTripwire;

void tripwireHandler(int signal, siginfo_t *info, void *)
{
    auto *address = static_cast<unsigned char *>(info->si_addr);
    if (gTripwire.page && address >= gTripwire.page && address < gTripwire.page + gTripwire.pageSize) {
        *gTripwire.flag = 1;
        gTripwire.trips = gTripwire.trips + 1;
        mprotect(gTripwire.page, gTripwire.pageSize, PROT_READ | PROT_WRITE);
        return;
    }
    // Not ours: a real crash, reported as one.
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

struct Tripwire {
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
        installed = sigaction(SIGSEGV, &action, &gTripwire.previous) == 0 && mprotect(page, pageSize, PROT_NONE) == 0;
    }
    ~Tripwire()
    {
        mprotect(gTripwire.page, gTripwire.pageSize, PROT_READ | PROT_WRITE);
        sigaction(SIGSEGV, &gTripwire.previous, nullptr);
        gTripwire.page = nullptr;
    }
    int trips() const { return gTripwire.trips; }
    bool installed = false;
};

} // namespace

class TestCrc32 : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { QVERIFY(KVNCrc32::selectImplementation("auto")); }
    void referenceAgreesWithBitwiseDefinition();
    void kernelAgreesWithReference_data() { addKernelRows(); }
    void kernelAgreesWithReference();
    void cancelFlag_data() { addKernelRows(); }
    void cancelFlag();
    void nullDataIsEmpty();
    void selectionRejectsUnknownAndUnsupported();
    void concurrentUseWhileKernelsChange();

private:
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
        QCOMPARE(QByteArray(KVNCrc32::implementationName()), kernel);
    }
};

void TestCrc32::referenceAgreesWithBitwiseDefinition()
{
    const auto data = randomBytes(5000, 11);
    for (std::size_t length : {0, 1, 2, 3, 7, 8, 100, 4096, 5000})
        QCOMPARE(KVNCrc32::reference(data.data(), length), bitwiseCrc(data.data(), length));
}

void TestCrc32::kernelAgreesWithReference()
{
    selectRowKernel();
    const struct {
        const char *text;
        uint32_t crc;
    } vectors[] = {{"", 0x00000000u},
                   {"a", 0xE8B7BE43u},
                   {"123456789", 0xCBF43926u},
                   {"The quick brown fox jumps over the lazy dog", 0x414FA339u}};
    for (const auto &vector : vectors)
        QCOMPARE(KVNCrc32::crc32(vector.text, std::strlen(vector.text)), vector.crc);

    // Every misalignment over the lengths where the kernels switch paths, then
    // lengths around every wide step; uniform fills are what random bytes rarely give.
    constexpr std::size_t kMiB = 1024 * 1024;
    const auto data = randomBytes(kMiB + 64, 3);
    const std::vector<unsigned char> zeros(70000, 0x00), ones(70000, 0xFF);
    std::vector<std::size_t> lengths;
    for (std::size_t length = 0; length <= 1024; ++length)
        lengths.push_back(length);
    for (std::size_t length : {4095, 4096, 4097, 8191, 8192 + 5, 70000, int(kMiB) - 1, int(kMiB), int(kMiB) + 1})
        lengths.push_back(length);
    for (std::size_t length : lengths) {
        for (std::size_t offset = 0; offset < 64; offset += length <= 300 ? 1 : 7) {
            const unsigned char *start = data.data() + offset;
            if (KVNCrc32::crc32(start, length) != KVNCrc32::reference(start, length))
                QFAIL(qPrintable(QStringLiteral("offset %1 length %2").arg(offset).arg(length)));
        }
        if (length <= zeros.size()) {
            QCOMPARE(KVNCrc32::crc32(zeros.data(), length), KVNCrc32::reference(zeros.data(), length));
            QCOMPARE(KVNCrc32::crc32(ones.data(), length), bitwiseCrc(ones.data(), length));
        }
    }

    // Streaming: pieces from empty up to several wide steps, and a split at every point of a short buffer.
    const uint32_t whole = KVNCrc32::crc32(data.data(), 200000);
    QCOMPARE(KVNCrc32::update(0, data.data(), 200000), whole);
    std::mt19937 generator(5);
    for (int round = 0; round < 50; ++round) {
        uint32_t crc = 0;
        for (std::size_t position = 0, piece = 0; position < 200000; position += piece) {
            piece = std::min<std::size_t>(200000 - position, generator() % 9000);
            crc = KVNCrc32::update(crc, data.data() + position, piece);
        }
        QCOMPARE(crc, whole);
    }
    for (std::size_t split = 0; split <= 600; ++split)
        QCOMPARE(KVNCrc32::update(KVNCrc32::crc32(data.data(), split), data.data() + split, 600 - split),
                 KVNCrc32::reference(data.data(), 600));

    // Blocks: each one's own checksum, and nothing written past the last.
    constexpr std::size_t kBlock = KVNCrc32::kBlockSize;
    for (std::size_t length : {std::size_t(0), std::size_t(1), kBlock - 1, kBlock, kBlock + 1, 3 * kBlock + 17,
                               17 * kBlock, 64 * kBlock + 100}) {
        const std::size_t count = KVNCrc32::blockCount(length);
        QCOMPARE(count, (length + kBlock - 1) / kBlock);
        std::vector<uint32_t> out(count + 1, 0xA5A5A5A5u);
        KVNCrc32::crc32Blocks(data.data() + 3, length, out.data());
        for (std::size_t i = 0; i < count; ++i)
            QCOMPARE(out[i], KVNCrc32::reference(data.data() + 3 + i * kBlock, std::min(kBlock, length - i * kBlock)));
        QCOMPARE(out[count], 0xA5A5A5A5u);
    }
}

void TestCrc32::cancelFlag()
{
    selectRowKernel();
    const std::size_t pageSize = std::size_t(sysconf(_SC_PAGESIZE));
    PageBuffer buffer(4 * 1024 * 1024);
    QVERIFY(buffer.data);
    const unsigned char set = 1, clear = 0;

    // Set beforehand: not a byte is read (the memory is unreadable).
    QCOMPARE(mprotect(buffer.data, buffer.size, PROT_NONE), 0);
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, buffer.size, &set), 0u);
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data, buffer.size, &set), 0u);
    QCOMPARE(mprotect(buffer.data, buffer.size, PROT_READ | PROT_WRITE), 0);

    // Clear (or no flag): the ordinary checksum.
    const auto data = randomBytes(buffer.size, 8);
    std::memcpy(buffer.data, data.data(), data.size());
    const uint32_t expected = KVNCrc32::reference(data.data(), data.size());
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, buffer.size, &clear), expected);
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, buffer.size, nullptr), expected);
    QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, 0, &clear), 0u);

    // Raised a quarter through: the scan notices within a bounded distance and
    // answers 0; a scan that ends before that point is a normal checksum.
    volatile unsigned char flag = 0;
    const std::size_t quarter = buffer.size / 4;
    {
        Tripwire tripwire(buffer.data + quarter, pageSize, &flag);
        QVERIFY(tripwire.installed);
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, buffer.size, &flag), 0u);
        QCOMPARE(tripwire.trips(), 1);
    }
    flag = 0;
    {
        Tripwire tripwire(buffer.data + quarter, pageSize, &flag);
        QVERIFY(tripwire.installed);
        QCOMPARE(KVNCrc32::crc32WithCancelFlag(buffer.data, quarter, &flag), KVNCrc32::reference(data.data(), quarter));
        QCOMPARE(tripwire.trips(), 0);
    }

    // The first page: 5,000 bytes give the checksum of the first block, and
    // nothing past the first page-aligned block is touched.
    flag = 0;
    {
        Tripwire tripwire(buffer.data + std::max(pageSize, KVNCrc32::kBlockSize), pageSize, &flag);
        QVERIFY(tripwire.installed);
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data, 5000, &flag),
                 KVNCrc32::reference(data.data(), KVNCrc32::kBlockSize));
        QCOMPARE(tripwire.trips(), 0);
    }
    for (std::size_t length : {4096, 1000, 0})
        QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data, length, &flag),
                 KVNCrc32::reference(data.data(), length));
    QCOMPARE(KVNCrc32::crc32FirstPageWithCancelFlag(buffer.data, 1000, &set), 0u);
}

void TestCrc32::nullDataIsEmpty()
{
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

void TestCrc32::selectionRejectsUnknownAndUnsupported()
{
    QVERIFY(KVNCrc32::selectImplementation("portable"));
    for (const char *name : {"sparkle", "", static_cast<const char *>(nullptr)})
        QVERIFY(!KVNCrc32::selectImplementation(name));
    QCOMPARE(QByteArray(KVNCrc32::implementationName()), QByteArray("portable"));
    // "auto" settles on the last kernel in order of preference that this machine accepts.
    QByteArray best;
    for (const char *kernel : kKernels)
        if (KVNCrc32::selectImplementation(kernel))
            best = kernel;
    QVERIFY(KVNCrc32::selectImplementation("auto"));
    QCOMPARE(QByteArray(KVNCrc32::implementationName()), best);
#if !defined(__x86_64__)
    QCOMPARE(best, QByteArray("portable"));
#endif
}

void TestCrc32::concurrentUseWhileKernelsChange()
{
    // Workers checksum their own extents while the kernel is switched under
    // them; every kernel gives the same answers, so any torn choice shows up.
    const auto data = randomBytes(256 * KVNCrc32::kBlockSize + 123, 10);
    std::vector<uint32_t> expected(KVNCrc32::blockCount(data.size()));
    for (std::size_t i = 0, at = 0; i < expected.size(); ++i, at += KVNCrc32::kBlockSize)
        expected[i] = KVNCrc32::reference(data.data() + at, std::min(KVNCrc32::kBlockSize, data.size() - at));
    std::atomic<bool> stop{false};
    std::atomic<int> mismatches{0}, rounds{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&] {
            std::vector<uint32_t> out(expected.size());
            while (!stop.load(std::memory_order_relaxed)) {
                KVNCrc32::crc32Blocks(data.data(), data.size(), out.data());
                mismatches += out != expected;
                ++rounds;
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

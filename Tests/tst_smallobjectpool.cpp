// ctest-label: concurrency
#include "KVNRef.h"
#include "KVNSmallObjectPool.h"

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Pool = KVNSmallObjectPool;

namespace {

constexpr std::size_t kChunk = 64 * 1024;
#if defined(__SANITIZE_THREAD__)
constexpr bool kUnderSanitizer = true;
#else
constexpr bool kUnderSanitizer = Pool::kPassesThrough;
#endif

std::size_t roundedSize(std::size_t size)
{
    return std::max<std::size_t>(8, (size + 7) / 8 * 8);
}

// Writes, or checks, bytes that tell whose object it is, so that an overlap or
// a stray write from a neighbour shows up as a wrong byte.
bool stamp(void *object, std::size_t size, uint64_t tag, bool check = false)
{
    auto *bytes = static_cast<unsigned char *>(object);
    for (std::size_t i = 0; i < size; ++i) {
        const auto expected = static_cast<unsigned char>((tag * 0x9E3779B97F4A7C15ull + i * 131) >> 56);
        if (!check)
            bytes[i] = expected;
        else if (bytes[i] != expected)
            return false;
    }
    return true;
}

// A figure from /proc/self/status ("VmRSS", "VmSize"), in KiB.
long statusKiB(const std::string &field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field + ":", 0) == 0)
            return std::stol(line.substr(field.size() + 1));
    return -1;
}

struct Counted {
    static inline std::atomic<int> alive{0};
    explicit Counted(bool fail = false)
    {
        if (fail)
            throw std::runtime_error("constructor failed");
        ++alive;
    }
    ~Counted() { --alive; }
    char payload[68] = {};
};

struct alignas(16) Wide {
    double values[4] = {};
};

} // namespace

class TestSmallObjectPool : public QObject {
    Q_OBJECT

private slots:
    void everySizeKeepsItsObjectsApart_data()
    {
        QTest::addColumn<int>("size");
        for (int size = 0; size <= int(Pool::kMaxSize) + 1; ++size)
            QTest::addRow("%d bytes", size) << size;
        QTest::addRow("1 MiB") << (1 << 20);
    }
    // Objects over several chunks; every other one is freed, so that each chunk
    // is partly free, and the same number again must fit without a new chunk.
    void everySizeKeepsItsObjectsApart()
    {
        QFETCH(int, size);
        const std::size_t asked = std::size_t(size);
        const bool pooled = !Pool::kPassesThrough && asked <= Pool::kMaxSize;
        const std::size_t count = pooled ? 3 * kChunk / roundedSize(asked) : 8;
        const Pool::Usage before = Pool::usage();
        std::vector<void *> objects(count);
        for (std::size_t i = 0; i < count; ++i) {
            objects[i] = Pool::allocate(asked);
            QCOMPARE(reinterpret_cast<std::uintptr_t>(objects[i]) % 8, 0u);
            stamp(objects[i], asked, i);
        }
        const Pool::Usage full = Pool::usage();
        QCOMPARE(full.liveBytes - before.liveBytes, pooled ? count * roundedSize(asked) : 0);
        QCOMPARE(full.reservedBytes, full.chunks * kChunk);
        for (std::size_t i = 1; i < count; i += 2)
            Pool::deallocate(objects[i], asked);
        for (std::size_t i = 1; i < count; i += 2)
            stamp(objects[i] = Pool::allocate(asked), asked, i);
        QCOMPARE(Pool::usage().chunks, full.chunks);
        for (std::size_t i = 0; i < count; ++i) {
            QVERIFY2(stamp(objects[i], asked, i, true), qPrintable(QString("object %1 was overwritten").arg(i)));
            Pool::deallocate(objects[i], asked);
        }
        QCOMPARE(Pool::usage().liveBytes, before.liveBytes);
        QVERIFY(Pool::usage().chunks <= before.chunks + Pool::kSpareChunks); // a few empty ones stay
    }

    void emptyChunksGoBackToTheSystem()
    {
        if (Pool::kPassesThrough)
            QSKIP("the pool hands everything to ::operator new under AddressSanitizer");
        constexpr std::size_t kSize = 77, kCount = 400'000;
        const Pool::Usage before = Pool::usage();
        std::vector<void *> objects(kCount);
        for (void *&object : objects)
            std::memset(object = Pool::allocate(kSize), 0x5A, kSize);
        // No header per object: 77 bytes cost 80 and a share of a chunk's
        // header and tail, where a malloc block costs 96.
        const double perObject = double(Pool::usage().reservedBytes - before.reservedBytes) / kCount;
        QVERIFY2(perObject > 70 && perObject < 81, qPrintable(QString::number(perObject)));
        const long residentFull = statusKiB("VmRSS");
        std::shuffle(objects.begin(), objects.end(), std::mt19937(7)); // chunks empty in no order
        for (void *object : objects)
            Pool::deallocate(object, kSize);
        const Pool::Usage empty = Pool::usage();
        QCOMPARE(empty.liveBytes, before.liveBytes);
        QVERIFY2(empty.chunks <= before.chunks + Pool::kSpareChunks, qPrintable(QString::number(empty.chunks)));
        const long returnedKiB = residentFull - statusKiB("VmRSS");
        QVERIFY2(returnedKiB * 1024 > long(kCount * 80 / 2), qPrintable(QString("%1 KiB returned").arg(returnedKiB)));
        // A kept chunk serves the next object, and takes it back, without the system.
        void *again = Pool::allocate(kSize);
        QCOMPARE(Pool::usage().chunks, empty.chunks);
        Pool::deallocate(again, kSize);
        QCOMPARE(Pool::usage().chunks, empty.chunks);
    }

    // Two threads allocate (as two scanners do) while two others free what
    // they made, and the figures are read; each object is checked for others'
    // writes before it goes.
    void objectsMoveBetweenThreads()
    {
        const std::size_t perProducer = kUnderSanitizer ? 40'000 : 200'000;
        struct Item {
            void *object;
            std::size_t size;
        };
        std::vector<Item> made[2] = {std::vector<Item>(perProducer), std::vector<Item>(perProducer)};
        std::atomic<std::size_t> published[2] = {0, 0};
        std::atomic<int> damaged{0}, freed{0};
        const Pool::Usage before = Pool::usage();
        auto produce = [&](int p) {
            for (std::size_t i = 0; i < perProducer; ++i) {
                // Every class, and now and then one above the pool's range.
                const std::size_t size = 1 + (i * 7 + p * 3) % (Pool::kMaxSize + 24);
                made[p][i] = {Pool::allocate(size), size};
                stamp(made[p][i].object, size, i << 1 | p);
                published[p].store(i + 1, std::memory_order_release);
            }
        };
        auto consume = [&](int p) {
            for (std::size_t i = 0; i < perProducer; ++i, ++freed) {
                while (published[p].load(std::memory_order_acquire) <= i)
                    std::this_thread::yield();
                damaged += !stamp(made[p][i].object, made[p][i].size, i << 1 | p, true);
                Pool::deallocate(made[p][i].object, made[p][i].size);
            }
        };
        std::thread threads[] = {std::thread(produce, 0), std::thread(produce, 1), std::thread(consume, 0),
                                 std::thread(consume, 1)};
        bool consistent = true;
        while (freed.load() < int(2 * perProducer)) {
            const Pool::Usage now = Pool::usage();
            consistent = consistent && now.reservedBytes >= now.liveBytes && now.reservedBytes == now.chunks * kChunk;
            std::this_thread::yield();
        }
        for (auto &thread : threads)
            thread.join();
        QCOMPARE(damaged.load(), 0);
        QVERIFY(consistent);
        QCOMPARE(Pool::usage().liveBytes, before.liveBytes);
        QVERIFY(Pool::usage().chunks <= before.chunks + Pool::kMaxSize / 8 * Pool::kSpareChunks);
    }

    // A counted object's memory stays while a weak reference holds it and goes
    // with the last one; a throwing constructor leaves nothing behind.
    void refsComeFromThePool()
    {
        const Pool::Usage before = Pool::usage();
        const std::size_t block = Pool::kPassesThrough ? 0 : roundedSize(sizeof(KVNRefCounts) + sizeof(Counted));
        std::vector<KVNRef<Counted>> strong;
        std::vector<KVNWeakRef<Counted>> weak;
        for (int i = 0; i < 1000; ++i) {
            strong.push_back(KVNMakeRef<Counted>());
            if (i % 2 == 0)
                weak.emplace_back(strong.back());
        }
        QVERIFY_THROWS_EXCEPTION(std::runtime_error, KVNMakeRef<Counted>(true));
        QCOMPARE(Pool::usage().liveBytes - before.liveBytes, 1000 * block);
        strong.clear();
        QCOMPARE(Counted::alive.load(), 0);
        QVERIFY(std::all_of(weak.begin(), weak.end(), [](const auto &ref) { return ref.expired() && !ref.lock(); }));
        QCOMPARE(Pool::usage().liveBytes - before.liveBytes, 500 * block);
        weak.clear();
        QCOMPARE(Pool::usage().liveBytes, before.liveBytes);
        // Over-aligned objects keep their own allocation and their alignment.
        std::vector<KVNRef<Wide>> wide;
        for (int i = 0; i < 64; ++i) {
            wide.push_back(KVNMakeRef<Wide>());
            QCOMPARE(reinterpret_cast<std::uintptr_t>(wide.back().get()) % alignof(Wide), 0u);
        }
        QCOMPARE(Pool::usage().liveBytes, before.liveBytes);
    }

    void exhaustedAddressSpaceThrows()
    {
        if (kUnderSanitizer)
            QSKIP("sanitizers reserve address space of their own");
        const rlim_t limit = rlim_t(statusKiB("VmSize") + 8 * 1024) * 1024;
        const pid_t child = fork();
        if (child == 0) {
            const rlimit limits{limit, limit};
            if (setrlimit(RLIMIT_AS, &limits) != 0)
                _exit(2);
            try {
                for (;;)
                    std::memset(Pool::allocate(200), 1, 200);
            } catch (const std::bad_alloc &) {
                _exit(42);
            }
        }
        int status = 0;
        QVERIFY(child > 0 && waitpid(child, &status, 0) == child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 42);
    }
};

QTEST_GUILESS_MAIN(TestSmallObjectPool)
#include "tst_smallobjectpool.moc"

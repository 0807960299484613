// ctest-label: concurrency
#include "KVNRef.h"
#include "KVNSmallObjectPool.h"

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

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

bool pooled(std::size_t size)
{
    return !Pool::kPassesThrough && size <= Pool::kMaxSize;
}

// Every byte of an object tells whose it is, so an overlap or a stray write
// from a neighbour shows up as a wrong byte.
unsigned char patternByte(uint64_t tag, std::size_t offset)
{
    return static_cast<unsigned char>((tag * 0x9E3779B97F4A7C15ull + offset * 131) >> 56);
}

void fill(void *object, std::size_t size, uint64_t tag)
{
    auto *bytes = static_cast<unsigned char *>(object);
    for (std::size_t offset = 0; offset < size; ++offset)
        bytes[offset] = patternByte(tag, offset);
}

bool intact(const void *object, std::size_t size, uint64_t tag)
{
    const auto *bytes = static_cast<const unsigned char *>(object);
    for (std::size_t offset = 0; offset < size; ++offset)
        if (bytes[offset] != patternByte(tag, offset))
            return false;
    return true;
}

// A figure from /proc/self/status, such as "VmRSS" or "VmSize", in KiB.
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
        QTest::addRow("4 KiB") << 4096;
        QTest::addRow("1 MiB") << (1 << 20);
    }

    // Enough objects to span several chunks, each written in full, freed half
    // and half so that chunks are partly free in between, then refilled.
    void everySizeKeepsItsObjectsApart()
    {
        QFETCH(int, size);
        const std::size_t asked = std::size_t(size);
        const std::size_t count = pooled(asked) ? 3 * kChunk / roundedSize(asked) : 8;
        const Pool::Usage before = Pool::usage();

        std::vector<void *> objects(count);
        for (std::size_t i = 0; i < count; ++i) {
            objects[i] = Pool::allocate(asked);
            QVERIFY(objects[i]);
            QCOMPARE(reinterpret_cast<std::uintptr_t>(objects[i]) % 8, 0u);
            fill(objects[i], asked, i);
        }
        const Pool::Usage full = Pool::usage();
        if (pooled(asked)) {
            QCOMPARE(full.liveBytes - before.liveBytes, count * roundedSize(asked));
            QVERIFY(full.chunks * kChunk >= full.liveBytes);
            QCOMPARE(full.reservedBytes, full.chunks * kChunk);
        } else {
            QCOMPARE(full.liveBytes, before.liveBytes);
            QCOMPARE(full.chunks, before.chunks);
        }
        for (std::size_t i = 0; i < count; ++i)
            QVERIFY2(intact(objects[i], asked, i), qPrintable(QString("object %1 was overwritten").arg(i)));
        std::vector<void *> sorted = objects;
        std::sort(sorted.begin(), sorted.end());
        for (std::size_t i = 1; i < count; ++i)
            QVERIFY(static_cast<char *>(sorted[i]) - static_cast<char *>(sorted[i - 1]) >= std::ptrdiff_t(asked));

        // Free every other object: every chunk is now partly free, and the
        // same number of new objects fits without a new chunk.
        for (std::size_t i = 1; i < count; i += 2)
            Pool::deallocate(objects[i], asked);
        for (std::size_t i = 1; i < count; i += 2) {
            objects[i] = Pool::allocate(asked);
            fill(objects[i], asked, i);
        }
        if (pooled(asked))
            QCOMPARE(Pool::usage().chunks, full.chunks);
        for (std::size_t i = 0; i < count; ++i)
            QVERIFY(intact(objects[i], asked, i));

        for (void *object : objects)
            Pool::deallocate(object, asked);
        const Pool::Usage after = Pool::usage();
        QCOMPARE(after.liveBytes, before.liveBytes);
        // A few empty chunks per class stay behind.
        QVERIFY(after.chunks <= before.chunks + Pool::kSpareChunks);
    }

    void emptyChunksGoBackToTheSystem()
    {
        if (Pool::kPassesThrough)
            QSKIP("the pool hands everything to ::operator new under AddressSanitizer");
        constexpr std::size_t kSize = 77;
        constexpr std::size_t kCount = 400'000;
        const Pool::Usage before = Pool::usage();
        std::vector<void *> objects(kCount);
        for (std::size_t i = 0; i < kCount; ++i) {
            objects[i] = Pool::allocate(kSize);
            std::memset(objects[i], 0x5A, kSize);
        }
        const Pool::Usage full = Pool::usage();
        // No header in front of each object: 77 bytes cost 80 and a share of
        // each chunk's header and tail (less where spare chunks are reused),
        // where a malloc block costs 96.
        const double reservedPerObject = double(full.reservedBytes - before.reservedBytes) / kCount;
        QVERIFY2(reservedPerObject > 70 && reservedPerObject < 81, qPrintable(QString::number(reservedPerObject)));
        const long residentFull = statusKiB("VmRSS");

        // Freed from the middle outwards, so chunks empty in no particular order.
        std::mt19937 shuffle(7);
        std::shuffle(objects.begin(), objects.end(), shuffle);
        for (void *object : objects)
            Pool::deallocate(object, kSize);
        const Pool::Usage empty = Pool::usage();
        QCOMPARE(empty.liveBytes, before.liveBytes);
        QVERIFY2(empty.chunks <= before.chunks + Pool::kSpareChunks,
                 qPrintable(QString("%1 chunks kept").arg(empty.chunks)));
        const long returnedKiB = residentFull - statusKiB("VmRSS");
        QVERIFY2(returnedKiB * 1024 > long(kCount * 80 / 2), qPrintable(QString("%1 KiB returned").arg(returnedKiB)));

        // A kept chunk serves the next object, and takes it back, without
        // going to the system.
        void *again = Pool::allocate(kSize);
        QCOMPARE(Pool::usage().chunks, empty.chunks);
        Pool::deallocate(again, kSize);
        QCOMPARE(Pool::usage().chunks, empty.chunks);
    }

    // Two threads allocate (as two scanners do) and two others free what they
    // made, while the usage figures are read; every object is checked for
    // writes from others before it goes.
    void objectsMoveBetweenThreads()
    {
        const int perProducer = kUnderSanitizer ? 40'000 : 200'000;
        struct Item {
            void *object;
            std::size_t size;
            uint64_t tag;
        };
        std::mutex mutex;
        std::condition_variable ready;
        std::deque<Item> queue;
        int producersLeft = 2;
        std::atomic<int> damaged{0};
        std::atomic<int> freed{0};
        const Pool::Usage before = Pool::usage();

        auto produce = [&](uint64_t producer) {
            std::vector<Item> batch;
            for (int i = 0; i < perProducer; ++i) {
                // Every class, and now and then one above the pool's range.
                const std::size_t size = 1 + (std::size_t(i) * 7 + producer * 3) % (Pool::kMaxSize + 24);
                const uint64_t tag = producer << 32 | uint64_t(i);
                void *object = Pool::allocate(size);
                fill(object, size, tag);
                batch.push_back({object, size, tag});
                if (batch.size() == 64 || i + 1 == perProducer) {
                    std::lock_guard guard(mutex);
                    queue.insert(queue.end(), batch.begin(), batch.end());
                    batch.clear();
                    ready.notify_one();
                }
            }
            std::lock_guard guard(mutex);
            --producersLeft;
            ready.notify_all();
        };
        auto consume = [&] {
            for (;;) {
                std::unique_lock guard(mutex);
                ready.wait(guard, [&] { return !queue.empty() || producersLeft == 0; });
                if (queue.empty())
                    return;
                const Item item = queue.front();
                queue.pop_front();
                guard.unlock();
                if (!intact(item.object, item.size, item.tag))
                    ++damaged;
                Pool::deallocate(item.object, item.size);
                ++freed;
            }
        };
        std::vector<std::thread> threads;
        threads.emplace_back(produce, 1);
        threads.emplace_back(produce, 2);
        threads.emplace_back(consume);
        threads.emplace_back(consume);
        bool consistent = true;
        while (freed.load() < 2 * perProducer) {
            const Pool::Usage now = Pool::usage();
            consistent = consistent && now.reservedBytes >= now.liveBytes && now.reservedBytes == now.chunks * kChunk;
            std::this_thread::yield();
        }
        for (auto &thread : threads)
            thread.join();

        QCOMPARE(damaged.load(), 0);
        QVERIFY(consistent);
        const Pool::Usage after = Pool::usage();
        QCOMPARE(after.liveBytes, before.liveBytes);
        // At most the empty chunks each class keeps.
        QVERIFY(after.chunks <= before.chunks + Pool::kMaxSize / 8 * Pool::kSpareChunks);
    }

    // Rows and other counted objects: the memory stays while a weak reference
    // holds it, and goes back with the last one.
    void refsComeFromThePool()
    {
        const Pool::Usage before = Pool::usage();
        const std::size_t block = roundedSize(sizeof(KVNRefCounts) + sizeof(Counted));
        std::vector<KVNRef<Counted>> strong;
        std::vector<KVNWeakRef<Counted>> weak;
        for (int i = 0; i < 1000; ++i) {
            strong.push_back(KVNMakeRef<Counted>());
            if (i % 2 == 0)
                weak.emplace_back(strong.back());
        }
        QCOMPARE(Counted::alive.load(), 1000);
        QVERIFY_THROWS_EXCEPTION(std::runtime_error, KVNMakeRef<Counted>(true));
        if (!Pool::kPassesThrough)
            QCOMPARE(Pool::usage().liveBytes - before.liveBytes, 1000 * block);

        strong.clear();
        QCOMPARE(Counted::alive.load(), 0);
        for (const auto &ref : weak)
            QVERIFY(ref.expired() && !ref.lock());
        if (!Pool::kPassesThrough)
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
        const long limitKiB = statusKiB("VmSize") + 8 * 1024;
        QVERIFY(limitKiB > 8 * 1024);
        const pid_t child = fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            const rlimit limit{rlim_t(limitKiB) * 1024, rlim_t(limitKiB) * 1024};
            if (setrlimit(RLIMIT_AS, &limit) != 0)
                _exit(2);
            try {
                for (;;)
                    std::memset(Pool::allocate(200), 1, 200);
            } catch (const std::bad_alloc &) {
                _exit(42);
            }
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 42);
    }
};

QTEST_GUILESS_MAIN(TestSmallObjectPool)
#include "tst_smallobjectpool.moc"

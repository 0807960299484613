// ctest-label: concurrency
#include "KVNRef.h"
#include "KVNSmallObjectPool.h"

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

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
        if (check && bytes[i] != expected)
            return false;
        bytes[i] = expected;
    }
    return true;
}

struct Throwing {
    explicit Throwing(bool fail)
    {
        if (fail)
            throw std::runtime_error("constructor failed");
    }
    char payload[68] = {};
};

} // namespace

class TestSmallObjectPool : public QObject {
    Q_OBJECT

private slots:
    void everySizeKeepsItsObjectsApart_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("chunks");
        for (int size = 0; size <= int(Pool::kMaxSize) + 1; ++size)
            QTest::addRow("%d bytes", size) << size << 3;
        QTest::addRow("more chunks than are kept") << 77 << int(16 * Pool::kSpareChunks);
    }
    // Objects over several chunks; every other one is freed, so that each chunk
    // is partly free, and the same number again must fit without a new chunk.
    // Then all go, in no order, and chunks beyond the spares go back.
    void everySizeKeepsItsObjectsApart()
    {
        QFETCH(int, size);
        QFETCH(int, chunks);
        const std::size_t asked = std::size_t(size);
        const bool pooled = !Pool::kPassesThrough && asked <= Pool::kMaxSize;
        const std::size_t count = pooled ? chunks * kChunk / roundedSize(asked) : 8;
        const Pool::Usage before = Pool::usage();
        std::vector<void *> objects(count);
        for (std::size_t i = 0; i < count; ++i)
            stamp(objects[i] = Pool::allocate(asked), asked, i);
        QVERIFY(
            std::all_of(objects.begin(), objects.end(), [](void *object) { return std::uintptr_t(object) % 8 == 0; }));
        const Pool::Usage full = Pool::usage();
        QCOMPARE(full.liveBytes - before.liveBytes, pooled ? count * roundedSize(asked) : 0);
        for (std::size_t i = 1; i < count; i += 2)
            Pool::deallocate(objects[i], asked);
        for (std::size_t i = 1; i < count; i += 2)
            stamp(objects[i] = Pool::allocate(asked), asked, i);
        QCOMPARE(Pool::usage().chunks, full.chunks);
        for (std::size_t i = 0; i < count; ++i)
            QVERIFY2(stamp(objects[i], asked, i, true), qPrintable(QString("object %1 was overwritten").arg(i)));
        std::shuffle(objects.begin(), objects.end(), std::mt19937(size));
        for (void *object : objects)
            Pool::deallocate(object, asked);
        const Pool::Usage empty = Pool::usage();
        QCOMPARE(empty.liveBytes, before.liveBytes);
        QVERIFY2(empty.chunks <= before.chunks + Pool::kSpareChunks, qPrintable(QString::number(empty.chunks)));
    }

    // Two threads allocate (as two scanners do) while two others free what
    // they made, and the figures are read; each object is checked for others'
    // writes before it goes.
    void objectsMoveBetweenThreads()
    {
        const std::size_t perProducer = kUnderSanitizer ? 40'000 : 200'000;
        std::vector<std::pair<void *, std::size_t>> made(2 * perProducer); // object and size, producers interleaved
        std::atomic<std::size_t> published[2] = {0, 0};
        std::atomic<int> damaged{0}, freed{0};
        const Pool::Usage before = Pool::usage();
        auto produce = [&](int p) {
            for (std::size_t i = 0; i < perProducer; ++i) {
                // Every class, and now and then one above the pool's range.
                const std::size_t size = 1 + (i * 7 + p * 3) % (Pool::kMaxSize + 24);
                made[i << 1 | p] = {Pool::allocate(size), size};
                stamp(made[i << 1 | p].first, size, i << 1 | p);
                published[p].store(i + 1, std::memory_order_release);
            }
        };
        auto consume = [&](int p) {
            for (std::size_t i = 0; i < perProducer; ++i, ++freed) {
                while (published[p].load(std::memory_order_acquire) <= i)
                    std::this_thread::yield();
                const auto [object, size] = made[i << 1 | p];
                damaged += !stamp(object, size, i << 1 | p, true);
                Pool::deallocate(object, size);
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
    }

    // KVNMakeRef takes its block from the pool and gives it back when the
    // constructor throws or the last reference goes.
    void refsComeFromThePool()
    {
        const Pool::Usage before = Pool::usage();
        const std::size_t block = Pool::kPassesThrough ? 0 : roundedSize(sizeof(KVNRefCounts) + sizeof(Throwing));
        QVERIFY_THROWS_EXCEPTION(std::runtime_error, KVNMakeRef<Throwing>(true));
        auto ref = KVNMakeRef<Throwing>(false);
        QCOMPARE(Pool::usage().liveBytes - before.liveBytes, block);
        ref.reset();
        QCOMPARE(Pool::usage().liveBytes, before.liveBytes);
    }
};

QTEST_GUILESS_MAIN(TestSmallObjectPool)
#include "tst_smallobjectpool.moc"

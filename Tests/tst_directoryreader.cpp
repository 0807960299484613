// ctest-label: concurrency
#include "KVNDirectoryReader.h"
#include "KVNTestTree.h"

#include <QtTest>

#include <atomic>
#include <map>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Entries = std::vector<KVNDirectoryEntry>;
using Method = KVNDirectoryReader::StatMethod;

static QByteArray describe(const KVNDirectoryEntry &e)
{
    return e.name.toPercentEncoding() + " type " + QByteArray::number(int(e.type)) + " size " +
           QByteArray::number(e.size) + " mtime " + QByteArray::number(e.modified.seconds) + "." +
           QByteArray::number(e.modified.nanoseconds);
}

// Keyed by name, described; a duplicate name makes it smaller than the list.
static std::map<QByteArray, QByteArray> byName(const Entries &entries)
{
    std::map<QByteArray, QByteArray> map;
    for (const auto &entry : entries)
        map.emplace(entry.name, describe(entry));
    return map;
}

class TestDirectoryReader : public QObject {
    Q_OBJECT

    // Kept across tests, so that buffers are reused.
    KVNDirectoryReader plain_{Method::Plain};
    KVNDirectoryReader ring_{Method::IoUring};
    KVNScanStatus status_ = KVNScanStatus::Error;
    Entries entries_;

    // Reads path with both readers, which must agree entry for entry, into status_ and entries_.
    bool readBoth(const QByteArray &path)
    {
        // "." is in every directory, so a reader that forgot to clear could not drop it as vanished.
        const KVNDirectoryEntry stale{".", KVNFileType::Regular, 1, {}};
        Entries plainOut{stale}, ringOut{stale};
        status_ = plain_.readDirectory(path, plainOut);
        const bool same = ring_.readDirectory(path, ringOut) == status_ &&
                          plain_.errorNumber() == ring_.errorNumber() && plainOut.size() == ringOut.size() &&
                          byName(plainOut) == byName(ringOut);
        entries_ = std::move(plainOut);
        return same;
    }

private slots:
    void entryCounts()
    {
        // Around a getdents buffer and an io_uring batch.
        for (int count : {0, 1, 110, 111, 256, 257, 10000}) {
            KVNTestTree tree;
            // Each file has its own size and time, so an answer given to the wrong name shows.
            std::map<QByteArray, QByteArray> expected;
            for (int i = 0; i < count; ++i) {
                const QByteArray name = "entry-" + QByteArray::number(i);
                const KVNDate time{1'000'000'000 + i, uint32_t((i * 7919) % 1'000'000'000)};
                tree.file(name, QByteArray(i % 7, 'x'), -1);
                tree.setMtime(name, time.seconds, time.nanoseconds);
                expected[name] = describe({name, KVNFileType::Regular, uint64_t(i % 7), time});
            }
            QVERIFY(readBoth(tree.root()));
            QCOMPARE(status_, KVNScanStatus::Ok);
            QCOMPARE(int(entries_.size()), count);
            QCOMPARE(byName(entries_), expected);
        }
    }

    void namesKindsTimesAndLinks()
    {
        KVNTestTree tree;
        std::map<QByteArray, QByteArray> expected;
        const auto expect = [&](const QByteArray &name, KVNFileType type, uint64_t size, KVNDate time) {
            tree.setMtime(name, time.seconds, time.nanoseconds);
            expected[name] = describe({name, type, size, time});
        };
        // Odd names, with times from before 1970 to after 2038.
        int64_t seconds = -1'100'086'400;
        for (const QByteArray &name : {QByteArray("\xff\xfe.bin"), QByteArray("latin1-\xe9t\xe9"),
                                       QByteArray("line\nbreak"), QByteArray("back\\slash"), QByteArray(255, 'n')}) {
            tree.file(name, {}, -1);
            expect(name, KVNFileType::Regular, 0, {seconds += 1'100'000'000, 5});
        }
        tree.file("dir-\x80\x81/inside", "12345");
        expect("dir-\x80\x81", KVNFileType::Directory, 0, {1, 2}); // nothing of what is inside
        QVERIFY(::mkfifo(tree.path("fifo").constData(), 0644) == 0);
        expect("fifo", KVNFileType::Other, 0, {3, 4});
        // Sparse and past 32 bits.
        tree.file("big", {}, -1);
        QVERIFY(::truncate(tree.path("big").constData(), off_t(5) << 30) == 0);
        expect("big", KVNFileType::Regular, uint64_t(5) << 30, {1'234'567'890, 123'456'789});
        // Never followed: their own size (the length of what they hold) and time.
        for (const auto &[name, target] :
             {std::pair{"to-file", "big"}, {"to-dir", "dir-\x80\x81"}, {"broken", "no/such/thing"}}) {
            tree.symlink(name, target, -1);
            expect(name, KVNFileType::SymbolicLink, qstrlen(target), {1'600'000'000, 999'999'999});
        }
        QVERIFY(readBoth(tree.root()));
        QCOMPARE(status_, KVNScanStatus::Ok);
        QCOMPARE(byName(entries_), expected);

        // One item at a time gives what the directory read gave.
        const auto item = [](const QByteArray &path) {
            KVNDirectoryEntry entry;
            return KVNDirectoryReader::attributesOfItem(path, entry) ? describe(entry) : QByteArray("unreadable");
        };
        for (const auto &[name, description] : expected)
            QCOMPARE(item(tree.path(name)), description);
        QVERIFY(item("/").startsWith("%2F type 1 "));
        for (const QByteArray &bad : {tree.path("missing"), QByteArray(), QByteArray("/\0tmp", 5)})
            QCOMPARE(item(bad), QByteArray("unreadable"));
    }

    void failures()
    {
        KVNTestTree tree;
        tree.file("file");
        tree.file("real/sub/leaf");
        tree.symlink("link", "real");
        const std::pair<QByteArray, int> cases[] = {
            {tree.path("missing"), ENOENT},
            {tree.path("file"), ENOTDIR},
            {tree.path("link"), ENOTDIR}, // the last component is never followed
            {tree.path(QByteArray("real\0/x", 7)), EINVAL},
            {QByteArray(), ENOENT},
        };
        for (const auto &[path, error] : cases) {
            QVERIFY2(readBoth(path), path.constData());
            QVERIFY2(status_ == KVNScanStatus::Error && plain_.errorNumber() == error && entries_.empty(),
                     path.constData());
        }
        // A link higher up the path is followed.
        QVERIFY(readBoth(tree.path("link/sub")));
        QVERIFY(status_ == KVNScanStatus::Ok && plain_.errorNumber() == 0 && entries_.size() == 1 &&
                entries_[0].name == "leaf");
    }

    void accessDenied()
    {
        KVNTestTree tree;
        KVNOpenUpForUnprivileged(tree.root());
        // Names readable but entries not, and the other way round, are both denied.
        const std::tuple<QByteArray, mode_t, KVNScanStatus, std::size_t> cases[] = {
            {"closed", 0700, KVNScanStatus::AccessDenied, 0},
            {"listable-only", 0744, KVNScanStatus::AccessDenied, 0},
            {"open", 0755, KVNScanStatus::Ok, 3},
        };
        for (const auto &[name, mode, status, entries] : cases) {
            for (const char *file : {"/one", "/two", "/three"})
                tree.file(name + file);
            QVERIFY(::chmod(tree.path(name).constData(), mode) == 0);
        }
        // Read by another user, so that the mode bits apply also to a root run;
        // the exit code names the first case and reader that went wrong.
        const int code = KVNRunUnprivileged([&] {
            int code = 1;
            for (const auto &[name, mode, expected, entries] : cases) {
                for (auto method : {Method::Plain, Method::IoUring}) {
                    KVNDirectoryReader reader(method);
                    Entries out(1);
                    const KVNScanStatus status = reader.readDirectory(tree.path(name), out);
                    const bool denied = reader.errorNumber() == EACCES || reader.errorNumber() == EPERM;
                    if (status != expected || out.size() != entries || (status != KVNScanStatus::Ok && !denied))
                        return code;
                    ++code;
                }
            }
            return 0;
        });
        if (code < 0 || (::geteuid() != 0 && ::access(tree.path("closed").constData(), R_OK) == 0))
            QSKIP("permission bits do not bind here");
        QCOMPARE(code, 0);
    }

    void churnWhileReading()
    {
        // Entries that vanish between listing and stat are left out and never turn
        // the read into an error. The window cannot be forced, so files are
        // removed and recreated continuously while the directory is read.
        KVNTestTree tree;
        for (int i = 0; i < 300; ++i)
            tree.file("stable-" + QByteArray::number(i), QByteArray(i, 's'));
        std::atomic<bool> stop{false};
        const QByteArray base = tree.root();
        std::thread churner([&] {
            while (!stop.load(std::memory_order_relaxed)) {
                for (int i = 0; i < 300; ++i)
                    ::close(::open((base + "/churn-" + QByteArray::number(i)).constData(), O_CREAT | O_WRONLY, 0644));
                for (int i = 0; i < 300; ++i)
                    ::unlink((base + "/churn-" + QByteArray::number(i)).constData());
            }
        });
        const auto joiner = qScopeGuard([&] {
            stop = true;
            churner.join();
        });
        for (int round = 0; round < 200; ++round) {
            Entries out;
            QCOMPARE((round % 2 ? plain_ : ring_).readDirectory(base, out), KVNScanStatus::Ok);
            int stable = 0;
            for (const auto &entry : out) {
                const bool isStable = entry.name.startsWith("stable-");
                QVERIFY(isStable || entry.name.startsWith("churn-"));
                QCOMPARE(entry.type, KVNFileType::Regular);
                QCOMPARE(entry.size, isStable ? uint64_t(entry.name.mid(7).toInt()) : uint64_t(0));
                stable += isStable;
            }
            QCOMPARE(stable, 300);
        }
    }
};

QTEST_GUILESS_MAIN(TestDirectoryReader)
#include "tst_directoryreader.moc"

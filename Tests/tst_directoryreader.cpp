// ctest-label: concurrency
#include "KVNDirectoryReader.h"
#include "KVNTestTree.h"

#include <QtTest>

#include <atomic>
#include <map>
#include <thread>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/io_uring.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using Entries = std::vector<KVNDirectoryEntry>;
using Method = KVNDirectoryReader::StatMethod;

QByteArray describe(const KVNDirectoryEntry &e)
{
    return e.name.toPercentEncoding() + " type " + QByteArray::number(int(e.type)) + " size " +
           QByteArray::number(e.size) + " mtime " + QByteArray::number(e.modified.seconds) + "." +
           QByteArray::number(e.modified.nanoseconds);
}

QByteArrayList described(const Entries &entries)
{
    QByteArrayList list;
    for (const auto &entry : entries)
        list << describe(entry);
    return list;
}

// Keyed by name, described; a duplicate name makes it smaller than the list.
std::map<QByteArray, QByteArray> byName(const Entries &entries)
{
    std::map<QByteArray, QByteArray> map;
    for (const auto &entry : entries)
        map.emplace(entry.name, describe(entry));
    return map;
}

// What restrictive container profiles show: io_uring refused (EPERM), no
// statx (ENOSYS). Only for a child process.
bool refuseRingAndStatx()
{
#if defined(__x86_64__)
    constexpr uint32_t arch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr uint32_t arch = AUDIT_ARCH_AARCH64;
#else
    return false;
#endif
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_statx, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_io_uring_setup, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace

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
                          plain_.errorNumber() == ring_.errorNumber() && described(plainOut) == described(ringOut);
        if (!same)
            qWarning() << int(status_) << described(plainOut) << described(ringOut);
        entries_ = std::move(plainOut);
        return same;
    }

private slots:
    void entryCounts_data()
    {
        QTest::addColumn<int>("count");
        // Around a getdents buffer and an io_uring batch.
        for (int count : {0, 1, 110, 111, 256, 257, 10000})
            QTest::addRow("%d", count) << count;
    }
    void entryCounts()
    {
        QFETCH(int, count);
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

    void namesKindsTimesAndLinks()
    {
        KVNTestTree tree;
        std::map<QByteArray, QByteArray> expected;
        const auto expect = [&](const QByteArray &name, KVNFileType type, uint64_t size, KVNDate time) {
            tree.setMtime(name, time.seconds, time.nanoseconds);
            expected[name] = describe({name, type, size, time});
        };
        for (const QByteArray &name : {QByteArray("\xff\xfe.bin"), QByteArray("latin1-\xe9t\xe9"),
                                       QByteArray("line\nbreak"), QByteArray("back\\slash"), QByteArray(255, 'n')}) {
            tree.file(name, {}, -1);
            expect(name, KVNFileType::Regular, 0, {0, 0});
        }
        tree.file("dir-\x80\x81/inside", "12345");
        expect("dir-\x80\x81", KVNFileType::Directory, 0, {1, 2}); // nothing of what is inside
        QVERIFY(::mkfifo(tree.path("fifo").constData(), 0644) == 0);
        expect("fifo", KVNFileType::Other, 0, {3, 4});
        // Sparse and past 32 bits; before 1970 and after 2038.
        tree.file("big", {}, -1);
        QVERIFY(::truncate(tree.path("big").constData(), off_t(5) << 30) == 0);
        expect("big", KVNFileType::Regular, uint64_t(5) << 30, {1'234'567'890, 123'456'789});
        tree.file("old", {}, -1);
        expect("old", KVNFileType::Regular, 0, {-86'400, 5});
        tree.file("late", {}, -1);
        expect("late", KVNFileType::Regular, 0, {4'102'444'800, 42});
        // Never followed: their own size (the length of what they hold) and time.
        for (const auto &[name, target] : {std::pair{"to-file", "big"},
                                           {"to-dir", "dir-\x80\x81"},
                                           {"broken", "no/such/thing"},
                                           {"to-self", "to-self"}}) {
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

        // Where the kernel refuses rings and statx, both methods fall back to the same answers.
        KVNOpenUpForUnprivileged(tree.root());
        const int code = KVNRunUnprivileged([&] {
            if (!refuseRingAndStatx())
                return 77;
            for (auto method : {Method::IoUring, Method::Plain}) {
                KVNDirectoryReader reader(method);
                Entries out;
                if (reader.usesIoUring() || reader.readDirectory(tree.root(), out) != KVNScanStatus::Ok ||
                    byName(out) != expected)
                    return 1;
            }
            KVNDirectoryEntry item;
            return KVNDirectoryReader::attributesOfItem(tree.path("to-file"), item) &&
                           describe(item) == expected["to-file"]
                       ? 0
                       : 1;
        });
        if (code == 77 || code < 0)
            QSKIP("seccomp filters cannot be installed here");
        QCOMPARE(code, 0);
    }

    void failures()
    {
        KVNTestTree tree;
        tree.file("file");
        tree.file("real/sub/leaf");
        tree.symlink("link", "real");
        const std::pair<QByteArray, int> cases[] = {
            {tree.path("missing"), ENOENT},
            {tree.path("missing/child"), ENOENT},
            {tree.path("file"), ENOTDIR},
            {tree.path("file/child"), ENOTDIR},
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
        QCOMPARE(status_, KVNScanStatus::Ok);
        QCOMPARE(plain_.errorNumber(), 0);
        QCOMPARE(entries_.size(), std::size_t(1));
        QCOMPARE(entries_[0].name, QByteArray("leaf"));
    }

    void accessDenied()
    {
        KVNTestTree tree;
        KVNOpenUpForUnprivileged(tree.root());
        // Names readable but entries not, and the other way round, are both denied.
        const std::tuple<QByteArray, mode_t, KVNScanStatus, std::size_t> cases[] = {
            {"closed", 0700, KVNScanStatus::AccessDenied, 0},
            {"listable-only", 0744, KVNScanStatus::AccessDenied, 0},
            {"searchable-only", 0711, KVNScanStatus::AccessDenied, 0},
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
        for (auto *reader : {&plain_, &ring_}) {
            for (int round = 0; round < 100; ++round) {
                Entries out;
                QCOMPARE(reader->readDirectory(base, out), KVNScanStatus::Ok);
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
    }

    void ringUsedWhereverTheKernelGivesOne()
    {
        // Asked of the kernel directly, so that a reader that falls back where it need not is caught.
        io_uring_params params{};
        const long fd = ::syscall(__NR_io_uring_setup, 4, &params);
        const bool rings = fd >= 0;
        if (rings)
            ::close(int(fd));
        QVERIFY(!plain_.usesIoUring());
        QCOMPARE(ring_.usesIoUring(), rings);
        QCOMPARE(KVNDirectoryReader(Method::IoUring).usesIoUring(), rings);
    }
};

QTEST_GUILESS_MAIN(TestDirectoryReader)
#include "tst_directoryreader.moc"

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
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Entries = std::vector<KVNDirectoryEntry>;

QByteArray describe(const KVNDirectoryEntry &e)
{
    return e.name.toPercentEncoding() + " type " + QByteArray::number(int(e.type)) + " size " +
           QByteArray::number(e.size) + " mtime " + QByteArray::number(e.modified.seconds) + "." +
           QByteArray::number(e.modified.nanoseconds);
}

// Keyed by name, described; a duplicate name makes it smaller than the list.
std::map<QByteArray, QByteArray> byName(const Entries &entries)
{
    std::map<QByteArray, QByteArray> map;
    for (const auto &entry : entries)
        map.emplace(entry.name, describe(entry));
    return map;
}

bool sized(const QByteArray &path, off_t size)
{
    const int fd = ::open(path.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const bool ok = fd >= 0 && ::ftruncate(fd, size) == 0;
    ::close(fd);
    return ok;
}

bool setTime(const QByteArray &path, int64_t seconds, long nanoseconds)
{
    const timespec times[2] = {{time_t(seconds), nanoseconds}, {time_t(seconds), nanoseconds}};
    return ::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

// Makes this process see what restrictive container profiles show: no
// io_uring (EPERM) and no statx (ENOSYS). Only for a forked child.
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

// Runs fn in a child process; its exit code, or 77 when it could not run.
int inChild(const std::function<int()> &fn)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(fn());
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

class TestDirectoryReader : public QObject {
    Q_OBJECT

    // Kept across tests, so that buffers are reused.
    KVNDirectoryReader plain_{KVNDirectoryReader::StatMethod::Plain};
    KVNDirectoryReader ring_{KVNDirectoryReader::StatMethod::IoUring};
    KVNScanStatus status_ = KVNScanStatus::Error;
    Entries entries_;

    // Reads path with both readers, which must agree on everything, into status_ and entries_.
    bool readBoth(const QByteArray &path)
    {
        // Stale content must be cleared, whatever the outcome; "." is in every
        // directory, so a reader that forgot to clear could not drop it as vanished.
        const KVNDirectoryEntry stale{".", KVNFileType::Regular, 1, {}};
        Entries plainOut{stale}, ringOut{stale};
        status_ = plain_.readDirectory(path, plainOut);
        if (ring_.readDirectory(path, ringOut) != status_ || plain_.errorNumber() != ring_.errorNumber()) {
            qWarning("status differs: plain %d/%d, io_uring %d", int(status_), plain_.errorNumber(),
                     ring_.errorNumber());
            return false;
        }
        // Same directory, same getdents order: the lists match element for element.
        for (std::size_t i = 0; i < std::max(plainOut.size(), ringOut.size()); ++i) {
            const QByteArray p = i < plainOut.size() ? describe(plainOut[i]) : "none";
            const QByteArray r = i < ringOut.size() ? describe(ringOut[i]) : "none";
            if (p != r) {
                qWarning("entry %zu differs: plain %s, io_uring %s", i, p.constData(), r.constData());
                return false;
            }
        }
        entries_ = std::move(plainOut);
        return true;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(!plain_.usesIoUring());
        if (!ring_.usesIoUring())
            qInfo("io_uring is not available here: both readers take the plain path");
    }

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
        // Every file has its own size and time, so an answer given to the wrong
        // name (a batch slot mixed up) shows.
        std::map<QByteArray, QByteArray> expected;
        for (int i = 0; i < count; ++i) {
            const QByteArray name = "entry-" + QByteArray::number(i);
            tree.file(name, QByteArray(i % 7, 'x'), -1);
            QVERIFY(setTime(tree.path(name), 1'000'000'000 + i, (i * 7919) % 1'000'000'000));
            expected[name] = describe({name,
                                       KVNFileType::Regular,
                                       uint64_t(i % 7),
                                       {1'000'000'000 + i, uint32_t((i * 7919) % 1'000'000'000)}});
        }
        QVERIFY(readBoth(tree.root()));
        QCOMPARE(status_, KVNScanStatus::Ok);
        QCOMPARE(plain_.errorNumber(), 0);
        QCOMPARE(int(entries_.size()), count);
        QCOMPARE(byName(entries_), expected);
    }

    void namesKeptByteForByte()
    {
        KVNTestTree tree;
        const QList<QByteArray> names = {
            "\xff\xfe.bin", "latin1-\xe9t\xe9", "utf8-\xc3\xa9t\xc3\xa9", "a:b", "%2F",         "#hash?",
            "line\nbreak",  "tab\there",        " leading and trailing ", "...", "back\\slash", QByteArray(255, 'n')};
        for (const auto &name : names)
            tree.file(name);
        tree.dir("dir-\x80\x81");
        QVERIFY(readBoth(tree.root()));
        const auto found = byName(entries_);
        QCOMPARE(found.size(), std::size_t(names.size() + 1));
        for (const auto &name : names)
            QVERIFY2(found.count(name) && found.at(name).contains(" type 0 "), name.toPercentEncoding().constData());
        QVERIFY(found.at("dir-\x80\x81").contains(" type 1 "));
    }

    void kindsSizesTimesAndLinks()
    {
        KVNTestTree tree;
        // The last size is sparse and past 32 bits.
        for (const uint64_t size : {uint64_t(0), uint64_t(4097), uint64_t(5) << 30})
            QVERIFY(sized(tree.path("size-" + QByteArray::number(size)), off_t(size)));
        tree.file("directory/inside", "12345");
        tree.file("targetdir/inside");
        QVERIFY(::mkfifo(tree.path("fifo").constData(), 0644) == 0);
        const QByteArray socketPath = tree.path("socket");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        QVERIFY(std::size_t(socketPath.size()) < sizeof(address.sun_path));
        std::memcpy(address.sun_path, socketPath.constData(), std::size_t(socketPath.size()));
        const int sock = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int bound = ::bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        ::close(sock);
        QCOMPARE(bound, 0);
        // Links are never followed: their own size (the length of what they hold) and time.
        const struct {
            const char *name, *target;
        } links[] = {{"to-file", "size-4097"},
                     {"to-dir", "targetdir"},
                     {"broken", "no/such/thing"},
                     {"to-self", "to-self"},
                     {"absolute", "/"}};
        for (std::size_t i = 0; i < std::size(links); ++i)
            tree.symlink(links[i].name, links[i].target, 1'600'000'000 + int64_t(i));
        // Times to the nanosecond, before 1970 and after 2038.
        const KVNDate times[] = {
            {0, 0}, {1'234'567'890, 123'456'789}, {1'700'000'000, 999'999'999}, {-86'400, 5}, {4'102'444'800, 42}};
        for (const KVNDate &time : times) {
            tree.file("time" + QByteArray::number(time.seconds), {}, -1);
            QVERIFY(setTime(tree.path("time" + QByteArray::number(time.seconds)), time.seconds, time.nanoseconds));
        }

        QVERIFY(readBoth(tree.root()));
        QCOMPARE(status_, KVNScanStatus::Ok);
        auto found = byName(entries_);
        QCOMPARE(found.size(), std::size_t(3 + 4 + std::size(links) + std::size(times)));
        for (const uint64_t size : {uint64_t(0), uint64_t(4097), uint64_t(5) << 30})
            QVERIFY(found["size-" + QByteArray::number(size)].contains(" type 0 size " + QByteArray::number(size)));
        QVERIFY(found["directory"].contains(" type 1 size 0 ")); // one level: nothing of what is inside
        QVERIFY(found["fifo"].contains(" type 3 "));
        QVERIFY(found["socket"].contains(" type 3 "));
        for (const KVNDate &time : times)
            QCOMPARE(found["time" + QByteArray::number(time.seconds)],
                     describe({"time" + QByteArray::number(time.seconds), KVNFileType::Regular, 0, time}));
        for (std::size_t i = 0; i < std::size(links); ++i)
            QCOMPARE(found[links[i].name], describe({links[i].name,
                                                     KVNFileType::SymbolicLink,
                                                     qstrlen(links[i].target),
                                                     {1'600'000'000 + int64_t(i), 0}}));
    }

    void failures()
    {
        KVNTestTree tree;
        tree.file("file");
        tree.file("real/sub/leaf");
        tree.symlink("link", "real");
        const struct {
            const char *what;
            QByteArray path;
            int error;
        } cases[] = {
            {"missing", tree.path("missing"), ENOENT},
            {"missing parent", tree.path("missing/child"), ENOENT},
            {"regular file", tree.path("file"), ENOTDIR},
            {"file as parent", tree.path("file/child"), ENOTDIR},
            {"link as the directory", tree.path("link"), ENOTDIR},
            {"NUL inside", tree.path(QByteArray("real\0/x", 7)), EINVAL},
            {"empty", QByteArray(), ENOENT},
        };
        for (const auto &c : cases) {
            QVERIFY2(readBoth(c.path), c.what);
            QVERIFY2(status_ == KVNScanStatus::Error && plain_.errorNumber() == c.error && entries_.empty(), c.what);
        }
        // A link higher up the path is followed; only the last component is not.
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
        const struct {
            const char *name;
            int mode;
            KVNScanStatus expected;
            std::size_t entries;
        } cases[] = {
            {"closed", 0700, KVNScanStatus::AccessDenied, 0},
            {"listable-only", 0744, KVNScanStatus::AccessDenied, 0}, // names readable, entries not
            {"searchable-only", 0711, KVNScanStatus::AccessDenied, 0},
            {"open", 0755, KVNScanStatus::Ok, 3},
        };
        for (const auto &c : cases) {
            for (const char *file : {"/one", "/two", "/three"})
                tree.file(c.name + QByteArray(file));
            QVERIFY(::chmod(tree.path(c.name).constData(), mode_t(c.mode)) == 0);
        }
        // Read by another user, so that the mode bits apply also to a root run;
        // the exit code names the first case and reader that went wrong.
        const int code = KVNRunUnprivileged([&] {
            for (std::size_t i = 0; i < std::size(cases); ++i) {
                for (auto method : {KVNDirectoryReader::StatMethod::Plain, KVNDirectoryReader::StatMethod::IoUring}) {
                    KVNDirectoryReader reader(method);
                    Entries out(1);
                    const KVNScanStatus status = reader.readDirectory(tree.path(cases[i].name), out);
                    const bool denied = reader.errorNumber() == EACCES || reader.errorNumber() == EPERM;
                    if (status != cases[i].expected || out.size() != cases[i].entries ||
                        (status == KVNScanStatus::AccessDenied && !denied))
                        return int(1 + 2 * i + (method == KVNDirectoryReader::StatMethod::IoUring));
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

    void attributesOfItem()
    {
        KVNTestTree tree;
        tree.file("f\xff:1", QByteArray(4097, 'f'), -1);
        QVERIFY(setTime(tree.path("f\xff:1"), 1'234'567'890, 987'654'321));
        tree.symlink("link", "f\xff:1", -1);
        QVERIFY(setTime(tree.path("link"), 1'111'111'111, 7));
        const auto item = [](const QByteArray &path) {
            KVNDirectoryEntry entry;
            return KVNDirectoryReader::attributesOfItem(path, entry) ? describe(entry) : QByteArray("unreadable");
        };
        QCOMPARE(item(tree.path("f\xff:1")),
                 describe({"f\xff:1", KVNFileType::Regular, 4097, {1'234'567'890, 987'654'321}}));
        QCOMPARE(item(tree.path("link")), describe({"link", KVNFileType::SymbolicLink, 4, {1'111'111'111, 7}}));
        const QByteArray name = tree.root().mid(tree.root().lastIndexOf('/') + 1);
        QVERIFY(item(tree.root() + "/").startsWith(name.toPercentEncoding() + " type 1 size 0 "));
        QVERIFY(item("/").startsWith("%2F type 1 "));
        for (const QByteArray &bad : {tree.path("missing"), QByteArray(), QByteArray("/\0tmp", 5)})
            QCOMPARE(item(bad), QByteArray("unreadable"));
    }

    void methodSelection()
    {
        // Whether this kernel hands out rings at all, asked without the reader's help,
        // so that a reader that silently falls back where it need not is caught.
        io_uring_params params{};
        const long fd = ::syscall(__NR_io_uring_setup, 4, &params);
        const bool rings = fd >= 0;
        if (rings)
            ::close(int(fd));
        QCOMPARE(ring_.usesIoUring(), rings);
        const QByteArray saved = qgetenv("KORVANE_SCAN_IO_URING");
        const bool wasSet = qEnvironmentVariableIsSet("KORVANE_SCAN_IO_URING");
        const auto restore = qScopeGuard([&] {
            if (wasSet)
                qputenv("KORVANE_SCAN_IO_URING", saved);
            else
                qunsetenv("KORVANE_SCAN_IO_URING");
        });
        qputenv("KORVANE_SCAN_IO_URING", "1");
        QCOMPARE(KVNDirectoryReader().usesIoUring(), rings);
        qputenv("KORVANE_SCAN_IO_URING", "0");
        QVERIFY(!KVNDirectoryReader().usesIoUring());
        // The variable never overrides an explicit choice.
        QCOMPARE(KVNDirectoryReader(KVNDirectoryReader::StatMethod::IoUring).usesIoUring(), rings);
    }

    void fallbackWhenKernelRefuses()
    {
        KVNTestTree tree;
        tree.file("file", QByteArray(4097, 'f'), 1'300'000'000);
        tree.dir("sub");
        tree.symlink("link", "file", 1'300'000'001);
        QVERIFY(::mkfifo(tree.path("fifo").constData(), 0644) == 0);
        for (int i = 0; i < 300; ++i)
            tree.file("many-" + QByteArray::number(i), QByteArray(i, 'm'));
        QVERIFY(readBoth(tree.root()));
        const Entries expected = entries_;
        KVNDirectoryEntry expectedItem;
        QVERIFY(KVNDirectoryReader::attributesOfItem(tree.path("link"), expectedItem));

        // 0: the same answers without a ring and without statx; 77: no seccomp here.
        const int code = inChild([&] {
            if (!refuseRingAndStatx())
                return 77;
            for (auto method : {KVNDirectoryReader::StatMethod::IoUring, KVNDirectoryReader::StatMethod::Plain}) {
                KVNDirectoryReader reader(method);
                Entries out;
                if (reader.usesIoUring())
                    return 2;
                if (reader.readDirectory(tree.root(), out) != KVNScanStatus::Ok || byName(out) != byName(expected))
                    return 1;
            }
            KVNDirectoryEntry item;
            return KVNDirectoryReader::attributesOfItem(tree.path("link"), item) &&
                           describe(item) == describe(expectedItem)
                       ? 0
                       : 1;
        });
        if (code == 77)
            QSKIP("seccomp filters cannot be installed here");
        QCOMPARE(code, 0);
    }
};

QTEST_GUILESS_MAIN(TestDirectoryReader)
#include "tst_directoryreader.moc"

// ctest-label: concurrency
#include "KVNDirectoryReader.h"

#include <QtTest>

#include <atomic>
#include <cerrno>
#include <map>
#include <thread>

#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
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

char *toString(KVNScanStatus status)
{
    static const char *const names[] = {"Ok", "AccessDenied", "Error"};
    return qstrdup(names[int(status)]);
}

char *toString(KVNFileType type)
{
    static const char *const names[] = {"Regular", "Directory", "SymbolicLink", "Other"};
    return qstrdup(names[int(type)]);
}

namespace {

struct Listing {
    KVNScanStatus status = KVNScanStatus::Error;
    int error = 0;
    std::vector<KVNDirectoryEntry> entries;

    // Keyed by name; a duplicate name makes it smaller than entries.
    std::map<QByteArray, KVNDirectoryEntry> byName() const
    {
        std::map<QByteArray, KVNDirectoryEntry> map;
        for (const auto &entry : entries)
            map.emplace(entry.name, entry);
        return map;
    }
};

bool sameEntry(const KVNDirectoryEntry &a, const KVNDirectoryEntry &b)
{
    return a.name == b.name && a.type == b.type && a.size == b.size && a.modified == b.modified;
}

QByteArray describe(const KVNDirectoryEntry &e)
{
    return e.name.toPercentEncoding() + " type " + QByteArray::number(int(e.type)) + " size " +
           QByteArray::number(e.size) + " mtime " + QByteArray::number(e.modified.seconds) + "." +
           QByteArray::number(e.modified.nanoseconds);
}

bool makeFile(const QByteArray &path, off_t size = 0)
{
    const int fd = ::open(path.constData(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool ok = ::ftruncate(fd, size) == 0;
    ::close(fd);
    return ok;
}

bool setTime(const QByteArray &path, int64_t seconds, long nanoseconds)
{
    const timespec times[2] = {{time_t(seconds), nanoseconds}, {time_t(seconds), nanoseconds}};
    return ::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

// Whether this kernel hands out rings at all, asked without the reader's help,
// so that a reader that silently falls back where it need not is caught.
bool kernelGivesRings()
{
    io_uring_params params{};
    const long fd = ::syscall(__NR_io_uring_setup, 4, &params);
    if (fd < 0)
        return false;
    ::close(int(fd));
    return true;
}

// A temporary directory removed by bytes: QTemporaryDir decodes names on
// the way out and leaves behind those that are not valid UTF-8.
class ScratchDir {
public:
    ScratchDir()
    {
        QByteArray pattern = QFile::encodeName(QDir::tempPath()) + "/tst_directoryreader-XXXXXX";
        if (::mkdtemp(pattern.data()))
            path_ = pattern;
    }
    ~ScratchDir()
    {
        if (!path_.isEmpty())
            ::nftw(path_.constData(), removeOne, 32, FTW_DEPTH | FTW_PHYS);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    bool isValid() const { return !path_.isEmpty(); }
    QByteArray path(const QByteArray &name = {}) const { return name.isEmpty() ? path_ : path_ + '/' + name; }

private:
    static int removeOne(const char *path, const struct stat *, int, FTW *)
    {
        ::remove(path);
        return 0;
    }
    QByteArray path_;
};

// Codes a drop-privileges child reports through its pipe.
struct ChildResult {
    int32_t status;
    int32_t error;
    int32_t count;
};
constexpr int kChildCannotDrop = 77;

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

} // namespace

class TestDirectoryReader : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void emptyDirectory();
    void entryCounts_data();
    void entryCounts();
    void namesKeptByteForByte();
    void kindsOfEntries();
    void symbolicLinksNotFollowed();
    void sizes();
    void modificationTimes_data();
    void modificationTimes();
    void failures();
    void accessDenied();
    void churnWhileReading();
    void attributesOfItem();
    void methodSelection();
    void fallbackWhenKernelRefuses();

private:
    // Reads path with the plain and the io_uring reader (kept across tests, so
    // buffers are reused) and fails unless both agree on everything.
    bool readBoth(const QByteArray &path, Listing &listing);

    std::unique_ptr<KVNDirectoryReader> plain_;
    std::unique_ptr<KVNDirectoryReader> ring_;
};

void TestDirectoryReader::initTestCase()
{
    plain_ = std::make_unique<KVNDirectoryReader>(KVNDirectoryReader::StatMethod::Plain);
    ring_ = std::make_unique<KVNDirectoryReader>(KVNDirectoryReader::StatMethod::IoUring);
    QVERIFY(!plain_->usesIoUring());
    if (!ring_->usesIoUring())
        qInfo("io_uring is not available here: both readers take the plain path");
}

bool TestDirectoryReader::readBoth(const QByteArray &path, Listing &listing)
{
    // Stale content must be cleared, whatever the outcome. "." exists in every
    // directory, so a reader that forgot to clear could not drop it as vanished.
    const KVNDirectoryEntry stale{".", KVNFileType::Regular, 1, {}};
    std::vector<KVNDirectoryEntry> plainOut{stale}, ringOut{stale};
    const KVNScanStatus plainStatus = plain_->readDirectory(path, plainOut);
    const KVNScanStatus ringStatus = ring_->readDirectory(path, ringOut);
    if (plainStatus != ringStatus || plain_->errorNumber() != ring_->errorNumber()) {
        qWarning("status differs: plain %d/%d, io_uring %d/%d", int(plainStatus), plain_->errorNumber(),
                 int(ringStatus), ring_->errorNumber());
        return false;
    }
    if (plainOut.size() != ringOut.size()) {
        qWarning("entry count differs: plain %zu, io_uring %zu", plainOut.size(), ringOut.size());
        return false;
    }
    // Same directory, same getdents order: the lists match element for element.
    for (std::size_t i = 0; i < plainOut.size(); ++i) {
        if (!sameEntry(plainOut[i], ringOut[i])) {
            qWarning("entry %zu differs: plain %s, io_uring %s", i, describe(plainOut[i]).constData(),
                     describe(ringOut[i]).constData());
            return false;
        }
    }
    listing.status = plainStatus;
    listing.error = plain_->errorNumber();
    listing.entries = std::move(plainOut);
    return true;
}

void TestDirectoryReader::emptyDirectory()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    QCOMPARE(listing.error, 0);
    QVERIFY(listing.entries.empty());
}

void TestDirectoryReader::entryCounts_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("1") << 1;
    QTest::newRow("110") << 110;
    QTest::newRow("111") << 111;
    // Around one io_uring batch.
    QTest::newRow("256") << 256;
    QTest::newRow("257") << 257;
    QTest::newRow("10000") << 10000;
}

void TestDirectoryReader::entryCounts()
{
    QFETCH(int, count);
    ScratchDir dir;
    QVERIFY(dir.isValid());
    // Every file has its own size and time, so an answer given to the wrong
    // name (a batch slot mixed up) shows.
    for (int i = 0; i < count; ++i) {
        const QByteArray path = dir.path("entry-" + QByteArray::number(i));
        QVERIFY(makeFile(path, off_t(i) * 3));
        QVERIFY(setTime(path, 1'000'000'000 + i, (i * 7919) % 1'000'000'000));
    }
    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    QCOMPARE(int(listing.entries.size()), count);
    const auto byName = listing.byName();
    QCOMPARE(int(byName.size()), count);
    for (int i = 0; i < count; ++i) {
        const auto it = byName.find("entry-" + QByteArray::number(i));
        QVERIFY2(it != byName.end(), QByteArray::number(i).constData());
        QCOMPARE(it->second.type, KVNFileType::Regular);
        QCOMPARE(it->second.size, uint64_t(i) * 3);
        QCOMPARE(it->second.modified, (KVNDate{1'000'000'000 + i, uint32_t((i * 7919) % 1'000'000'000)}));
    }
}

void TestDirectoryReader::namesKeptByteForByte()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    const QList<QByteArray> names = {
        QByteArray("\xff\xfe.bin"),
        QByteArray("latin1-\xe9t\xe9"),
        QByteArray("utf8-\xc3\xa9t\xc3\xa9"),
        QByteArray("a:b"),
        QByteArray("100%"),
        QByteArray("%2F"),
        QByteArray("#hash"),
        QByteArray("what?"),
        QByteArray("line\nbreak"),
        QByteArray("tab\there"),
        QByteArray(" leading space"),
        QByteArray("trailing space "),
        QByteArray("..."),
        QByteArray(".hidden"),
        QByteArray("back\\slash"),
        QByteArray(255, 'n'),
    };
    for (const auto &name : names)
        QVERIFY2(makeFile(dir.path(name)), name.toPercentEncoding().constData());
    QVERIFY(::mkdir(dir.path("dir-\x80\x81").constData(), 0755) == 0);

    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    const auto byName = listing.byName();
    QCOMPARE(byName.size(), std::size_t(names.size() + 1));
    for (const auto &name : names) {
        const auto it = byName.find(name);
        QVERIFY2(it != byName.end(), name.toPercentEncoding().constData());
        QCOMPARE(it->second.type, KVNFileType::Regular);
    }
    QVERIFY(byName.count("dir-\x80\x81"));
    QCOMPARE(byName.at("dir-\x80\x81").type, KVNFileType::Directory);
}

void TestDirectoryReader::kindsOfEntries()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(makeFile(dir.path("file"), 10));
    QVERIFY(::mkdir(dir.path("directory").constData(), 0755) == 0);
    QVERIFY(makeFile(dir.path("directory/inside"), 5));
    QVERIFY(::mkfifo(dir.path("fifo").constData(), 0644) == 0);

    const QByteArray socketPath = dir.path("socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    QVERIFY(std::size_t(socketPath.size()) < sizeof(address.sun_path));
    std::memcpy(address.sun_path, socketPath.constData(), std::size_t(socketPath.size()));
    const int sock = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QVERIFY(sock >= 0);
    const int bound = ::bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    ::close(sock);
    QCOMPARE(bound, 0);

    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    const auto byName = listing.byName();
    QCOMPARE(byName.size(), std::size_t(4));
    QCOMPARE(byName.at("file").type, KVNFileType::Regular);
    QCOMPARE(byName.at("file").size, uint64_t(10));
    QCOMPARE(byName.at("directory").type, KVNFileType::Directory);
    QCOMPARE(byName.at("directory").size, uint64_t(0));
    QCOMPARE(byName.at("fifo").type, KVNFileType::Other);
    QCOMPARE(byName.at("socket").type, KVNFileType::Other);
    // The listing is one level: nothing of the subdirectory shows.
    QVERIFY(!byName.count("inside"));
}

void TestDirectoryReader::symbolicLinksNotFollowed()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(makeFile(dir.path("target"), 12345));
    QVERIFY(setTime(dir.path("target"), 1'500'000'000, 1));
    QVERIFY(::mkdir(dir.path("targetdir").constData(), 0755) == 0);
    QVERIFY(makeFile(dir.path("targetdir/inside")));

    struct LinkCase {
        QByteArray name;
        QByteArray target;
        int64_t seconds;
        long nanoseconds;
    };
    const LinkCase links[] = {
        {"to-file", "target", 1'600'000'001, 111'111'111},
        {"to-dir", "targetdir", 1'600'000'002, 222'222'222},
        {"broken", "no/such/thing", 1'600'000'003, 333'333'333},
        {"to-self", "to-self", 1'600'000'004, 444'444'444},
        {"absolute", dir.path("targetdir"), 1'600'000'005, 555'555'555},
    };
    for (const auto &link : links) {
        const QByteArray path = dir.path(link.name);
        QVERIFY(::symlink(link.target.constData(), path.constData()) == 0);
        QVERIFY(setTime(path, link.seconds, link.nanoseconds));
    }

    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    const auto byName = listing.byName();
    QCOMPARE(byName.size(), std::size_t(2 + std::size(links)));
    for (const auto &link : links) {
        const KVNDirectoryEntry &entry = byName.at(link.name);
        QCOMPARE(entry.type, KVNFileType::SymbolicLink);
        // A link's size is the length of what it holds, not its target's.
        QCOMPARE(entry.size, uint64_t(link.target.size()));
        QCOMPARE(entry.modified, (KVNDate{link.seconds, uint32_t(link.nanoseconds)}));
    }
    QCOMPARE(byName.at("target").modified, (KVNDate{1'500'000'000, 1}));
    QCOMPARE(byName.at("targetdir").type, KVNFileType::Directory);
}

void TestDirectoryReader::sizes()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    const uint64_t sizes[] = {0, 1, 4095, 4096, 4097, uint64_t(5) << 30}; // the last is sparse, past 32 bits
    for (uint64_t size : sizes)
        QVERIFY(makeFile(dir.path("size-" + QByteArray::number(size)), off_t(size)));
    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    const auto byName = listing.byName();
    QCOMPARE(byName.size(), std::size(sizes));
    for (uint64_t size : sizes)
        QCOMPARE(byName.at("size-" + QByteArray::number(size)).size, size);
}

void TestDirectoryReader::modificationTimes_data()
{
    QTest::addColumn<qint64>("seconds");
    QTest::addColumn<int>("nanoseconds");
    QTest::newRow("epoch") << qint64(0) << 0;
    QTest::newRow("one nanosecond") << qint64(0) << 1;
    QTest::newRow("all digits") << qint64(1'234'567'890) << 123'456'789;
    QTest::newRow("last nanosecond") << qint64(1'700'000'000) << 999'999'999;
    QTest::newRow("before 1970") << qint64(-86'400) << 5;
    QTest::newRow("after 2038") << qint64(4'102'444'800) << 42;
}

void TestDirectoryReader::modificationTimes()
{
    QFETCH(qint64, seconds);
    QFETCH(int, nanoseconds);
    ScratchDir dir;
    QVERIFY(dir.isValid());
    // Two entries, so the io_uring reader batches them rather than asking one by one.
    for (const char *name : {"a", "b"}) {
        QVERIFY(makeFile(dir.path(name)));
        if (!setTime(dir.path(name), seconds, nanoseconds))
            QSKIP("this file system does not take that time");
    }
    Listing listing;
    QVERIFY(readBoth(dir.path(), listing));
    QCOMPARE(listing.status, KVNScanStatus::Ok);
    QCOMPARE(listing.entries.size(), std::size_t(2));
    for (const auto &entry : listing.entries)
        QCOMPARE(entry.modified, (KVNDate{seconds, uint32_t(nanoseconds)}));
}

void TestDirectoryReader::failures()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(makeFile(dir.path("file")));
    QVERIFY(::mkdir(dir.path("real").constData(), 0755) == 0);
    QVERIFY(makeFile(dir.path("real/inside"), 3));
    QVERIFY(::symlink("real", dir.path("link").constData()) == 0);

    struct FailureCase {
        const char *what;
        QByteArray path;
        int error;
    };
    const FailureCase cases[] = {
        {"missing", dir.path("missing"), ENOENT},
        {"missing parent", dir.path("missing/child"), ENOENT},
        {"regular file", dir.path("file"), ENOTDIR},
        {"file as parent", dir.path("file/child"), ENOTDIR},
        {"link as the directory", dir.path("link"), ENOTDIR},
        {"NUL inside", dir.path(QByteArray("real\0/x", 7)), EINVAL},
        {"empty", QByteArray(), ENOENT},
    };
    for (const auto &c : cases) {
        Listing listing;
        QVERIFY2(readBoth(c.path, listing), c.what);
        QVERIFY2(listing.status == KVNScanStatus::Error, c.what);
        QVERIFY2(listing.error == c.error, c.what);
        QVERIFY2(listing.entries.empty(), c.what);
    }

    // A link higher up the path is followed; only the last component is not.
    Listing throughLink;
    QVERIFY(::mkdir(dir.path("real/sub").constData(), 0755) == 0);
    QVERIFY(makeFile(dir.path("real/sub/leaf")));
    QVERIFY(readBoth(dir.path("link/sub"), throughLink));
    QCOMPARE(throughLink.status, KVNScanStatus::Ok);
    QCOMPARE(throughLink.error, 0);
    QCOMPARE(throughLink.entries.size(), std::size_t(1));
    QCOMPARE(throughLink.entries[0].name, QByteArray("leaf"));
}

void TestDirectoryReader::accessDenied()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    // Others must reach the test directories for the denials to be the ones meant.
    QVERIFY(::chmod(dir.path().constData(), 0755) == 0);
    struct DeniedCase {
        const char *name;
        int mode;
        KVNScanStatus expected;
        int entries;
    };
    // Seen by someone who is neither owner nor group when running as root,
    // by the owner otherwise: the mode bits are chosen to deny both.
    const bool root = ::geteuid() == 0;
    const DeniedCase cases[] = {
        {"closed", root ? 0700 : 0000, KVNScanStatus::AccessDenied, 0},
        {"listable-only", root ? 0744 : 0400, KVNScanStatus::AccessDenied, 0}, // names readable, entries not
        {"searchable-only", root ? 0711 : 0100, KVNScanStatus::AccessDenied, 0},
        {"open", 0755, KVNScanStatus::Ok, 3},
    };
    for (const auto &c : cases) {
        const QByteArray path = dir.path(c.name);
        QVERIFY(::mkdir(path.constData(), 0755) == 0);
        for (const char *file : {"/one", "/two", "/three"})
            QVERIFY(makeFile(path + file));
        QVERIFY(::chmod(path.constData(), mode_t(c.mode)) == 0);
    }
    const auto restore = qScopeGuard([&] {
        for (const auto &c : cases)
            ::chmod(dir.path(c.name).constData(), 0755);
    });

    constexpr int kMethods = 2;
    ChildResult results[std::size(cases)][kMethods];
    const auto readAll = [&] {
        for (std::size_t i = 0; i < std::size(cases); ++i) {
            for (int m = 0; m < kMethods; ++m) {
                KVNDirectoryReader reader(m ? KVNDirectoryReader::StatMethod::IoUring
                                            : KVNDirectoryReader::StatMethod::Plain);
                std::vector<KVNDirectoryEntry> out(1);
                const KVNScanStatus status = reader.readDirectory(dir.path(cases[i].name), out);
                results[i][m] = {int32_t(status), reader.errorNumber(), int32_t(out.size())};
            }
        }
    };

    if (!root) {
        if (::access(dir.path("closed").constData(), R_OK) == 0)
            QSKIP("permission bits do not bind this user (a capability overrides them)");
        readAll();
    } else {
        // Root ignores the bits, so the reading happens in a child that has
        // dropped to nobody; results come back through a pipe.
        int fds[2];
        QVERIFY(::pipe2(fds, O_CLOEXEC) == 0);
        const pid_t child = ::fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            ::close(fds[0]);
            if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
                ::setresuid(65534, 65534, 65534) != 0)
                ::_exit(kChildCannotDrop);
            readAll();
            const bool written = ::write(fds[1], results, sizeof(results)) == ssize_t(sizeof(results));
            ::_exit(written ? 0 : 1);
        }
        ::close(fds[1]);
        std::size_t got = 0;
        while (got < sizeof(results)) {
            const ssize_t n = ::read(fds[0], reinterpret_cast<char *>(results) + got, sizeof(results) - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            got += std::size_t(n);
        }
        ::close(fds[0]);
        int childStatus = 0;
        while (::waitpid(child, &childStatus, 0) < 0 && errno == EINTR) {
        }
        QVERIFY(WIFEXITED(childStatus));
        if (WEXITSTATUS(childStatus) == kChildCannotDrop)
            QSKIP("cannot drop privileges to uid 65534 here");
        QCOMPARE(WEXITSTATUS(childStatus), 0);
        QCOMPARE(got, sizeof(results));
    }

    for (std::size_t i = 0; i < std::size(cases); ++i) {
        for (int m = 0; m < kMethods; ++m) {
            const QByteArray where = QByteArray(cases[i].name) + (m ? " io_uring" : " plain");
            QVERIFY2(KVNScanStatus(results[i][m].status) == cases[i].expected, where.constData());
            QVERIFY2(results[i][m].count == cases[i].entries, where.constData());
            if (cases[i].expected == KVNScanStatus::AccessDenied)
                QVERIFY2(results[i][m].error == EACCES || results[i][m].error == EPERM, where.constData());
        }
    }
}

void TestDirectoryReader::churnWhileReading()
{
    // Entries that vanish between listing and stat are left out and never turn
    // the read into an error. The window cannot be forced, so files are
    // removed and recreated continuously while the directory is read.
    ScratchDir dir;
    QVERIFY(dir.isValid());
    constexpr int kStable = 300;
    constexpr int kChurning = 300;
    for (int i = 0; i < kStable; ++i)
        QVERIFY(makeFile(dir.path("stable-" + QByteArray::number(i)), i));
    std::atomic<bool> stop{false};
    const QByteArray base = dir.path();
    std::thread churner([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            for (int i = 0; i < kChurning; ++i) {
                const QByteArray path = base + "/churn-" + QByteArray::number(i);
                const int fd = ::open(path.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
                if (fd >= 0)
                    ::close(fd);
            }
            for (int i = 0; i < kChurning; ++i)
                ::unlink((base + "/churn-" + QByteArray::number(i)).constData());
        }
    });
    const auto joiner = qScopeGuard([&] {
        stop.store(true);
        churner.join();
    });

    for (auto *reader : {plain_.get(), ring_.get()}) {
        for (int round = 0; round < 100; ++round) {
            std::vector<KVNDirectoryEntry> out;
            QCOMPARE(reader->readDirectory(base, out), KVNScanStatus::Ok);
            int stable = 0;
            for (const auto &entry : out) {
                QCOMPARE(entry.type, KVNFileType::Regular);
                if (entry.name.startsWith("stable-")) {
                    QCOMPARE(entry.size, uint64_t(entry.name.mid(7).toInt()));
                    ++stable;
                } else {
                    QVERIFY(entry.name.startsWith("churn-"));
                    QCOMPARE(entry.size, uint64_t(0));
                }
            }
            QCOMPARE(stable, kStable);
        }
    }
}

void TestDirectoryReader::attributesOfItem()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    const QByteArray file = dir.path("f\xff:1");
    QVERIFY(makeFile(file, 4097));
    QVERIFY(setTime(file, 1'234'567'890, 987'654'321));
    const QByteArray link = dir.path("link");
    QVERIFY(::symlink("f\xff:1", link.constData()) == 0);
    QVERIFY(setTime(link, 1'111'111'111, 7));

    KVNDirectoryEntry entry;
    QVERIFY(KVNDirectoryReader::attributesOfItem(file, entry));
    QCOMPARE(entry.name, QByteArray("f\xff:1"));
    QCOMPARE(entry.type, KVNFileType::Regular);
    QCOMPARE(entry.size, uint64_t(4097));
    QCOMPARE(entry.modified, (KVNDate{1'234'567'890, 987'654'321}));

    QVERIFY(KVNDirectoryReader::attributesOfItem(link, entry));
    QCOMPARE(entry.name, QByteArray("link"));
    QCOMPARE(entry.type, KVNFileType::SymbolicLink);
    QCOMPARE(entry.size, uint64_t(4)); // "f\xff:1"
    QCOMPARE(entry.modified, (KVNDate{1'111'111'111, 7}));

    QVERIFY(KVNDirectoryReader::attributesOfItem(dir.path() + "/", entry));
    QCOMPARE(entry.type, KVNFileType::Directory);
    QCOMPARE(entry.size, uint64_t(0));
    QCOMPARE(entry.name, dir.path().mid(dir.path().lastIndexOf('/') + 1));

    QVERIFY(KVNDirectoryReader::attributesOfItem("/", entry));
    QCOMPARE(entry.type, KVNFileType::Directory);
    QCOMPARE(entry.name, QByteArray("/"));

    QVERIFY(!KVNDirectoryReader::attributesOfItem(dir.path("missing"), entry));
    QVERIFY(!KVNDirectoryReader::attributesOfItem(QByteArray(), entry));
    QVERIFY(!KVNDirectoryReader::attributesOfItem(QByteArray("/\0tmp", 5), entry));
}

void TestDirectoryReader::methodSelection()
{
    const bool rings = kernelGivesRings();
    QCOMPARE(KVNDirectoryReader(KVNDirectoryReader::StatMethod::IoUring).usesIoUring(), rings);
    QVERIFY(!KVNDirectoryReader(KVNDirectoryReader::StatMethod::Plain).usesIoUring());

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

void TestDirectoryReader::fallbackWhenKernelRefuses()
{
    ScratchDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(makeFile(dir.path("file"), 4097));
    QVERIFY(setTime(dir.path("file"), 1'300'000'000, 123'456'789));
    QVERIFY(::mkdir(dir.path("sub").constData(), 0755) == 0);
    QVERIFY(::symlink("file", dir.path("link").constData()) == 0);
    QVERIFY(setTime(dir.path("link"), 1'300'000'001, 1));
    QVERIFY(::mkfifo(dir.path("fifo").constData(), 0644) == 0);
    for (int i = 0; i < 300; ++i)
        QVERIFY(makeFile(dir.path("many-" + QByteArray::number(i)), i));
    Listing expected;
    QVERIFY(readBoth(dir.path(), expected));
    QCOMPARE(expected.status, KVNScanStatus::Ok);
    KVNDirectoryEntry expectedItem;
    QVERIFY(KVNDirectoryReader::attributesOfItem(dir.path("link"), expectedItem));

    enum ChildExit { Same = 0, Differs = 1, RingNotRefused = 2, NoSeccomp = 77 };
    const pid_t child = ::fork();
    QVERIFY(child >= 0);
    if (child == 0) {
        if (!refuseRingAndStatx())
            ::_exit(NoSeccomp);
        for (auto method : {KVNDirectoryReader::StatMethod::IoUring, KVNDirectoryReader::StatMethod::Plain}) {
            KVNDirectoryReader reader(method);
            if (reader.usesIoUring())
                ::_exit(RingNotRefused);
            std::vector<KVNDirectoryEntry> out;
            if (reader.readDirectory(dir.path(), out) != KVNScanStatus::Ok || out.size() != expected.entries.size())
                ::_exit(Differs);
            for (std::size_t i = 0; i < out.size(); ++i) {
                if (!sameEntry(out[i], expected.entries[i]))
                    ::_exit(Differs);
            }
        }
        KVNDirectoryEntry item;
        if (!KVNDirectoryReader::attributesOfItem(dir.path("link"), item) || !sameEntry(item, expectedItem))
            ::_exit(Differs);
        ::_exit(Same);
    }
    int childStatus = 0;
    while (::waitpid(child, &childStatus, 0) < 0 && errno == EINTR) {
    }
    QVERIFY(WIFEXITED(childStatus));
    if (WEXITSTATUS(childStatus) == NoSeccomp)
        QSKIP("seccomp filters cannot be installed here");
    QCOMPARE(WEXITSTATUS(childStatus), int(Same));
}

QTEST_GUILESS_MAIN(TestDirectoryReader)
#include "tst_directoryreader.moc"

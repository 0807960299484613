// ctest-label: concurrency
#include "KVNExceptionAdditions.h"
#include "KVNKVOAdditions.h"
#include "KVNMainThread.h"
#include "KVNStringAdditions.h"
#include "KVNURLAdditions.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace KVNStringAdditions;
using namespace KVNURLAdditions;

namespace {

void removeTree(const QByteArray &path)
{
    struct stat attributes;
    if (::lstat(path.constData(), &attributes) != 0)
        return;
    if (S_ISDIR(attributes.st_mode)) {
        if (DIR *dir = ::opendir(path.constData())) {
            while (const dirent *entry = ::readdir(dir)) {
                const QByteArray name(entry->d_name);
                if (name != "." && name != "..")
                    removeTree(path + '/' + name);
            }
            ::closedir(dir);
        }
        ::rmdir(path.constData());
    } else {
        ::unlink(path.constData());
    }
}

// A real temporary tree addressed by bytes, so that names need not be UTF-8.
class TempTree {
public:
    TempTree(const TempTree &) = delete;
    TempTree &operator=(const TempTree &) = delete;
    // QTemporaryDir removes by decoded names, which misses names that are not UTF-8.
    ~TempTree()
    {
        if (!root_.isEmpty())
            removeTree(root_);
    }
    TempTree()
    {
        char *real = ::realpath(QFile::encodeName(dir_.path()).constData(), nullptr);
        root_ = real;
        std::free(real);
    }
    bool isValid() const { return dir_.isValid() && !root_.isEmpty(); }
    // The canonical path of the tree's root: what a resolved path starts with.
    QByteArray root() const { return root_; }
    QByteArray path(const QByteArray &relative) const { return root_ + '/' + relative; }
    void makeDir(const QByteArray &relative) const { QVERIFY(::mkdir(path(relative).constData(), 0755) == 0); }
    void makeFile(const QByteArray &relative) const
    {
        const int fd = ::open(path(relative).constData(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        QVERIFY(fd >= 0);
        QVERIFY(::write(fd, "x", 1) == 1);
        ::close(fd);
    }
    void makeLink(const QByteArray &relative, const QByteArray &target) const
    {
        QVERIFY(::symlink(target.constData(), path(relative).constData()) == 0);
    }
    // The text of a file URL for relative, escapes and all.
    QString urlText(const QByteArray &relative) const
    {
        return QString::fromLatin1("file://" + path(relative).toPercentEncoding("/"));
    }
    QUrl url(const QByteArray &relative) const { return QUrl(urlText(relative), QUrl::StrictMode); }

private:
    QTemporaryDir dir_;
    QByteArray root_;
};

// Records what reaches it, on which thread, and keeps the observed values.
class RecordingObserver : public QObject, public KVNSafeObserver {
public:
    struct Delivery {
        QString keyPath;
        const void *object = nullptr;
        int objectValue = -1;
        QVariantMap change;
        void *context = nullptr;
        bool onMainThread = false;
    };

    void saferObserveValueForKeyPath(const QString &keyPath, const void *object, const QVariantMap &change,
                                     void *context) override
    {
        deliveries.push_back({keyPath, object, object ? *static_cast<const int *>(object) : -1, change, context,
                              QThread::currentThread() == qApp->thread()});
        if (onDelivery)
            onDelivery();
    }

    std::vector<Delivery> deliveries;
    std::function<void()> onDelivery;
};

// Runs body in a child process with its output captured; gives back the
// child's wait status and what it wrote.
std::pair<int, QByteArray> runInChild(const std::function<void()> &body)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {-1, {}};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        ::dup2(fds[1], STDERR_FILENO);
        ::dup2(fds[1], STDOUT_FILENO); // the test logger reports assertions there
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        // The test runner's own crash handler is not part of what is tested.
        std::signal(SIGABRT, SIG_DFL);
        body();
        ::_exit(99); // the body was to end the process itself
    }
    ::close(fds[1]);
    QByteArray output;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        output.append(buffer, n);
    }
    ::close(fds[0]);
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return {status, output};
}

[[gnu::noinline]] void throwFromDeepInside(int depth)
{
    if (depth == 0)
        throw std::runtime_error("disk on fire");
    throwFromDeepInside(depth - 1);
    asm volatile(""); // keeps the frames
}

} // namespace

class TestAdditions : public QObject {
    Q_OBJECT

private slots:
    void truncateCenterToFit_data();
    void truncateCenterToFit();
    void truncateCenterToFitCountsUtf16Units();
    void truncateCenterToFitZeroThrows();

    void shortHostnameForLabel_data();
    void shortHostnameForLabel();

    void coerceToURL_data();
    void coerceToURL();

    void appendingPathComponent();
    void deletingLastPathComponentCutsTheEncodedText();
    void posixPathAndLastPathComponent();

    void saneFileURL();
    void saneFileURLResolvesLinks();
    void saneFileURLKeepsNonUtf8Names();
    void saneFileURLOfUnresolvableLinks();

    void observationIsDeliveredLaterOnTheMainThread();
    void observationCarriesTheContextPointer();
    void observationOrderAcrossThreads();
    void observationStopsWithTheReceiver();
    void observationRejectsMissingParts();
    void dispatchOffTheMainThreadIsRefused();

    void printStackTraceAndBail();
    void printStackTraceAndBailForAnyException();
};

// --- strings ---

void TestAdditions::truncateCenterToFit_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<uint>("maxLength");
    QTest::addColumn<QString>("expected");
    const QString ten = QStringLiteral("0123456789");
    QTest::newRow("5 of 10") << ten << 5u << QStringLiteral("01\u202689");
    QTest::newRow("4 of 10") << ten << 4u << QStringLiteral("01\u20269");
    QTest::newRow("3 of 10") << ten << 3u << QStringLiteral("0\u20269");
    QTest::newRow("2 of 10") << ten << 2u << QStringLiteral("0\u2026");
    QTest::newRow("1 is the ellipsis") << ten << 1u << QStringLiteral("\u2026");
    QTest::newRow("9 of 10") << ten << 9u << QStringLiteral("0123\u20266789");
    QTest::newRow("10 fits") << ten << 10u << ten;
    QTest::newRow("11 fits") << ten << 11u << ten;
    QTest::newRow("empty in 0") << QString() << 0u << QString();
}

void TestAdditions::truncateCenterToFit()
{
    QFETCH(QString, input);
    QFETCH(uint, maxLength);
    QFETCH(QString, expected);
    const QString result = KVNStringAdditions::truncateCenterToFit(input, maxLength);
    QCOMPARE(result, expected);
    QVERIFY(result.size() <= qsizetype(maxLength));
}

void TestAdditions::truncateCenterToFitCountsUtf16Units()
{
    // Each face is two units; a cut may fall inside a pair, by design.
    const QString faces = QStringLiteral("a\U0001F600b\U0001F600c"); // 7 units
    QCOMPARE(faces.size(), 7);
    QCOMPARE(KVNStringAdditions::truncateCenterToFit(faces, 7), faces);
    const QString cut = KVNStringAdditions::truncateCenterToFit(faces, 4);
    QCOMPARE(cut.size(), 4);
    QCOMPARE(cut.left(2), faces.left(2));
    QVERIFY(cut.at(1).isHighSurrogate());
    QCOMPARE(cut.at(2), QChar(0x2026));
    QCOMPARE(cut.at(3), QChar(u'c'));
}

void TestAdditions::truncateCenterToFitZeroThrows()
{
    QVERIFY_THROWS_EXCEPTION(std::out_of_range, (void)KVNStringAdditions::truncateCenterToFit(QStringLiteral("x"), 0));
}

void TestAdditions::shortHostnameForLabel_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("expected");
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("no dot") << QStringLiteral("build") << QStringLiteral("build");
    QTest::newRow("name.domain") << QStringLiteral("build.local") << QStringLiteral("build");
    QTest::newRow("address") << QStringLiteral("10.1.2.3") << QStringLiteral("10.1.2.3");
    QTest::newRow("address with zero") << QStringLiteral("10.0.1.5") << QStringLiteral("10");
    QTest::newRow("numbers then word") << QStringLiteral("1.2.3.word") << QStringLiteral("1");
    QTest::newRow("leading zeros count as number") << QStringLiteral("007.9") << QStringLiteral("007.9");
    QTest::newRow("number prefix") << QStringLiteral("12ab.34cd") << QStringLiteral("12ab.34cd");
    QTest::newRow("signed and blank") << QStringLiteral(" -3.+4.x") << QStringLiteral(" -3");
    QTest::newRow("empty component") << QStringLiteral("a..b") << QStringLiteral("a");
    QTest::newRow("leading dot") << QStringLiteral(".local") << QString();
}

void TestAdditions::shortHostnameForLabel()
{
    QFETCH(QString, host);
    QFETCH(QString, expected);
    const QString result = KVNStringAdditions::shortHostnameForLabel(host);
    QCOMPARE(result, expected);
    QVERIFY(!result.isNull());
}

void TestAdditions::coerceToURL_data()
{
    QTest::addColumn<QByteArray>("relative"); // empty: use text as it is
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("gainsSlash");
    QTest::newRow("directory") << QByteArray("dir") << QString() << true;
    QTest::newRow("directory with slash") << QByteArray("dir/") << QString() << false;
    QTest::newRow("directory with blank") << QByteArray("a dir") << QString() << true;
    QTest::newRow("directory not UTF-8") << QByteArray("d\xff") << QString() << true;
    QTest::newRow("file") << QByteArray("file") << QString() << false;
    QTest::newRow("missing") << QByteArray("missing") << QString() << false;
    QTest::newRow("link to directory") << QByteArray("linkdir") << QString() << false;
    QTest::newRow("other scheme") << QByteArray() << QStringLiteral("https://example.org/dir") << false;
    QTest::newRow("not a URL") << QByteArray() << QStringLiteral("file:///a b") << false;
    QTest::newRow("empty") << QByteArray() << QString() << false;
}

void TestAdditions::coerceToURL()
{
    QFETCH(QByteArray, relative);
    QFETCH(QString, text);
    QFETCH(bool, gainsSlash);
    TempTree tree;
    QVERIFY(tree.isValid());
    tree.makeDir("dir");
    tree.makeDir("a dir");
    tree.makeDir("d\xff");
    tree.makeFile("file");
    tree.makeLink("linkdir", "dir");
    if (!relative.isEmpty())
        text = tree.urlText(relative);
    const QString result = KVNStringAdditions::coerceToURL(text);
    QCOMPARE(result, gainsSlash ? text + u'/' : text);
}

// --- URLs ---

void TestAdditions::appendingPathComponent()
{
    const QUrl dir = QUrl(QStringLiteral("file:///srv/some%20dir/"));
    QCOMPARE(URLAppendingPathComponent(dir, "x y", false).toString(QUrl::FullyEncoded),
             QStringLiteral("file:///srv/some%20dir/x%20y"));
    QCOMPARE(URLAppendingPathComponent(dir, QStringLiteral("sub"), true).toString(QUrl::FullyEncoded),
             QStringLiteral("file:///srv/some%20dir/sub/"));
    // Joined like a plain path.
    QCOMPARE(posixPathBytes(URLAppendingPathComponent(dir, "a//b/", false)), QByteArray("/srv/some dir/a/b"));
    // Always a file URL, whatever came in.
    const QUrl web = URLAppendingPathComponent(QUrl(QStringLiteral("https://host/base")), "leaf", false);
    QVERIFY(web.isLocalFile());
    QCOMPARE(posixPathBytes(web), QByteArray("/base/leaf"));
    // Bytes stay bytes.
    const QUrl odd = URLAppendingPathComponent(dir, QByteArray("n\xfe%"), false);
    QCOMPARE(posixPathBytes(odd), QByteArray("/srv/some dir/n\xfe%"));
    QCOMPARE(odd.toString(QUrl::FullyEncoded), QStringLiteral("file:///srv/some%20dir/n%FE%25"));
}

void TestAdditions::deletingLastPathComponentCutsTheEncodedText()
{
    TempTree tree;
    QVERIFY(tree.isValid());
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(QFile::decodeName(tree.root())));
    auto restore = qScopeGuard([&] { QDir::setCurrent(previous); });

    // The scheme is a path component and the escape is taken literally.
    const QUrl result = URLDeletingLastPathComponent(QUrl(QStringLiteral("file:///srv/a%20b/c")));
    QVERIFY(result.isLocalFile());
    QCOMPARE(posixPathBytes(result), tree.path("file:/srv/a%20b"));
    QVERIFY(result.toString(QUrl::FullyEncoded).endsWith(QStringLiteral("/file:/srv/a%2520b")));

    // Where that odd path is a directory, the file system gives it its slash.
    QVERIFY(QDir().mkpath(QStringLiteral("file:/srv/a%20b")));
    QVERIFY(URLDeletingLastPathComponent(QUrl(QStringLiteral("file:///srv/a%20b/c")))
                .toString(QUrl::FullyEncoded)
                .endsWith(QStringLiteral("/file:/srv/a%2520b/")));

    QVERIFY_THROWS_EXCEPTION(std::invalid_argument, (void)URLDeletingLastPathComponent(QUrl()));
    QVERIFY_THROWS_EXCEPTION(std::invalid_argument,
                             (void)URLDeletingLastPathComponent(QUrl(QStringLiteral("mailto:x"))));
}

void TestAdditions::posixPathAndLastPathComponent()
{
    const QUrl blank(QStringLiteral("file:///srv/a%20b"));
    QCOMPARE(posixPath(blank), QStringLiteral("/srv/a b"));
    QCOMPARE(KVNURLAdditions::lastPathComponent(blank), QStringLiteral("a%20b"));
    const QUrl dir(QStringLiteral("file:///srv/dir/"));
    QCOMPARE(posixPath(dir), QStringLiteral("/srv/dir"));
    QCOMPARE(KVNURLAdditions::lastPathComponent(dir), QStringLiteral("dir"));
    QCOMPARE(posixPath(QUrl(QStringLiteral("file:///"))), QStringLiteral("/"));
    // The whole encoded text is cut, query and all.
    QCOMPARE(KVNURLAdditions::lastPathComponent(QUrl(QStringLiteral("https://host/p?q=1"))), QStringLiteral("p?q=1"));
    QCOMPARE(posixPathBytes(QUrl(QStringLiteral("file:///n%FF"))), QByteArray("/n\xff"));
    QCOMPARE(absoluteURL(blank), blank);
}

void TestAdditions::saneFileURL()
{
    TempTree tree;
    QVERIFY(tree.isValid());
    tree.makeDir("dir");
    tree.makeDir("dir/sub");
    tree.makeFile("dir/file");

    QCOMPARE(KVNURLAdditions::saneFileURL(QUrl()), QUrl());
    const QUrl web(QStringLiteral("https://example.org/dir"));
    QCOMPARE(KVNURLAdditions::saneFileURL(web), web);

    const QUrl file = KVNURLAdditions::saneFileURL(tree.url("dir/file"));
    QCOMPARE(posixPathBytes(file), tree.path("dir/file"));
    QVERIFY(!file.toString().endsWith(u'/'));

    const QUrl dir = KVNURLAdditions::saneFileURL(tree.url("dir"));
    QCOMPARE(dir, tree.url("dir/"));
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dir/")), tree.url("dir/"));

    // Rebuilt from the file system, not from the text that came in.
    const QUrl messy = QUrl::fromEncoded("file://" + tree.root() + "//dir/./sub/..//file");
    QCOMPARE(KVNURLAdditions::saneFileURL(messy), tree.url("dir/file"));
    QCOMPARE(saneFilePath(tree.root() + "/dir/sub/../sub"), tree.path("dir/sub/"));
    QCOMPARE(saneFilePath("/"), QByteArray("/"));

    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("missing")), QUrl());
    // The URL's path drops a trailing slash, so a file named like a directory is still found.
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dir/file/")), tree.url("dir/file"));
    QCOMPARE(saneFilePath(QByteArray()), QByteArray());
}

void TestAdditions::saneFileURLResolvesLinks()
{
    TempTree tree;
    QVERIFY(tree.isValid());
    tree.makeDir("dir");
    tree.makeFile("dir/target");
    tree.makeLink("link1", "dir/target");
    tree.makeLink("link2", "link1");
    tree.makeLink("dirlink1", "dir");
    tree.makeLink("dirlink2", tree.path("dirlink1"));

    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("link2")), tree.url("dir/target"));
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dirlink2")), tree.url("dir/"));
    // A link inside the path resolves as well.
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dirlink2/target")), tree.url("dir/target"));
}

void TestAdditions::saneFileURLKeepsNonUtf8Names()
{
    TempTree tree;
    QVERIFY(tree.isValid());
    const QByteArray name("caf\xe9 \xff");
    tree.makeDir(name);
    tree.makeFile(name + "/f\x80le");
    tree.makeLink("to-odd", name + "/f\x80le");

    QCOMPARE(saneFilePath(tree.path(name)), tree.path(name) + '/');
    const QUrl file = KVNURLAdditions::saneFileURL(tree.url(name + "/f\x80le"));
    QCOMPARE(posixPathBytes(file), tree.path(name + "/f\x80le"));
    QCOMPARE(posixPathBytes(KVNURLAdditions::saneFileURL(tree.url("to-odd"))), tree.path(name + "/f\x80le"));
    // The URL's text survives a round trip through its encoded form.
    QCOMPARE(posixPathBytes(QUrl::fromEncoded(file.toEncoded())), tree.path(name + "/f\x80le"));
}

void TestAdditions::saneFileURLOfUnresolvableLinks()
{
    TempTree tree;
    QVERIFY(tree.isValid());
    tree.makeDir("dir");
    tree.makeLink("dirlink", "dir");
    tree.makeLink("dir/dangling", "nowhere");
    tree.makeLink("dir/loopA", "loopB");
    tree.makeLink("dir/loopB", "loopA");
    // A link that leads nowhere stands for itself, in its canonical directory.
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dirlink/dangling")), tree.url("dir/dangling"));
    QCOMPARE(KVNURLAdditions::saneFileURL(tree.url("dirlink/loopA")), tree.url("dir/loopA"));
}

// --- observation ---

void TestAdditions::observationIsDeliveredLaterOnTheMainThread()
{
    RecordingObserver observer;
    auto object = std::make_shared<int>(7);
    QVariantMap change{{QStringLiteral("new"), 3}};
    prepareSafeObserveForKeyPath(&observer, QStringLiteral("diffResult"), object, change, nullptr);
    QVERIFY(observer.deliveries.empty()); // not inside the change that caused it
    QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(1), 5000);

    const auto &delivery = observer.deliveries.front();
    QCOMPARE(delivery.keyPath, QStringLiteral("diffResult"));
    QCOMPARE(delivery.object, static_cast<const void *>(object.get()));
    QCOMPARE(delivery.change, change);
    QCOMPARE(delivery.context, nullptr);
    QVERIFY(delivery.onMainThread);

    // An observer that posts from inside its own delivery is called again later, not nested.
    int depth = 0;
    int maxDepth = 0;
    observer.onDelivery = [&] {
        ++depth;
        maxDepth = std::max(maxDepth, depth);
        if (observer.deliveries.size() < 4)
            prepareSafeObserveForKeyPath(&observer, QStringLiteral("again"), object, {}, nullptr);
        --depth;
    };
    prepareSafeObserveForKeyPath(&observer, QStringLiteral("again"), object, {}, nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(4), 5000);
    QCOMPARE(maxDepth, 1);
}

void TestAdditions::observationCarriesTheContextPointer()
{
    RecordingObserver observer;
    auto object = std::make_shared<int>(1);
    int marker = 0;
    prepareSafeObserveForKeyPath(&observer, QStringLiteral("k"), object, {}, &marker);
    prepareSafeObserveForKeyPath(&observer, QStringLiteral("k"), object, {}, nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(2), 5000);
    QCOMPARE(observer.deliveries[0].context, static_cast<void *>(&marker));
    QCOMPARE(observer.deliveries[1].context, nullptr);

    // The record itself: a missing "context" is a null context.
    const QVariantMap withoutContext{
        {QStringLiteral("keyPath"), QStringLiteral("k")},
        {QStringLiteral("object"), QVariant::fromValue(std::shared_ptr<const void>(object))},
        {QStringLiteral("change"), QVariantMap{{QStringLiteral("kind"), 1}}}};
    dispatchObservationOnMainThread(&observer, withoutContext);
    QCOMPARE(observer.deliveries.size(), std::size_t(3));
    QCOMPARE(observer.deliveries[2].context, nullptr);
    QCOMPARE(observer.deliveries[2].change.value(QStringLiteral("kind")).toInt(), 1);
    QVariantMap withContext = withoutContext;
    withContext.insert(QStringLiteral("context"), QVariant::fromValue(static_cast<void *>(&marker)));
    dispatchObservationOnMainThread(&observer, withContext);
    QCOMPARE(observer.deliveries[3].context, static_cast<void *>(&marker));
}

void TestAdditions::observationOrderAcrossThreads()
{
    constexpr int threadCount = 4;
    constexpr int perThread = 250;
    RecordingObserver observer;
    std::mutex postingOrder;
    int nextSequence = 0;
    std::vector<std::weak_ptr<const int>> objects(threadCount * perThread);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                // The sequence number and the post are one step, so the
                // sequence is the order of posting.
                std::lock_guard lock(postingOrder);
                const int sequence = nextSequence++;
                auto object = std::make_shared<const int>(sequence);
                objects[sequence] = object;
                prepareSafeObserveForKeyPath(&observer, QStringLiteral("n"), object, {{QStringLiteral("thread"), t}},
                                             nullptr);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    // The posting threads are gone and hold nothing: the records keep the objects.
    for (const auto &object : objects)
        QVERIFY(!object.expired());

    QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(threadCount * perThread), 10000);
    for (int i = 0; i < threadCount * perThread; ++i) {
        QCOMPARE(observer.deliveries[i].objectValue, i);
        QVERIFY(observer.deliveries[i].onMainThread);
    }
    observer.deliveries.clear(); // lets the objects go
    for (const auto &object : objects)
        QVERIFY(object.expired());
}

void TestAdditions::observationStopsWithTheReceiver()
{
    RecordingObserver observer;
    auto receiver = std::make_unique<QObject>();
    std::weak_ptr<const int> watched;
    std::thread poster([&] {
        auto object = std::make_shared<const int>(5);
        watched = object;
        for (int i = 0; i < 10; ++i)
            prepareSafeObserveForKeyPath(&observer, receiver.get(), QStringLiteral("k"), object, {}, nullptr);
    });
    poster.join();
    QVERIFY(!watched.expired());
    receiver.reset();
    // Anything posted before the marker has been served or dropped once it runs.
    bool markerRan = false;
    QObject markerReceiver;
    KVNMainThread::post(&markerReceiver, [&] { markerRan = true; });
    QTRY_VERIFY_WITH_TIMEOUT(markerRan, 5000);
    QVERIFY(observer.deliveries.empty());
    QVERIFY(watched.expired()); // dropped records let go of their objects
}

void TestAdditions::observationRejectsMissingParts()
{
    RecordingObserver observer;
    auto object = std::make_shared<int>(1);
    QVERIFY_THROWS_EXCEPTION(std::invalid_argument,
                             prepareSafeObserveForKeyPath(&observer, QStringLiteral("k"), nullptr, {}, nullptr));
    QVERIFY_THROWS_EXCEPTION(std::invalid_argument, prepareSafeObserveForKeyPath(
                                                        nullptr, &observer, QStringLiteral("k"), object, {}, nullptr));
    QVERIFY_THROWS_EXCEPTION(std::invalid_argument, prepareSafeObserveForKeyPath(
                                                        &observer, nullptr, QStringLiteral("k"), object, {}, nullptr));
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("incomplete observation record")));
    dispatchObservationOnMainThread(&observer, {{QStringLiteral("keyPath"), QStringLiteral("k")}});
    QVERIFY(observer.deliveries.empty());
}

void TestAdditions::dispatchOffTheMainThreadIsRefused()
{
    RecordingObserver observer;
    const QVariantMap observation{
        {QStringLiteral("keyPath"), QStringLiteral("k")},
        {QStringLiteral("object"), QVariant::fromValue(std::shared_ptr<const void>(std::make_shared<int>(1)))},
        {QStringLiteral("change"), QVariantMap()}};
#ifndef QT_NO_DEBUG
    // With assertions compiled in, the refusal ends the process.
    const auto [status, output] = runInChild([&] {
        std::thread worker([&] { dispatchObservationOnMainThread(&observer, observation); });
        worker.join();
    });
    QVERIFY2(WIFSIGNALED(status), output.constData());
    QVERIFY2(output.contains("Must run on the main thread!"), output.constData());
#else
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("Must run on the main thread!")));
    std::thread worker([&] { dispatchObservationOnMainThread(&observer, observation); });
    worker.join();
    QVERIFY(observer.deliveries.empty());
#endif
}

// --- exceptions ---

void TestAdditions::printStackTraceAndBail()
{
    // Loads the unwinder before forking, so the child needs no loader lock.
    void *warmUp[4];
    ::backtrace(warmUp, 4);
    const auto [status, output] = runInChild([] {
        std::fputs("printed before\n", stderr); // still buffered: the report flushes it first
        try {
            throwFromDeepInside(3);
        } catch (const std::exception &e) {
            KVNExceptionAdditions::printStackTraceAndBail(e);
        }
    });
    QVERIFY2(WIFSIGNALED(status), output.constData());
    QCOMPARE(WTERMSIG(status), SIGABRT);
    QVERIFY2(output.startsWith("printed before\n"), output.constData());
    QVERIFY2(output.contains("'std::runtime_error', reason: 'disk on fire'"), output.constData());
    // One line per frame, several of them in this program.
    const QString text = QString::fromLocal8Bit(output);
    const auto frames = text.count(QRegularExpression(QStringLiteral("\\[0x[0-9a-f]+\\]\\n")));
    QVERIFY2(frames >= 4, output.constData());
    const QString program = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    QVERIFY2(text.count(program) >= 2, output.constData());
}

void TestAdditions::printStackTraceAndBailForAnyException()
{
    void *warmUp[4];
    ::backtrace(warmUp, 4);
    const auto [status, output] = runInChild([] {
        try {
            throw 42;
        } catch (...) {
            KVNExceptionAdditions::printStackTraceAndBail(std::current_exception());
        }
    });
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
    QVERIFY2(output.contains("'int', reason: 'not a std::exception'"), output.constData());
    QVERIFY2(output.contains("[0x"), output.constData());
}

QTEST_GUILESS_MAIN(TestAdditions)
#include "tst_additions.moc"

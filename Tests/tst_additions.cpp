// ctest-label: concurrency
#include "KVNExceptionAdditions.h"
#include "KVNKVOAdditions.h"
#include "KVNMainThread.h"
#include "KVNTestTree.h"
#include "KVNURLAdditions.h"

#include <QRegularExpression>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <execinfo.h>
#include <mutex>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace KVNURLAdditions;

namespace {

// The file URL of a path in tree, escapes and all.
const auto url = [](const KVNTestTree &tree, const QByteArray &relative) {
    return QUrl(QString::fromLatin1("file://" + tree.path(relative).toPercentEncoding("/")), QUrl::StrictMode);
};

// Records what reaches it, on which thread, and keeps the observed values.
struct RecordingObserver : QObject, KVNSafeObserver {
    struct Delivery {
        QString keyPath;
        int objectValue = -1;
        QVariantMap change;
        void *context = nullptr;
        bool onMainThread = false;
    };
    void saferObserveValueForKeyPath(const QString &keyPath, const void *object, const QVariantMap &change,
                                     void *context) override
    {
        deliveries.push_back({keyPath, object ? *static_cast<const int *>(object) : -1, change, context,
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
        ::dup2(fds[1], STDERR_FILENO);
        ::dup2(fds[1], STDOUT_FILENO); // the test logger reports assertions there
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        std::signal(SIGABRT, SIG_DFL); // the test runner's own crash handler is not what is tested
        body();
        ::_exit(99); // the body was to end the process itself
    }
    ::close(fds[1]);
    QFile pipe;
    pipe.open(fds[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    const QByteArray output = pipe.readAll();
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
    void saneFileURLRebuildsFromTheFileSystem()
    {
        KVNTestTree tree;
        tree.file("dir/file", "x");
        tree.dir("dir/sub");
        QCOMPARE(KVNURLAdditions::saneFileURL(QUrl()), QUrl());
        const QUrl web(QStringLiteral("https://example.org/dir"));
        QCOMPARE(KVNURLAdditions::saneFileURL(web), web);
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dir/file")), url(tree, "dir/file"));
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dir")), url(tree, "dir/"));
        // Rebuilt from the file system, not from the text that came in.
        const QUrl messy = QUrl::fromEncoded("file://" + tree.root() + "//dir/./sub/..//file");
        QCOMPARE(KVNURLAdditions::saneFileURL(messy), url(tree, "dir/file"));
        QCOMPARE(saneFilePath(tree.root() + "/dir/sub/../sub"), tree.path("dir/sub/"));
        QCOMPARE(saneFilePath(QByteArray()), QByteArray());
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "missing")), QUrl());
        // The URL's path drops a trailing slash, so a file named like a directory is still found.
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dir/file/")), url(tree, "dir/file"));
        // Links are resolved, also through directories and chains.
        const QByteArray odd("caf\xe9 \xff/f\x80le"); // not UTF-8
        tree.file(odd, "x");
        tree.symlink("link1", "dir/file");
        tree.symlink("link2", "link1");
        tree.symlink("dirlink1", "dir");
        tree.symlink("dirlink2", tree.path("dirlink1"));
        tree.symlink("to-odd", odd);
        tree.symlink("dir/dangling", "nowhere");
        tree.symlink("dir/loopA", "loopB");
        tree.symlink("dir/loopB", "loopA");
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "link2")), url(tree, "dir/file"));
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dirlink2/file")), url(tree, "dir/file"));
        // A link that leads nowhere stands for itself, in its canonical directory.
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dirlink1/dangling")), url(tree, "dir/dangling"));
        QCOMPARE(KVNURLAdditions::saneFileURL(url(tree, "dirlink1/loopA")), url(tree, "dir/loopA"));
        // Names that are not text survive, also through the URL's encoded form.
        QCOMPARE(saneFilePath(tree.path("caf\xe9 \xff")), tree.path("caf\xe9 \xff") + '/');
        const QUrl file = KVNURLAdditions::saneFileURL(url(tree, "to-odd"));
        QCOMPARE(posixPathBytes(file), tree.path(odd));
        QCOMPARE(posixPathBytes(QUrl::fromEncoded(file.toEncoded())), tree.path(odd));
    }

    void observationIsDeliveredLaterOnTheMainThread()
    {
        RecordingObserver observer;
        auto object = std::make_shared<int>(7);
        int marker = 0;
        const QVariantMap change{{QStringLiteral("new"), 3}};
        prepareSafeObserveForKeyPath(&observer, QStringLiteral("diffResult"), object, change, &marker);
        QVERIFY(observer.deliveries.empty()); // not inside the change that caused it
        QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(1), 5000);
        const auto &delivery = observer.deliveries.front();
        QVERIFY(delivery.keyPath == QStringLiteral("diffResult") && delivery.objectValue == 7);
        QVERIFY(delivery.change == change && delivery.context == &marker && delivery.onMainThread);
        // The record itself: a missing "context" is a null context.
        dispatchObservationOnMainThread(
            &observer, {{QStringLiteral("keyPath"), QStringLiteral("k")},
                        {QStringLiteral("object"), QVariant::fromValue(std::shared_ptr<const void>(object))},
                        {QStringLiteral("change"), change}});
        QCOMPARE(observer.deliveries.size(), std::size_t(2));
        QCOMPARE(observer.deliveries[1].context, nullptr);
        // An observer that posts from inside its own delivery is called again later, not nested.
        int depth = 0, maxDepth = 0;
        observer.onDelivery = [&] {
            maxDepth = std::max(maxDepth, ++depth);
            if (observer.deliveries.size() < 6)
                prepareSafeObserveForKeyPath(&observer, QStringLiteral("again"), object, {}, nullptr);
            --depth;
        };
        prepareSafeObserveForKeyPath(&observer, QStringLiteral("again"), object, {}, nullptr);
        QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(6), 5000);
        QCOMPARE(maxDepth, 1);
    }

    void observationOrderAcrossThreads()
    {
        constexpr int threadCount = 4, perThread = 250;
        RecordingObserver observer;
        std::mutex postingOrder;
        int nextSequence = 0;
        std::vector<std::weak_ptr<const int>> objects(threadCount * perThread);
        std::vector<std::thread> threads;
        for (int t = 0; t < threadCount; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < perThread; ++i) {
                    // The sequence number and the post are one step, so the sequence is the order of posting.
                    std::lock_guard lock(postingOrder);
                    auto object = std::make_shared<const int>(nextSequence);
                    objects[nextSequence++] = object;
                    prepareSafeObserveForKeyPath(&observer, QStringLiteral("n"), object, {}, nullptr);
                }
            });
        for (auto &thread : threads)
            thread.join();
        // The posting threads are gone and hold nothing: the records keep the objects.
        QVERIFY(std::none_of(objects.begin(), objects.end(), [](const auto &o) { return o.expired(); }));
        QTRY_COMPARE_WITH_TIMEOUT(observer.deliveries.size(), std::size_t(threadCount * perThread), 10000);
        for (int i = 0; i < threadCount * perThread; ++i)
            QVERIFY(observer.deliveries[i].objectValue == i && observer.deliveries[i].onMainThread);
        observer.deliveries.clear(); // lets the objects go
        QVERIFY(std::all_of(objects.begin(), objects.end(), [](const auto &o) { return o.expired(); }));
    }

    void observationStopsWithTheReceiver()
    {
        RecordingObserver observer;
        auto receiver = std::make_unique<QObject>();
        std::weak_ptr<const int> watched;
        std::thread([&] {
            auto object = std::make_shared<const int>(5);
            watched = object;
            for (int i = 0; i < 10; ++i)
                prepareSafeObserveForKeyPath(&observer, receiver.get(), QStringLiteral("k"), object, {}, nullptr);
        }).join();
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

    void printStackTraceAndBail()
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
        QVERIFY2(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, output.constData());
        QVERIFY2(output.startsWith("printed before\n"), output.constData());
        QVERIFY2(output.contains("'std::runtime_error', reason: 'disk on fire'"), output.constData());
        // One line per frame, several of them in this program.
        const QString text = QString::fromLocal8Bit(output);
        QVERIFY2(text.count(QRegularExpression(QStringLiteral("\\[0x[0-9a-f]+\\]\\n"))) >= 4, output.constData());
        QVERIFY2(text.count(QFileInfo(QCoreApplication::applicationFilePath()).fileName()) >= 2, output.constData());

        const auto [otherStatus, otherOutput] = runInChild([] {
            try {
                throw 42;
            } catch (...) {
                KVNExceptionAdditions::printStackTraceAndBail(std::current_exception());
            }
        });
        QVERIFY(WIFSIGNALED(otherStatus) && WTERMSIG(otherStatus) == SIGABRT);
        QVERIFY2(otherOutput.contains("'int', reason: 'not a std::exception'"), otherOutput.constData());
        QVERIFY2(otherOutput.contains("[0x"), otherOutput.constData());
    }
};

QTEST_GUILESS_MAIN(TestAdditions)
#include "tst_additions.moc"

#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class KVNInotifyWatchBackend;
class QSocketNotifier;

// Watches directory trees and tells, in batches on the thread the watcher
// lives on, which directories had something change in them: an entry created,
// deleted, written, renamed or given new attributes. A root that is deleted,
// renamed or moved is reported with its own path.
//
// Pacing: the first change after a quiet spell longer than the latency is
// delivered on the next pass of the event loop; what follows is gathered and
// delivered once the latency has passed since the previous delivery. In a
// batch every directory appears once, at the place of its latest change,
// oldest first, and every event carries an id that rises for the whole life
// of the watcher, across stop() and start().
//
// Only changes after start() count. Paths are kept as bytes, absolute and
// without a trailing slash (a root is reported in that form too).
// The watcher belongs to the thread it lives on: call it there only.
class KVNFileSystemWatcher : public QObject {
    Q_OBJECT

public:
    struct Event {
        QByteArray path;
        uint64_t id = 0;
    };
    // May stop, restart or even delete the watcher.
    using Callback = std::function<void(const std::vector<Event> &)>;

    static constexpr std::chrono::milliseconds defaultLatency{4000};

    explicit KVNFileSystemWatcher(Callback callback = {}, QObject *parent = nullptr);
    ~KVNFileSystemWatcher() override;

    void setCallback(Callback callback);
    // Takes effect for the next change; the default suits a user, tests go shorter.
    void setLatency(std::chrono::milliseconds latency);
    std::chrono::milliseconds latency() const { return latency_; }

    // Starts watching the roots (recursively). Does nothing and answers true
    // when already running; false when the system gives no watching at all.
    bool start(const QList<QByteArray> &roots);
    // Releases every watch; nothing is delivered afterwards. Harmless twice.
    void stop();
    bool isRunning() const;

    // The id of the newest event delivered (or being delivered); 0 before any.
    uint64_t latestEventId() const { return latestEventId_; }
    // Some directories went unwatched because the system's limit of watches
    // (or of watching instances) was reached; changes in them go unnoticed.
    bool isDegraded() const { return degraded_; }
    // Directories watched at present, for diagnostics and tests.
    std::size_t watchCount() const;
    // Makes the watch limit bite after this many watches, as if the system
    // had no more; negative lifts it. Takes effect at the next start().
    void setWatchLimitForTesting(int limit) { testWatchLimit_ = limit; }

private:
    void readChanges();
    void schedule();
    void deliver();
    void reportLimit(const QString &line);
    void watchDescriptor();

    Callback callback_;
    std::unique_ptr<KVNInotifyWatchBackend> backend_;
    std::unique_ptr<QSocketNotifier> notifier_;
    QTimer timer_;
    QElapsedTimer sinceDelivery_; // invalid until the first delivery of a run
    std::chrono::milliseconds latency_ = defaultLatency;
    QHash<QByteArray, uint64_t> pending_; // directory -> order of its latest change
    std::vector<QByteArray> scratch_;
    uint64_t order_ = 0;
    uint64_t nextEventId_ = 1;
    uint64_t latestEventId_ = 0;
    int testWatchLimit_ = -1;
    bool degraded_ = false;
    bool limitReported_ = false;
};

#include "KVNFileSystemWatcher.h"

#include "KVNInotifyWatchBackend.h"
#include "KVNLog.h"

#include <QFile>
#include <QSocketNotifier>

#include <algorithm>
#include <cstring>

KVNFileSystemWatcher::KVNFileSystemWatcher(Callback callback, QObject *parent)
    : QObject(parent), callback_(std::move(callback))
{
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer); // "the latency has passed" should not come early
    connect(&timer_, &QTimer::timeout, this, &KVNFileSystemWatcher::deliver);
}

KVNFileSystemWatcher::~KVNFileSystemWatcher()
{
    stop();
}

void KVNFileSystemWatcher::setCallback(Callback callback)
{
    callback_ = std::move(callback);
}

void KVNFileSystemWatcher::setLatency(std::chrono::milliseconds latency)
{
    latency_ = std::max(latency, std::chrono::milliseconds(0));
}

bool KVNFileSystemWatcher::isRunning() const
{
    return backend_ != nullptr;
}

std::size_t KVNFileSystemWatcher::watchCount() const
{
    return backend_ ? backend_->watchCount() : 0;
}

bool KVNFileSystemWatcher::start(const QList<QByteArray> &roots)
{
    if (backend_)
        return true;
    auto backend = std::make_unique<KVNInotifyWatchBackend>();
    backend->setWatchLimitForTesting(testWatchLimit_);
    backend->setWatchLimitHandler([this](const QByteArray &path) {
        degraded_ = true;
        reportLimit(QStringLiteral("Watching is incomplete: the system's limit of inotify watches "
                                   "(fs.inotify.max_user_watches) is reached; changes below %1 will not be noticed.")
                        .arg(QFile::decodeName(path)));
    });
    degraded_ = false;
    const auto result = backend->open(roots);
    if (result == KVNInotifyWatchBackend::OpenResult::InstanceLimit) {
        degraded_ = true;
        reportLimit(QStringLiteral("Watching is off: the system's limit of inotify instances "
                                   "(fs.inotify.max_user_instances) or of open files is reached; "
                                   "changes on disk will not be noticed."));
        return false;
    }
    if (result != KVNInotifyWatchBackend::OpenResult::Ok) {
        KVNLog(QStringLiteral("Watching is off: inotify is not available (%1); changes on disk will not be noticed.")
                   .arg(QString::fromLocal8Bit(std::strerror(errno))));
        return false;
    }
    backend_ = std::move(backend);
    // A new run owes nothing to the last one: its first change goes out at once.
    sinceDelivery_.invalidate();
    watchDescriptor();
    return true;
}

void KVNFileSystemWatcher::stop()
{
    timer_.stop();
    pending_.clear();
    notifier_.reset();
    backend_.reset();
}

void KVNFileSystemWatcher::watchDescriptor()
{
    notifier_ = std::make_unique<QSocketNotifier>(backend_->descriptor(), QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &KVNFileSystemWatcher::readChanges);
}

void KVNFileSystemWatcher::reportLimit(const QString &line)
{
    if (limitReported_)
        return;
    limitReported_ = true;
    KVNLog(line);
}

void KVNFileSystemWatcher::readChanges()
{
    if (!backend_)
        return;
    const unsigned generation = backend_->generation();
    scratch_.clear();
    backend_->readEvents(scratch_);
    for (QByteArray &path : scratch_)
        pending_.insert(std::move(path), ++order_);
    scratch_.clear();
    if (backend_->generation() != generation) {
        // The instance was rebuilt after an overflow: this notifier watches a
        // descriptor that is gone, and it is the one calling us.
        notifier_->setEnabled(false);
        notifier_.release()->deleteLater();
        if (backend_->isOpen()) {
            watchDescriptor();
        } else {
            degraded_ = true;
            KVNLog(QStringLiteral("Watching stopped: inotify could not be set up again after its queue overflowed."));
        }
    }
    if (!pending_.isEmpty())
        schedule();
}

void KVNFileSystemWatcher::schedule()
{
    if (timer_.isActive())
        return;
    std::chrono::milliseconds delay(0);
    if (sinceDelivery_.isValid()) {
        const std::chrono::milliseconds elapsed(sinceDelivery_.elapsed());
        if (elapsed <= latency_)
            delay = latency_ - elapsed;
    }
    // Even "at once" waits for the next pass, so that what arrives together goes together.
    timer_.start(delay);
}

void KVNFileSystemWatcher::deliver()
{
    if (pending_.isEmpty())
        return;
    std::vector<std::pair<uint64_t, QByteArray>> ordered;
    ordered.reserve(pending_.size());
    for (auto it = pending_.cbegin(); it != pending_.cend(); ++it)
        ordered.emplace_back(it.value(), it.key());
    pending_.clear();
    std::sort(ordered.begin(), ordered.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<Event> batch;
    batch.reserve(ordered.size());
    for (auto &[order, path] : ordered)
        batch.push_back(Event{std::move(path), nextEventId_++});
    latestEventId_ = batch.back().id;
    sinceDelivery_.start();
    // A copy: the callback may replace the callback or delete the watcher.
    // Nothing here touches a member once it has been called.
    const Callback callback = callback_;
    if (callback)
        callback(batch);
}

#pragma once

#include "KVNDirDiffTableElement.h"
#include "KVNFileNode.h"
#include "KVNFinalOperation.h"
#include "KVNMainThread.h"
#include "KVNRefreshTableOperation.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

// Records what a status refresh tells its delegate. The calls arrive on the
// operation's thread, so everything is kept under a lock.
class KVNRefreshProbe : public KVNRefreshTableOperationDelegate {
public:
    // Runs on the operation's thread at each reported step, with its number.
    std::function<void(KVNRefreshTableOperation *, std::size_t step)> onStep;

    void incrementalRefreshStep(KVNRefreshTableOperation *operation, const KVNDirDiffTableElementPtr &row) override
    {
        std::unique_lock guard(mutex_);
        steps_.push_back(row);
        const std::size_t step = steps_.size() - 1;
        guard.unlock();
        if (onStep)
            onStep(operation, step);
    }
    void refreshComplete(KVNRefreshTableOperation *) override
    {
        std::lock_guard guard(mutex_);
        ++completed_;
    }
    std::vector<KVNDirDiffTableElementPtr> steps() const { return locked(steps_); }
    int completed() const { return locked(completed_); }

private:
    template <typename T> T locked(const T &value) const
    {
        std::lock_guard guard(mutex_);
        return value;
    }
    mutable std::mutex mutex_;
    std::vector<KVNDirDiffTableElementPtr> steps_;
    int completed_ = 0;
};

// Stands in for the document as the final delegate of a run, so that a test
// can look at the rows after the recompare and before any status refresh.
class KVNFinalProbe : public KVNFinalOperationDelegate {
public:
    void completedFinalOperation(KVNFinalOperation *) override
    {
        onMainThread_ = onMainThread_ && KVNMainThread::isMainThread();
        ++completed_;
    }
    int completed() const { return completed_; }
    bool calledOnMainThread() const { return onMainThread_; }

private:
    std::atomic<int> completed_{0};
    std::atomic<bool> onMainThread_{true};
};

// Logs every result a watched node is given, in order, whichever thread sets it.
class KVNResultRecorder : public KVNNodeObserver {
public:
    static std::shared_ptr<KVNResultRecorder> make() { return std::make_shared<KVNResultRecorder>(); }
    ~KVNResultRecorder() override
    {
        {
            std::lock_guard guard(mutex_);
            closing_ = true;
        }
        for (const auto &node : watched_)
            node->removeObserver(this);
        // A node may be telling it something right now: that ends first.
        std::unique_lock guard(mutex_);
        idle_.wait(guard, [this] { return inFlight_ == 0; });
    }
    // Both nodes of a row, as they are now.
    void watchRow(const KVNDirDiffTableElementPtr &row)
    {
        for (const auto &node : {row->leftNode(), row->rightNode()}) {
            if (node) {
                watched_.push_back(node);
                node->addObserver(this);
            }
        }
    }
    bool retainObserver() noexcept override
    {
        std::lock_guard guard(mutex_);
        if (closing_)
            return false;
        ++inFlight_;
        return true;
    }
    void releaseObserver() noexcept override
    {
        std::lock_guard guard(mutex_);
        if (--inFlight_ == 0)
            idle_.notify_all();
    }
    void observeValueForKeyPath(KVNNodeKey key, KVNFileNode &node) override
    {
        if (key == KVNNodeKey::DiffResult) {
            std::lock_guard guard(mutex_);
            log_[&node].push_back(node.diffResult());
        }
    }
    std::vector<int32_t> results(const KVNFileNodePtr &node) const
    {
        std::lock_guard guard(mutex_);
        auto it = log_.find(node.get());
        return it == log_.end() ? std::vector<int32_t>() : it->second;
    }
    bool sawReset(const KVNFileNodePtr &node) const
    {
        const auto seen = results(node);
        return std::find(seen.begin(), seen.end(), int32_t(KVNDiffResultUnknown)) != seen.end();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    int inFlight_ = 0;
    bool closing_ = false;
    std::vector<KVNFileNodePtr> watched_; // main thread only
    std::map<const KVNFileNode *, std::vector<int32_t>> log_;
};

// Both sides of a row as "left right", with "-" for a missing side: one string,
// so that a failed comparison shows the whole row.
inline QString KVNRowResults(const KVNDirDiffTableElementPtr &row)
{
    if (!row)
        return QStringLiteral("no row");
    auto side = [](const KVNFileNodePtr &node) { return node ? QString::number(node->diffResult()) : "-"; };
    return side(row->leftNode()) + QLatin1Char(' ') + side(row->rightNode());
}

#pragma once

#include <QtGlobal>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// Turns a hang into a failure with a message: a deadlock must not sit until
// the test run's own timeout.
class KVNWatchdog {
public:
    explicit KVNWatchdog(const char *what, int seconds = 120)
        : thread_([this, what, seconds] {
              std::unique_lock lock(mutex_);
              if (!done_.wait_for(lock, std::chrono::seconds(seconds), [this] { return finished_; }))
                  qFatal("%s: no progress in %d s, presumed deadlocked", what, seconds);
          })
    {}
    ~KVNWatchdog()
    {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        done_.notify_all();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    bool finished_ = false;
    std::thread thread_; // last: it uses the others
};

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>

// A one-byte lock for objects that exist a million times: uncontended it is one
// atomic exchange, contended it sleeps (atomic wait) instead of spinning.
class KVNTinyLock {
public:
    void lock()
    {
        uint8_t expected = 0;
        if (state_.compare_exchange_strong(expected, 1, std::memory_order_acquire))
            return;
        // 2 marks "held, and someone may be waiting".
        while (state_.exchange(2, std::memory_order_acquire) != 0)
            state_.wait(2, std::memory_order_relaxed);
    }
    bool try_lock()
    {
        uint8_t expected = 0;
        return state_.compare_exchange_strong(expected, 1, std::memory_order_acquire);
    }
    void unlock()
    {
        if (state_.exchange(0, std::memory_order_release) == 2)
            state_.notify_one();
    }

private:
    std::atomic<uint8_t> state_{0};
};

// A fixed pool of leaf locks chosen by address, for state that many small
// objects guard rarely. Never hold one while taking another lock.
class KVNStripedLocks {
public:
    static std::mutex &forAddress(const void *address)
    {
        static std::mutex stripes[kStripes];
        const auto bits = reinterpret_cast<std::uintptr_t>(address);
        return stripes[(bits >> 4 ^ bits >> 12) % kStripes];
    }

private:
    static constexpr std::size_t kStripes = 509;
};

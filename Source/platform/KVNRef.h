#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

// Reference counts kept inside the object, for things that exist a million
// times: no control block and a pointer of one word. The strong count ends the
// object's use (T::dispose lets go of what it owns); the weak count keeps its
// memory, so that a weak holder can still read what never changes and can ask
// whether the object is still in use. The strong holders together hold one weak count.
template <typename T> class KVNRefCounted {
public:
    void retain() const noexcept { strong_.fetch_add(1, std::memory_order_relaxed); }
    // A strong count from a weak holder, unless the object's use has ended.
    bool tryRetain() const noexcept
    {
        uint32_t count = strong_.load(std::memory_order_relaxed);
        while (count != 0)
            if (strong_.compare_exchange_weak(count, count + 1, std::memory_order_acquire, std::memory_order_relaxed))
                return true;
        return false;
    }
    void release() const noexcept
    {
        if (strong_.fetch_sub(1, std::memory_order_acq_rel) != 1)
            return;
        T *self = const_cast<T *>(static_cast<const T *>(this));
        self->dispose();
        releaseWeak();
    }
    void retainWeak() const noexcept { weak_.fetch_add(1, std::memory_order_relaxed); }
    void releaseWeak() const noexcept
    {
        if (weak_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            T::destroy(const_cast<T *>(static_cast<const T *>(this)));
    }
    bool isInUse() const noexcept { return strong_.load(std::memory_order_acquire) != 0; }

protected:
    KVNRefCounted() = default;
    KVNRefCounted(const KVNRefCounted &) = delete;
    KVNRefCounted &operator=(const KVNRefCounted &) = delete;

private:
    mutable std::atomic<uint32_t> strong_{0};
    mutable std::atomic<uint32_t> weak_{1};
};

// A strong reference, shaped like std::shared_ptr where the code uses it.
template <typename T> class KVNRef {
public:
    KVNRef() noexcept = default;
    KVNRef(std::nullptr_t) noexcept {}
    // Takes a new strong count on object.
    explicit KVNRef(T *object) noexcept : object_(object)
    {
        if (object_)
            object_->retain();
    }
    KVNRef(const KVNRef &other) noexcept : KVNRef(other.object_) {}
    KVNRef(KVNRef &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ~KVNRef()
    {
        if (object_)
            object_->release();
    }
    KVNRef &operator=(KVNRef other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    // Adopts a strong count the caller already holds.
    static KVNRef adopt(T *object) noexcept
    {
        KVNRef ref;
        ref.object_ = object;
        return ref;
    }

    T *get() const noexcept { return object_; }
    T *operator->() const noexcept { return object_; }
    T &operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    void reset() noexcept { KVNRef().swap(*this); }
    void swap(KVNRef &other) noexcept { std::swap(object_, other.object_); }

    friend bool operator==(const KVNRef &a, const KVNRef &b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const KVNRef &a, std::nullptr_t) noexcept { return a.object_ == nullptr; }
    friend auto operator<=>(const KVNRef &a, const KVNRef &b) noexcept
    {
        return std::compare_three_way()(a.object_, b.object_);
    }

private:
    T *object_ = nullptr;
};

// A weak reference: keeps the memory, answers a strong one while the object is in use.
template <typename T> class KVNWeakRef {
public:
    KVNWeakRef() noexcept = default;
    explicit KVNWeakRef(const T *object) noexcept : object_(object)
    {
        if (object_)
            object_->retainWeak();
    }
    KVNWeakRef(const KVNWeakRef &other) noexcept : KVNWeakRef(other.object_) {}
    ~KVNWeakRef()
    {
        if (object_)
            object_->releaseWeak();
    }
    KVNWeakRef &operator=(KVNWeakRef other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    KVNRef<T> lock() const noexcept
    {
        return object_ && object_->tryRetain() ? KVNRef<T>::adopt(const_cast<T *>(object_)) : KVNRef<T>();
    }
    // The address, valid to read what never changes, and never reused while held.
    const T *get() const noexcept { return object_; }

private:
    const T *object_ = nullptr;
};

template <typename T> struct std::hash<KVNRef<T>> {
    std::size_t operator()(const KVNRef<T> &ref) const noexcept { return std::hash<T *>()(ref.get()); }
};

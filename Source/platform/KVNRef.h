#pragma once

#include "KVNSmallObjectPool.h"

#include <QHashFunctions>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

// Reference counts for things that exist a million times: no control block,
// and a pointer of one word. The strong count ends the object's use, the weak
// count keeps its memory, so that a weak holder can still read what never
// changes and ask whether the object is still in use. The strong holders
// together hold one weak count.
//
// Two ways to carry the counts:
// - a class derives from KVNRefCounted<T> and keeps them itself; when the
//   strong count ends, T::dispose() lets go of what it owns, and T::destroy()
//   frees it when the weak count ends (for objects allocated their own way);
// - any other class is made by KVNMakeRef, which puts the counts in front of
//   the object in the same allocation; the object is destroyed with its last
//   strong reference and its memory goes with the last weak one.
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
        const_cast<T *>(static_cast<const T *>(this))->dispose();
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

// The counts KVNMakeRef puts in front of an object.
struct KVNRefCounts {
    std::atomic<uint32_t> strong{1};
    std::atomic<uint32_t> weak{1};
};

namespace KVNRefDetail {

template <typename T> constexpr bool kCountsItself = std::is_base_of_v<KVNRefCounted<T>, T>;
template <typename T> constexpr std::size_t kHeader = (sizeof(KVNRefCounts) + alignof(T) - 1) / alignof(T) * alignof(T);

// Counts and object together, from the small-object pool when it can align them.
template <typename T> constexpr std::size_t kBlock = kHeader<T> + sizeof(T);
template <typename T> void *allocateBlock()
{
    if constexpr (alignof(T) <= 8)
        return KVNSmallObjectPool::allocate(kBlock<T>);
    else
        return ::operator new(kBlock<T>);
}
template <typename T> void freeBlock(void *memory) noexcept
{
    if constexpr (alignof(T) <= 8)
        KVNSmallObjectPool::deallocate(memory, kBlock<T>);
    else
        ::operator delete(memory);
}

template <typename T> KVNRefCounts &counts(const T *object)
{
    return *std::launder(
        reinterpret_cast<KVNRefCounts *>(const_cast<char *>(reinterpret_cast<const char *>(object)) - kHeader<T>));
}

template <typename T> void retain(const T *object)
{
    if constexpr (kCountsItself<T>)
        object->retain();
    else
        counts(object).strong.fetch_add(1, std::memory_order_relaxed);
}

template <typename T> void retainWeak(const T *object)
{
    if constexpr (kCountsItself<T>)
        object->retainWeak();
    else
        counts(object).weak.fetch_add(1, std::memory_order_relaxed);
}

template <typename T> void releaseWeak(const T *object)
{
    if constexpr (kCountsItself<T>) {
        object->releaseWeak();
    } else if (counts(object).weak.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        KVNRefCounts *header = &counts(object);
        header->~KVNRefCounts();
        freeBlock<T>(header);
    }
}

template <typename T> void release(const T *object)
{
    if constexpr (kCountsItself<T>) {
        object->release();
    } else if (counts(object).strong.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const_cast<T *>(object)->~T();
        releaseWeak(object);
    }
}

template <typename T> bool tryRetain(const T *object)
{
    if constexpr (kCountsItself<T>) {
        return object->tryRetain();
    } else {
        auto &strong = counts(object).strong;
        uint32_t count = strong.load(std::memory_order_relaxed);
        while (count != 0)
            if (strong.compare_exchange_weak(count, count + 1, std::memory_order_acquire, std::memory_order_relaxed))
                return true;
        return false;
    }
}

template <typename T> bool isInUse(const T *object)
{
    if constexpr (kCountsItself<T>)
        return object->isInUse();
    else
        return counts(object).strong.load(std::memory_order_acquire) != 0;
}

} // namespace KVNRefDetail

// A strong reference, shaped like std::shared_ptr where the code uses it.
template <typename T> class KVNRef {
public:
    KVNRef() noexcept = default;
    KVNRef(std::nullptr_t) noexcept {}
    // Takes a new strong count on an object that is in use (or new, for a
    // class that counts itself).
    explicit KVNRef(T *object) noexcept : object_(object)
    {
        if (object_)
            KVNRefDetail::retain(object_);
    }
    KVNRef(const KVNRef &other) noexcept : KVNRef(other.object_) {}
    KVNRef(KVNRef &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ~KVNRef()
    {
        if (object_)
            KVNRefDetail::release(object_);
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
    // A new strong reference from inside an object in use.
    static KVNRef fromThis(T *object) noexcept { return KVNRef(object); }

    T *get() const noexcept { return object_; }
    T *operator->() const noexcept { return object_; }
    T &operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    void reset() noexcept { KVNRef().swap(*this); }
    void swap(KVNRef &other) noexcept { std::swap(object_, other.object_); }

    friend bool operator==(const KVNRef &a, const KVNRef &b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const KVNRef &a, std::nullptr_t) noexcept { return a.object_ == nullptr; }
    friend std::strong_ordering operator<=>(const KVNRef &a, const KVNRef &b) noexcept
    {
        return std::compare_three_way()(a.object_, b.object_);
    }

private:
    T *object_ = nullptr;
};

// One allocation for the counts and the object.
template <typename T, typename... Args> KVNRef<T> KVNMakeRef(Args &&...args)
{
    static_assert(!KVNRefDetail::kCountsItself<T>, "a class that counts itself makes its own objects");
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "over-aligned objects need their own allocation");
    void *memory = KVNRefDetail::allocateBlock<T>();
    auto *header = new (memory) KVNRefCounts;
    T *object;
    try {
        object = new (static_cast<char *>(memory) + KVNRefDetail::kHeader<T>) T(std::forward<Args>(args)...);
    } catch (...) {
        header->~KVNRefCounts();
        KVNRefDetail::freeBlock<T>(memory);
        throw;
    }
    return KVNRef<T>::adopt(object);
}

// A weak reference: keeps the memory, answers a strong one while the object is in use.
template <typename T> class KVNWeakRef {
public:
    KVNWeakRef() noexcept = default;
    explicit KVNWeakRef(const T *object) noexcept : object_(object)
    {
        if (object_)
            KVNRefDetail::retainWeak(object_);
    }
    KVNWeakRef(const KVNRef<T> &strong) noexcept : KVNWeakRef(strong.get()) {}
    KVNWeakRef(const KVNWeakRef &other) noexcept : KVNWeakRef(other.object_) {}
    KVNWeakRef(KVNWeakRef &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ~KVNWeakRef() { reset(); }
    KVNWeakRef &operator=(KVNWeakRef other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    void reset() noexcept
    {
        if (object_)
            KVNRefDetail::releaseWeak(std::exchange(object_, nullptr));
    }
    KVNRef<T> lock() const noexcept
    {
        return object_ && KVNRefDetail::tryRetain(object_) ? KVNRef<T>::adopt(const_cast<T *>(object_)) : KVNRef<T>();
    }
    bool expired() const noexcept { return !object_ || !KVNRefDetail::isInUse(object_); }
    // The address, for identity: never reused while this is held. A class that
    // counts itself may also be read there for what never changes.
    const T *get() const noexcept { return object_; }
    const T *address() const noexcept { return object_; }

private:
    const T *object_ = nullptr;
};

template <typename T> struct std::hash<KVNRef<T>> {
    std::size_t operator()(const KVNRef<T> &ref) const noexcept { return std::hash<T *>()(ref.get()); }
};

template <typename T> size_t qHash(const KVNRef<T> &ref, size_t seed = 0) noexcept
{
    return qHash(ref.get(), seed);
}

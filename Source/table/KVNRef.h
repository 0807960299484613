#pragma once

#include <QHashFunctions>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <utility>

// The counts of an object made by KVNMakeRef. They sit in front of it, so
// that weak holders can still read them after the object itself is gone: the
// object dies with its last strong reference, its memory with the last weak
// one (the strong ones together hold one weak reference).
struct KVNRefCounts {
    std::atomic<uint32_t> strong{1};
    std::atomic<uint32_t> weak{1};
};

template <class T> class KVNWeakRef;

// A pointer with one count word in front of the object instead of a separate
// control block: eight bytes a pointer, eight an object. It answers like
// std::shared_ptr where its users need it to (get, ->, *, bool, reset,
// comparisons, hashing).
template <class T> class KVNRef {
public:
    static constexpr std::size_t kHeader = (sizeof(KVNRefCounts) + alignof(T) - 1) / alignof(T) * alignof(T);

    KVNRef() = default;
    KVNRef(std::nullptr_t) {}
    KVNRef(const KVNRef &other) : p_(other.p_) { retain(); }
    KVNRef(KVNRef &&other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ~KVNRef() { release(); }
    KVNRef &operator=(const KVNRef &other)
    {
        KVNRef(other).swap(*this);
        return *this;
    }
    KVNRef &operator=(KVNRef &&other) noexcept
    {
        KVNRef(std::move(other)).swap(*this);
        return *this;
    }
    KVNRef &operator=(std::nullptr_t)
    {
        reset();
        return *this;
    }

    // A new strong reference to an object made by KVNMakeRef, from inside it.
    static KVNRef fromThis(T *object)
    {
        KVNRef ref;
        ref.p_ = object;
        ref.retain();
        return ref;
    }

    T *get() const { return p_; }
    T *operator->() const { return p_; }
    T &operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    void reset() { KVNRef().swap(*this); }
    void swap(KVNRef &other) noexcept { std::swap(p_, other.p_); }

    friend bool operator==(const KVNRef &a, const KVNRef &b) { return a.p_ == b.p_; }
    friend bool operator==(const KVNRef &a, std::nullptr_t) { return a.p_ == nullptr; }
    friend std::strong_ordering operator<=>(const KVNRef &a, const KVNRef &b)
    {
        return std::compare_three_way()(a.p_, b.p_);
    }

    static KVNRefCounts &counts(const T *object)
    {
        return *std::launder(
            reinterpret_cast<KVNRefCounts *>(const_cast<char *>(reinterpret_cast<const char *>(object)) - kHeader));
    }

private:
    template <class U, class... Args> friend KVNRef<U> KVNMakeRef(Args &&...args);
    friend class KVNWeakRef<T>;

    static void releaseWeak(T *object)
    {
        if (counts(object).weak.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            KVNRefCounts *header = &counts(object);
            header->~KVNRefCounts();
            ::operator delete(static_cast<void *>(header));
        }
    }
    void retain() const
    {
        if (p_)
            counts(p_).strong.fetch_add(1, std::memory_order_relaxed);
    }
    void release()
    {
        if (p_ && counts(p_).strong.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            p_->~T();
            releaseWeak(p_);
        }
        p_ = nullptr;
    }

    T *p_ = nullptr;
};

// One allocation for the counts and the object.
template <class T, class... Args> KVNRef<T> KVNMakeRef(Args &&...args)
{
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "over-aligned objects need their own allocation");
    void *memory = ::operator new(KVNRef<T>::kHeader + sizeof(T));
    auto *header = new (memory) KVNRefCounts;
    T *object;
    try {
        object = new (static_cast<char *>(memory) + KVNRef<T>::kHeader) T(std::forward<Args>(args)...);
    } catch (...) {
        header->~KVNRefCounts();
        ::operator delete(memory);
        throw;
    }
    KVNRef<T> ref;
    ref.p_ = object;
    return ref;
}

// A reference that does not keep the object alive, only its memory, and
// turns into a strong one while the object lives.
template <class T> class KVNWeakRef {
public:
    KVNWeakRef() = default;
    KVNWeakRef(const KVNRef<T> &strong) : p_(strong.get()) { retainWeak(); }
    KVNWeakRef(const KVNWeakRef &other) : p_(other.p_) { retainWeak(); }
    KVNWeakRef(KVNWeakRef &&other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ~KVNWeakRef() { reset(); }
    KVNWeakRef &operator=(KVNWeakRef other) noexcept
    {
        std::swap(p_, other.p_);
        return *this;
    }
    void reset()
    {
        if (p_)
            KVNRef<T>::releaseWeak(std::exchange(p_, nullptr));
    }

    KVNRef<T> lock() const
    {
        KVNRef<T> result;
        if (!p_)
            return result;
        auto &strong = KVNRef<T>::counts(p_).strong;
        uint32_t count = strong.load(std::memory_order_relaxed);
        while (count != 0)
            if (strong.compare_exchange_weak(count, count + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                result.p_ = p_;
                break;
            }
        return result;
    }
    bool expired() const { return !p_ || KVNRef<T>::counts(p_).strong.load(std::memory_order_acquire) == 0; }
    // For identity tests only; the object may be gone.
    const T *address() const { return p_; }

private:
    void retainWeak()
    {
        if (p_)
            KVNRef<T>::counts(p_).weak.fetch_add(1, std::memory_order_relaxed);
    }

    T *p_ = nullptr;
};

template <class T> struct std::hash<KVNRef<T>> {
    std::size_t operator()(const KVNRef<T> &ref) const noexcept { return std::hash<T *>()(ref.get()); }
};

template <class T> size_t qHash(const KVNRef<T> &ref, size_t seed = 0) noexcept
{
    return qHash(ref.get(), seed);
}

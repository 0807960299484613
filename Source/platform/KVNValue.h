#pragma once

#include "KVNRef.h"

#include <QString>
#include <QStringView>

#include <compare>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <variant>

// A modification time with the nanoseconds the file system keeps, so that equal
// on-disk times are equal and different ones are not.
struct KVNDate {
    int64_t seconds = 0;
    uint32_t nanoseconds = 0;
    auto operator<=>(const KVNDate &) const = default;
    double toSecondsSinceEpoch() const { return double(seconds) + double(nanoseconds) / 1e9; }
};

class KVNKeyValueCoding;

// The value of a key path, as predicates and reports see it.
class KVNValue {
public:
    enum class Type { Nil, Bool, Integer, Double, String, Date, Object };

    KVNValue() = default;
    static KVNValue fromBool(bool v) { return KVNValue(Storage(std::in_place_index<1>, v)); }
    static KVNValue fromInteger(int64_t v) { return KVNValue(Storage(std::in_place_index<2>, v)); }
    static KVNValue fromDouble(double v) { return KVNValue(Storage(std::in_place_index<3>, v)); }
    static KVNValue fromString(const QString &v) { return KVNValue(Storage(std::in_place_index<4>, v)); }
    static KVNValue fromDate(KVNDate v) { return KVNValue(Storage(std::in_place_index<5>, v)); }
    static KVNValue fromObject(std::shared_ptr<const KVNKeyValueCoding> v)
    {
        return v ? KVNValue(Storage(std::in_place_index<6>, std::move(v))) : KVNValue();
    }
    // An object held by an intrusive count: the value holds one count on it.
    template <typename T> static KVNValue fromObject(const KVNRef<T> &v);

    Type type() const { return Type(storage_.index()); }
    bool isNil() const { return storage_.index() == 0; }
    bool toBool() const { return std::get<1>(storage_); }
    int64_t toInteger() const { return std::get<2>(storage_); }
    double toDouble() const { return std::get<3>(storage_); }
    const QString &toString() const { return std::get<4>(storage_); }
    KVNDate toDate() const { return std::get<5>(storage_); }
    const std::shared_ptr<const KVNKeyValueCoding> &toObject() const { return std::get<6>(storage_); }

private:
    using Storage =
        std::variant<std::monostate, bool, int64_t, double, QString, KVNDate, std::shared_ptr<const KVNKeyValueCoding>>;
    explicit KVNValue(Storage s) : storage_(std::move(s)) {}
    Storage storage_;
};

// What predicates evaluate against: nodes and rows answer their properties by
// name. An unknown key answers nil.
class KVNKeyValueCoding {
public:
    virtual ~KVNKeyValueCoding() = default;
    virtual KVNValue valueForKey(QStringView key) const = 0;
    // What equality of object values compares: the object that answers.
    virtual const void *identity() const { return this; }
};

// Stands in for an object that answers valueForKey without a virtual table of
// its own (a node: a million of them would each carry the pointer).
template <typename T> class KVNKeyValueHolder final : public KVNKeyValueCoding {
public:
    explicit KVNKeyValueHolder(KVNRef<T> object) : object_(std::move(object)) {}
    KVNValue valueForKey(QStringView key) const override { return object_->valueForKey(key); }
    const void *identity() const override { return object_.get(); }

private:
    KVNRef<T> object_;
};

// The same for the time of one call, holding nothing: what a predicate
// evaluates a row or a node through.
template <typename T> class KVNKeyValueView final : public KVNKeyValueCoding {
public:
    explicit KVNKeyValueView(const T &object) : object_(object) {}
    KVNValue valueForKey(QStringView key) const override { return object_.valueForKey(key); }
    const void *identity() const override { return &object_; }

private:
    const T &object_;
};

template <typename T> KVNValue KVNValue::fromObject(const KVNRef<T> &v)
{
    if (!v)
        return KVNValue();
    if constexpr (std::is_base_of_v<KVNKeyValueCoding, T>)
        return fromObject(std::shared_ptr<const KVNKeyValueCoding>(v.get(), [held = v](const KVNKeyValueCoding *) {}));
    else
        return fromObject(std::make_shared<const KVNKeyValueHolder<T>>(v));
}

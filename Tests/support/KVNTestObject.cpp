#include "KVNTestObject.h"

KVNTestObject::KVNTestObject(Entries entries) : values_(entries) {}

std::shared_ptr<KVNTestObject> KVNTestObject::make(Entries entries)
{
    return std::make_shared<KVNTestObject>(entries);
}

void KVNTestObject::setValue(const QString &key, KVNValue value)
{
    for (auto &entry : values_) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return;
        }
    }
    values_.emplace_back(key, std::move(value));
}

KVNValue KVNTestObject::valueForKey(QStringView key) const
{
    // A handful of keys: a linear scan beats hashing here.
    for (const auto &entry : values_) {
        if (entry.first == key)
            return entry.second;
    }
    return KVNValue();
}

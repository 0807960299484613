#pragma once

#include "KVNValue.h"

#include <QString>

#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

// A row stand-in for predicate tests: answers the values it was given and
// nil for any other key, like a node or row does.
class KVNTestObject : public KVNKeyValueCoding {
public:
    using Entries = std::initializer_list<std::pair<QString, KVNValue>>;

    KVNTestObject() = default;
    explicit KVNTestObject(Entries entries);
    static std::shared_ptr<KVNTestObject> make(Entries entries);

    void setValue(const QString &key, KVNValue value);
    KVNValue valueForKey(QStringView key) const override;

private:
    std::vector<std::pair<QString, KVNValue>> values_;
};

#include "KVNKeyedArchive.h"

#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace {

[[noreturn]] void fail(const QString &message)
{
    throw KVNArchiveFailure{message};
}

// The keyed-archive layer never needs a container inside a container inside
// a container more than a few levels down; a little room on top is enough.
constexpr int maxXmlNesting = 64;

// Reading an object or a record costs its size in work units; a file built so
// that the same large object is read over and over stops here instead of
// taking minutes.
constexpr uint64_t maxWork = uint64_t(32) << 20;

constexpr uint64_t cfUidMaximum = std::numeric_limits<uint32_t>::max();

struct PlistDeleter {
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistHolder = std::unique_ptr<void, PlistDeleter>;

// libplist builds and frees XML trees recursively, so the nesting is measured
// first, without building anything. Comments, CDATA, processing instructions
// and declarations are skipped to their first possible end, which can only
// count more elements than the parser sees, never fewer.
int xmlNestingDepth(const QByteArray &xml)
{
    const char *p = xml.constData();
    const qsizetype n = xml.size();
    int depth = 0;
    int deepest = 0;
    auto startsAt = [&](qsizetype at, const char *prefix) {
        const auto length = qsizetype(std::strlen(prefix));
        return at + length <= n && std::memcmp(p + at, prefix, std::size_t(length)) == 0;
    };
    auto skipTo = [&](qsizetype from, const char *terminator) {
        const qsizetype at = xml.indexOf(terminator, from);
        return at < 0 ? n : at + qsizetype(std::strlen(terminator));
    };
    for (qsizetype i = 0; i < n;) {
        if (p[i] != '<') {
            ++i;
            continue;
        }
        if (startsAt(i, "<!--")) {
            i = skipTo(i + 4, "-->");
        } else if (startsAt(i, "<![CDATA[")) {
            i = skipTo(i + 9, "]]>");
        } else if (i + 1 < n && p[i + 1] == '?') {
            i = skipTo(i + 2, "?>");
        } else if (i + 1 < n && p[i + 1] == '!') {
            i = skipTo(i + 2, ">");
        } else if (i + 1 < n && p[i + 1] == '/') {
            depth = std::max(0, depth - 1);
            i = skipTo(i + 2, ">");
        } else {
            const qsizetype close = xml.indexOf('>', i + 1);
            const bool selfClosing = close > 0 && p[close - 1] == '/';
            if (!selfClosing)
                deepest = std::max(deepest, ++depth);
            i = close < 0 ? n : close + 1;
        }
    }
    return deepest;
}

QString hexByte(uint8_t byte)
{
    return QStringLiteral("0x%1").arg(byte, 2, 16, QLatin1Char('0'));
}

} // namespace

QString KVNArchiveDisplayText(QStringView text, qsizetype maximum)
{
    QString shown;
    for (qsizetype i = 0; i < text.size() && i < maximum; ++i) {
        const char16_t c = text[i].unicode();
        if (c < 0x20 || c == 0x7F || c == 0x2028 || c == 0x2029)
            shown += QStringLiteral("\\u%1").arg(unsigned(c), 4, 16, QLatin1Char('0'));
        else
            shown += QChar(c);
    }
    if (text.size() > maximum)
        shown += QChar(0x2026);
    return shown;
}

// MARK: - KVNPlistObject

QString KVNPlistObject::typeName(Type type)
{
    switch (type) {
    case Type::Boolean:
        return QStringLiteral("boolean");
    case Type::Integer:
        return QStringLiteral("integer");
    case Type::Real:
        return QStringLiteral("real");
    case Type::Date:
        return QStringLiteral("date");
    case Type::Data:
        return QStringLiteral("data");
    case Type::String:
        return QStringLiteral("string");
    case Type::Uid:
        return QStringLiteral("UID");
    case Type::Array:
        return QStringLiteral("array");
    case Type::Dictionary:
        return QStringLiteral("dictionary");
    }
    return QString();
}

// MARK: - XML

QByteArray KVNPropertyListBinaryFromXml(const QByteArray &xml)
{
    if (xml.size() > KVNPropertyListReader::maxInputSize)
        fail(QStringLiteral("the file is too large to be read (%1 bytes)").arg(xml.size()));
    if (!xml.contains("<plist"))
        fail(QStringLiteral("the file is not a property list"));
    if (xmlNestingDepth(xml) > maxXmlNesting)
        fail(QStringLiteral("the property list is nested more than %1 levels deep").arg(maxXmlNesting));
    plist_t root = nullptr;
    plist_from_xml(xml.constData(), uint32_t(xml.size()), &root);
    if (!root)
        fail(QStringLiteral("the file is not a property list: its XML does not parse"));
    PlistHolder holder(root);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    if (!bytes)
        fail(QStringLiteral("the property list could not be converted"));
    QByteArray binary(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return binary;
}

// MARK: - KVNPropertyListReader

KVNPropertyListReader::KVNPropertyListReader(QByteArray data)
{
    if (data.size() > maxInputSize)
        fail(QStringLiteral("the file is too large to be read (%1 bytes)").arg(data.size()));
    if (data.startsWith("bplist")) {
        if (!data.startsWith("bplist00"))
            fail(QStringLiteral("unsupported binary property list version \"%1\"")
                     .arg(QString::fromLatin1(data.mid(6, 2).toHex())));
        data_ = std::move(data);
    } else {
        data_ = KVNPropertyListBinaryFromXml(data);
    }

    const auto size = uint64_t(data_.size());
    if (size < 8 + 1 + 32)
        fail(QStringLiteral("the binary property list is truncated (%1 bytes)").arg(size));
    const uint64_t trailer = size - 32;
    offsetSize_ = uint8_t(data_[qsizetype(trailer + 6)]);
    refSize_ = uint8_t(data_[qsizetype(trailer + 7)]);
    // Writers use the fewest bytes that hold the largest value; some use 3.
    auto validSize = [](unsigned s) { return s >= 1 && s <= 8; };
    if (!validSize(offsetSize_) || !validSize(refSize_))
        fail(QStringLiteral("the binary property list's trailer is damaged (offset size %1, reference size %2)")
                 .arg(offsetSize_)
                 .arg(refSize_));
    const uint64_t count = readUnsigned(trailer + 8, 8);
    const uint64_t top = readUnsigned(trailer + 16, 8);
    tableOffset_ = readUnsigned(trailer + 24, 8);
    if (count == 0 || count > std::numeric_limits<uint32_t>::max())
        fail(QStringLiteral("the binary property list claims %1 objects").arg(count));
    if (top >= count)
        fail(
            QStringLiteral("the binary property list's top object %1 is not among its %2 objects").arg(top).arg(count));
    if (tableOffset_ < 9 || tableOffset_ > trailer || (trailer - tableOffset_) / offsetSize_ < count)
        fail(QStringLiteral("the binary property list is truncated or its offset table lies outside the file"));
    count_ = uint32_t(count);
    top_ = uint32_t(top);
}

uint64_t KVNPropertyListReader::readUnsigned(uint64_t offset, unsigned size) const
{
    // Callers have checked that [offset, offset + size) lies in the data.
    uint64_t value = 0;
    const auto *bytes = reinterpret_cast<const uint8_t *>(data_.constData());
    for (unsigned i = 0; i < size; ++i)
        value = (value << 8) | bytes[offset + i];
    return value;
}

uint64_t KVNPropertyListReader::offsetOf(uint32_t index) const
{
    const uint64_t offset = readUnsigned(tableOffset_ + uint64_t(index) * offsetSize_, offsetSize_);
    if (offset < 8 || offset >= tableOffset_)
        fail(QStringLiteral("object %1 of the binary property list lies outside its object area").arg(index));
    return offset;
}

uint32_t KVNPropertyListReader::readRef(uint64_t offset) const
{
    const uint64_t ref = readUnsigned(offset, refSize_);
    if (ref >= count_)
        fail(QStringLiteral("the binary property list refers to object %1 of %2").arg(ref).arg(count_));
    return uint32_t(ref);
}

uint64_t KVNPropertyListReader::readCount(uint8_t marker, uint64_t &cursor, uint64_t limit) const
{
    if ((marker & 0x0F) != 0x0F)
        return marker & 0x0F;
    if (cursor >= limit)
        fail(QStringLiteral("an object of the binary property list is truncated"));
    const uint8_t intMarker = uint8_t(data_[qsizetype(cursor)]);
    if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3)
        fail(QStringLiteral("an object of the binary property list has a malformed length"));
    const unsigned size = 1u << (intMarker & 0x0F);
    if (limit - cursor - 1 < size)
        fail(QStringLiteral("an object of the binary property list is truncated"));
    const uint64_t count = readUnsigned(cursor + 1, size);
    cursor += 1 + size;
    return count;
}

KVNPlistObject KVNPropertyListReader::object(uint32_t index) const
{
    if (index >= count_)
        fail(QStringLiteral("the binary property list refers to object %1 of %2").arg(index).arg(count_));
    const uint64_t offset = offsetOf(index);
    const uint64_t limit = tableOffset_;
    const auto marker = uint8_t(data_[qsizetype(offset)]);
    uint64_t cursor = offset + 1;
    auto need = [&](uint64_t count, uint64_t unit) {
        if (count > (limit - cursor) / unit)
            fail(QStringLiteral("object %1 of the binary property list runs past the end of its area").arg(index));
    };

    KVNPlistObject object;
    using Type = KVNPlistObject::Type;
    switch (marker >> 4) {
    case 0x0:
        if (marker != 0x08 && marker != 0x09)
            fail(QStringLiteral("object %1 of the binary property list has the unsupported marker %2")
                     .arg(index)
                     .arg(hexByte(marker)));
        object.type = Type::Boolean;
        object.boolean = marker == 0x09;
        return object;
    case 0x1: {
        const unsigned n = marker & 0x0F;
        if (n > 4)
            fail(QStringLiteral("object %1 of the binary property list is an integer of unsupported size").arg(index));
        const unsigned size = 1u << n;
        need(size, 1);
        object.type = Type::Integer;
        if (size <= 8) {
            object.integer = int64_t(readUnsigned(cursor, size));
        } else {
            // 16 bytes: what a writer uses for unsigned 64-bit values.
            const uint64_t high = readUnsigned(cursor, 8);
            const uint64_t low = readUnsigned(cursor + 8, 8);
            const bool fits = high == 0 || (high == ~uint64_t(0) && (low >> 63));
            if (!fits)
                fail(QStringLiteral("object %1 of the binary property list is an integer out of range").arg(index));
            object.integer = int64_t(low);
        }
        return object;
    }
    case 0x2:
    case 0x3: {
        const unsigned n = marker & 0x0F;
        const bool isDate = (marker >> 4) == 0x3;
        if ((isDate && n != 3) || (!isDate && n != 2 && n != 3))
            fail(QStringLiteral("object %1 of the binary property list has the unsupported marker %2")
                     .arg(index)
                     .arg(hexByte(marker)));
        need(1u << n, 1);
        object.type = isDate ? Type::Date : Type::Real;
        if (n == 2) {
            const auto bits = uint32_t(readUnsigned(cursor, 4));
            float value;
            std::memcpy(&value, &bits, sizeof value);
            object.real = value;
        } else {
            const uint64_t bits = readUnsigned(cursor, 8);
            std::memcpy(&object.real, &bits, sizeof object.real);
        }
        return object;
    }
    case 0x4:
    case 0x5:
    case 0x6: {
        const uint64_t count = readCount(marker, cursor, limit);
        const unsigned unit = (marker >> 4) == 0x6 ? 2 : 1;
        need(count, unit);
        const char *bytes = data_.constData() + cursor;
        if ((marker >> 4) == 0x4) {
            object.type = Type::Data;
            object.data = QByteArray(bytes, qsizetype(count));
        } else if ((marker >> 4) == 0x5) {
            object.type = Type::String;
            object.string = QString::fromLatin1(bytes, qsizetype(count));
        } else {
            object.type = Type::String;
            object.string.resize(qsizetype(count));
            for (uint64_t i = 0; i < count; ++i)
                object.string[qsizetype(i)] = QChar(char16_t(readUnsigned(cursor + 2 * i, 2)));
        }
        return object;
    }
    case 0x8: {
        const unsigned size = (marker & 0x0F) + 1;
        need(size, 1);
        object.type = Type::Uid;
        object.uid = readUnsigned(cursor, size);
        return object;
    }
    case 0xA:
    case 0xD: {
        const bool isDictionary = (marker >> 4) == 0xD;
        const uint64_t count = readCount(marker, cursor, limit);
        const uint64_t refs = isDictionary ? 2 * count : count;
        if (isDictionary && count > std::numeric_limits<uint64_t>::max() / 2)
            fail(QStringLiteral("object %1 of the binary property list runs past the end of its area").arg(index));
        need(refs, refSize_);
        object.type = isDictionary ? Type::Dictionary : Type::Array;
        object.members.reserve(std::size_t(refs));
        for (uint64_t i = 0; i < refs; ++i)
            object.members.push_back(readRef(cursor + i * refSize_));
        if (isDictionary && count == 1) {
            // The XML form writes a UID as a dictionary with the single key
            // CF$UID. Looking at the key and value reads two more objects,
            // never containers, so this cannot recurse.
            const uint32_t keyIndex = object.members[0];
            const uint32_t valueIndex = object.members[1];
            const uint64_t keyOffset = offsetOf(keyIndex);
            const auto keyMarker = uint8_t(data_[qsizetype(keyOffset)]);
            const auto valueMarker = uint8_t(data_[qsizetype(offsetOf(valueIndex))]);
            if (keyMarker == 0x56 && (valueMarker >> 4) == 0x1) {
                const KVNPlistObject key = this->object(keyIndex);
                const KVNPlistObject value = this->object(valueIndex);
                if (key.string == QLatin1String("CF$UID") && value.integer >= 0 &&
                    uint64_t(value.integer) <= cfUidMaximum) {
                    KVNPlistObject uid;
                    uid.type = Type::Uid;
                    uid.uid = uint64_t(value.integer);
                    return uid;
                }
            }
        }
        return object;
    }
    default:
        fail(QStringLiteral("object %1 of the binary property list has the unsupported marker %2")
                 .arg(index)
                 .arg(hexByte(marker)));
    }
}

std::optional<uint32_t> KVNPropertyListReader::dictionaryValue(const KVNPlistObject &dictionary, QStringView key) const
{
    if (dictionary.type != KVNPlistObject::Type::Dictionary)
        return std::nullopt;
    const std::size_t count = dictionary.members.size() / 2;
    for (std::size_t i = 0; i < count; ++i) {
        const KVNPlistObject candidate = object(dictionary.members[i]);
        if (candidate.type == KVNPlistObject::Type::String && candidate.string == key)
            return dictionary.members[count + i];
    }
    return std::nullopt;
}

// MARK: - KVNKeyedUnarchiver

KVNKeyedUnarchiver::KVNKeyedUnarchiver(const QByteArray &data) : reader_(data)
{
    using Type = KVNPlistObject::Type;
    const KVNPlistObject top = reader_.object(reader_.topIndex());
    if (top.type != Type::Dictionary)
        fail(QStringLiteral("not a keyed archive: the property list is a %1, not a dictionary")
                 .arg(KVNPlistObject::typeName(top.type)));

    auto topValue = [&](const char *key, Type type) {
        const auto index = reader_.dictionaryValue(top, QString::fromLatin1(key));
        if (!index)
            fail(QStringLiteral("not a keyed archive: %1 is missing").arg(QLatin1String(key)));
        KVNPlistObject value = reader_.object(*index);
        if (value.type != type)
            fail(QStringLiteral("not a keyed archive: %1 is a %2, expected a %3")
                     .arg(QLatin1String(key), KVNPlistObject::typeName(value.type), KVNPlistObject::typeName(type)));
        return value;
    };

    const KVNPlistObject archiver = topValue("$archiver", Type::String);
    if (archiver.string != QLatin1String("NSKeyedArchiver"))
        fail(QStringLiteral("not a keyed archive: $archiver is \"%1\"").arg(KVNArchiveDisplayText(archiver.string)));
    const KVNPlistObject version = topValue("$version", Type::Integer);
    if (version.integer != 100000)
        fail(QStringLiteral("unsupported keyed archive version %1").arg(version.integer));
    const KVNPlistObject topLevel = topValue("$top", Type::Dictionary);
    const KVNPlistObject objects = topValue("$objects", Type::Array);
    objects_ = objects.members;
    if (objects_.empty())
        fail(QStringLiteral("not a keyed archive: $objects is empty"));
    inProgress_.assign(objects_.size(), false);

    const auto rootIndex = reader_.dictionaryValue(topLevel, u"root");
    if (!rootIndex)
        fail(QStringLiteral("the archive has no root object ($top has no root)"));
    root_ = checkedUID(reader_.object(*rootIndex), QStringLiteral("the root"));
    if (root_ == 0)
        fail(QStringLiteral("the archive's root object is nil"));
}

uint64_t KVNKeyedUnarchiver::checkedUID(const KVNPlistObject &value, const QString &what) const
{
    if (value.type != KVNPlistObject::Type::Uid)
        fail(QStringLiteral("%1 is a %2, expected a UID").arg(what, KVNPlistObject::typeName(value.type)));
    if (value.uid >= objects_.size())
        fail(QStringLiteral("%1 refers to object %2, but the archive holds only %3")
                 .arg(what)
                 .arg(value.uid)
                 .arg(objects_.size()));
    return value.uid;
}

KVNPlistObject KVNKeyedUnarchiver::object(uint64_t uid) const
{
    if (uid == 0 || uid >= objects_.size())
        fail(QStringLiteral("object %1 does not exist").arg(uid));
    KVNPlistObject value = reader_.object(objects_[uid]);
    work_ += 1 + value.members.size();
    if (work_ > maxWork)
        fail(QStringLiteral("the archive is too complex to read"));
    return value;
}

bool KVNKeyedUnarchiver::isRecord(uint64_t uid) const
{
    return uid != 0 && object(uid).type == KVNPlistObject::Type::Dictionary;
}

QStringList KVNKeyedUnarchiver::classChain(uint64_t classUID, uint64_t ownerUID) const
{
    if (const auto cached = classCache_.constFind(classUID); cached != classCache_.constEnd())
        return *cached;
    if (classUID == ownerUID)
        fail(QStringLiteral("object %1 is its own class").arg(ownerUID));
    const KVNPlistObject description = object(classUID);
    auto notDescription = [&] {
        fail(QStringLiteral("object %1 has a $class (object %2) that is not a class description")
                 .arg(ownerUID)
                 .arg(classUID));
    };
    const auto nameIndex = reader_.dictionaryValue(description, u"$classname");
    if (!nameIndex)
        notDescription();
    const KVNPlistObject name = reader_.object(*nameIndex);
    if (name.type != KVNPlistObject::Type::String || name.string.isEmpty())
        notDescription();
    QStringList chain;
    if (const auto classesIndex = reader_.dictionaryValue(description, u"$classes")) {
        const KVNPlistObject classes = reader_.object(*classesIndex);
        if (classes.type != KVNPlistObject::Type::Array)
            notDescription();
        work_ += classes.members.size();
        if (work_ > maxWork)
            fail(QStringLiteral("the archive is too complex to read"));
        for (const uint32_t member : classes.members) {
            const KVNPlistObject className = reader_.object(member);
            if (className.type != KVNPlistObject::Type::String)
                notDescription();
            chain.append(className.string);
        }
    }
    if (chain.isEmpty() || chain.front() != name.string)
        chain.prepend(name.string);
    classCache_.insert(classUID, chain);
    return chain;
}

KVNKeyedUnarchiver::Record KVNKeyedUnarchiver::record(uint64_t uid) const
{
    const KVNPlistObject value = object(uid);
    if (value.type != KVNPlistObject::Type::Dictionary) {
        QString what = KVNPlistObject::typeName(value.type);
        if (value.type == KVNPlistObject::Type::String)
            what += QStringLiteral(" \"%1\"").arg(KVNArchiveDisplayText(value.string));
        fail(QStringLiteral("object %1 is a %2 where an object record was expected").arg(uid).arg(what));
    }
    Record record;
    record.archive_ = this;
    record.uid_ = uid;
    const std::size_t count = value.members.size() / 2;
    work_ += count;
    for (std::size_t i = 0; i < count; ++i) {
        const KVNPlistObject key = reader_.object(value.members[i]);
        if (key.type != KVNPlistObject::Type::String)
            fail(QStringLiteral("object %1 has a key that is a %2").arg(uid).arg(KVNPlistObject::typeName(key.type)));
        if (!record.fields_.contains(key.string))
            record.fields_.insert(key.string, value.members[count + i]);
    }
    const auto classIndex = record.fields_.constFind(QStringLiteral("$class"));
    if (classIndex == record.fields_.constEnd())
        fail(QStringLiteral("object %1 has no $class").arg(uid));
    const uint64_t classUID =
        checkedUID(reader_.object(*classIndex), QStringLiteral("the $class of object %1").arg(uid));
    if (classUID == 0)
        fail(QStringLiteral("object %1 has a nil $class").arg(uid));
    record.classes_ = classChain(classUID, uid);
    return record;
}

QString KVNKeyedUnarchiver::Record::firstKnownClass(const QStringList &known) const
{
    for (const QString &name : classes_) {
        if (known.contains(name))
            return name;
    }
    return QString();
}

QString KVNKeyedUnarchiver::Record::label() const
{
    return QStringLiteral("object %1 (%2)").arg(uid_).arg(KVNArchiveDisplayText(classes_.value(0)));
}

std::optional<KVNPlistObject> KVNKeyedUnarchiver::Record::field(QStringView key) const
{
    const auto it = fields_.constFind(key.toString());
    if (it == fields_.constEnd())
        return std::nullopt;
    return archive_->reader_.object(*it);
}

std::optional<uint64_t> KVNKeyedUnarchiver::Record::uidField(QStringView key) const
{
    const auto value = field(key);
    if (!value)
        return std::nullopt;
    return archive_->checkedUID(*value, QStringLiteral("%1: %2").arg(label(), key));
}

std::optional<int64_t> KVNKeyedUnarchiver::Record::integerField(QStringView key) const
{
    const auto value = field(key);
    if (!value)
        return std::nullopt;
    if (value->type != KVNPlistObject::Type::Integer)
        fail(QStringLiteral("%1: %2 is a %3, expected an integer")
                 .arg(label(), key, KVNPlistObject::typeName(value->type)));
    return value->integer;
}

std::optional<bool> KVNKeyedUnarchiver::Record::booleanField(QStringView key) const
{
    const auto value = field(key);
    if (!value)
        return std::nullopt;
    if (value->type == KVNPlistObject::Type::Boolean)
        return value->boolean;
    if (value->type == KVNPlistObject::Type::Integer)
        return value->integer != 0;
    fail(QStringLiteral("%1: %2 is a %3, expected a boolean").arg(label(), key, KVNPlistObject::typeName(value->type)));
}

std::optional<std::vector<uint64_t>> KVNKeyedUnarchiver::Record::uidArrayField(QStringView key) const
{
    const auto value = field(key);
    if (!value)
        return std::nullopt;
    if (value->type != KVNPlistObject::Type::Array)
        fail(QStringLiteral("%1: %2 is a %3, expected an array")
                 .arg(label(), key, KVNPlistObject::typeName(value->type)));
    archive_->work_ += value->members.size();
    if (archive_->work_ > maxWork)
        fail(QStringLiteral("the archive is too complex to read"));
    std::vector<uint64_t> uids;
    uids.reserve(value->members.size());
    for (std::size_t i = 0; i < value->members.size(); ++i) {
        const KVNPlistObject member = archive_->reader_.object(value->members[i]);
        uids.push_back(archive_->checkedUID(member, QStringLiteral("%1: %2[%3]").arg(label(), key).arg(i)));
    }
    return uids;
}

KVNKeyedUnarchiver::Visit::Visit(const KVNKeyedUnarchiver &archive, uint64_t uid) : archive_(archive), uid_(uid)
{
    if (uid >= archive.inProgress_.size())
        fail(QStringLiteral("object %1 does not exist").arg(uid));
    if (archive.inProgress_[uid])
        fail(QStringLiteral("object %1 contains itself").arg(uid));
    archive.inProgress_[uid] = true;
}

KVNKeyedUnarchiver::Visit::~Visit()
{
    archive_.inProgress_[uid_] = false;
}

QString KVNKeyedUnarchiver::describeValue(uint32_t index, int depth) const
{
    using Type = KVNPlistObject::Type;
    const KVNPlistObject value = reader_.object(index);
    switch (value.type) {
    case Type::Boolean:
        return value.boolean ? QStringLiteral("true") : QStringLiteral("false");
    case Type::Integer:
        return QString::number(value.integer);
    case Type::Real:
        return QStringLiteral("real:") + QString::number(value.real, 'g', 17);
    case Type::Date:
        return QStringLiteral("date:") + QString::number(value.real, 'g', 17);
    case Type::Data:
        return QStringLiteral("<") + QString::fromLatin1(value.data.toHex()) + QStringLiteral(">");
    case Type::String:
        return QLatin1Char('"') + value.string + QLatin1Char('"');
    case Type::Uid:
        return QStringLiteral("@") + QString::number(value.uid);
    case Type::Array:
    case Type::Dictionary:
        break;
    }
    if (depth > 4)
        return QStringLiteral("…");
    QStringList parts;
    if (value.type == Type::Array) {
        for (const uint32_t member : value.members)
            parts.append(describeValue(member, depth + 1));
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    const std::size_t count = value.members.size() / 2;
    for (std::size_t i = 0; i < count; ++i)
        parts.append(describeValue(value.members[i], depth + 1) + QLatin1String(": ") +
                     describeValue(value.members[count + i], depth + 1));
    parts.sort();
    return QLatin1Char('{') + parts.join(QLatin1String(", ")) + QLatin1Char('}');
}

QString KVNKeyedUnarchiver::describe(uint64_t uid) const
{
    if (uid >= objects_.size())
        fail(QStringLiteral("object %1 does not exist").arg(uid));
    return describeValue(objects_[uid], 0);
}

// MARK: - KVNKeyedArchiver

KVNKeyedArchiver::KVNKeyedArchiver()
{
    entries_.emplace_back(QStringLiteral("$null"));
}

uint64_t KVNKeyedArchiver::reserve()
{
    entries_.emplace_back(std::monostate());
    return entries_.size() - 1;
}

uint64_t KVNKeyedArchiver::encodeString(const QString &value)
{
    if (const auto it = strings_.constFind(value); it != strings_.constEnd())
        return *it;
    entries_.emplace_back(value);
    strings_.insert(value, entries_.size() - 1);
    return entries_.size() - 1;
}

uint64_t KVNKeyedArchiver::encodeInteger(int64_t value)
{
    entries_.emplace_back(value);
    return entries_.size() - 1;
}

uint64_t KVNKeyedArchiver::encodeReal(double value)
{
    entries_.emplace_back(value);
    return entries_.size() - 1;
}

uint64_t KVNKeyedArchiver::encodeBoolean(bool value)
{
    entries_.emplace_back(value);
    return entries_.size() - 1;
}

void KVNKeyedArchiver::setRecord(uint64_t uid, Fields fields, const QStringList &classes)
{
    if (!classes.isEmpty()) {
        auto it = classes_.constFind(classes.front());
        if (it == classes_.constEnd()) {
            Fields description{{QStringLiteral("$classname"), classes.front()}, {QStringLiteral("$classes"), classes}};
            entries_.emplace_back(std::move(description));
            it = classes_.insert(classes.front(), entries_.size() - 1);
        }
        fields.emplace_back(QStringLiteral("$class"), UID{*it});
    }
    if (uid < entries_.size())
        entries_[uid] = std::move(fields);
}

namespace {

plist_t plistString(const QString &value)
{
    return plist_new_string(value.toUtf8().constData());
}

plist_t plistValue(const KVNKeyedArchiver::Value &value)
{
    using UID = KVNKeyedArchiver::UID;
    if (const auto *uid = std::get_if<UID>(&value))
        return plist_new_uid(uid->value);
    if (const auto *integer = std::get_if<int64_t>(&value))
        return plist_new_uint(uint64_t(*integer));
    if (const auto *boolean = std::get_if<bool>(&value))
        return plist_new_bool(*boolean);
    if (const auto *real = std::get_if<double>(&value))
        return plist_new_real(*real);
    if (const auto *string = std::get_if<QString>(&value))
        return plistString(*string);
    plist_t array = plist_new_array();
    if (const auto *uids = std::get_if<std::vector<UID>>(&value)) {
        for (const UID &uid : *uids)
            plist_array_append_item(array, plist_new_uid(uid.value));
    } else if (const auto *strings = std::get_if<QStringList>(&value)) {
        for (const QString &string : *strings)
            plist_array_append_item(array, plistString(string));
    }
    return array;
}

} // namespace

void *KVNKeyedArchiver::buildTop(uint64_t rootUID) const
{
    plist_t objects = plist_new_array();
    for (const Entry &entry : entries_) {
        plist_t node = nullptr;
        if (const auto *string = std::get_if<QString>(&entry)) {
            node = plistString(*string);
        } else if (const auto *integer = std::get_if<int64_t>(&entry)) {
            node = plist_new_uint(uint64_t(*integer));
        } else if (const auto *real = std::get_if<double>(&entry)) {
            // libplist writes a double that a float holds exactly in 4 bytes,
            // as the platform writes a float.
            node = plist_new_real(*real);
        } else if (const auto *boolean = std::get_if<bool>(&entry)) {
            node = plist_new_bool(*boolean);
        } else {
            node = plist_new_dict();
            if (const auto *fields = std::get_if<Fields>(&entry)) {
                for (const auto &[key, value] : *fields)
                    plist_dict_set_item(node, key.toUtf8().constData(), plistValue(value));
            }
        }
        plist_array_append_item(objects, node);
    }
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_dict_set_item(top, "$version", plist_new_uint(100000));
    plist_t topLevel = plist_new_dict();
    plist_dict_set_item(topLevel, "root", plist_new_uid(rootUID));
    plist_dict_set_item(top, "$top", topLevel);
    plist_dict_set_item(top, "$objects", objects);
    return top;
}

QByteArray KVNKeyedArchiver::binary(uint64_t rootUID) const
{
    PlistHolder top(buildTop(rootUID));
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(top.get()), &bytes, &length);
    QByteArray result(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return result;
}

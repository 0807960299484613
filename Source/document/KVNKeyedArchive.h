#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

// Keyed archives: a property list whose "$objects" table holds every archived
// object once, records referring to each other by UID. This layer knows the
// container and the record/class-description conventions; what the records
// mean is up to its callers.

// Raised by the readers below. Whoever unarchives catches it and reports the
// message; nothing outside a decode sees it.
struct KVNArchiveFailure {
    QString message;
};

// One object of a binary property list. Containers hold the indices of their
// members in the object table, not the members, so that reading one object
// never reads another.
struct KVNPlistObject {
    enum class Type { Boolean, Integer, Real, Date, Data, String, Uid, Array, Dictionary };

    Type type = Type::Boolean;
    bool boolean = false;
    int64_t integer = 0;
    uint64_t uid = 0;
    double real = 0; // a date is seconds since 2001-01-01
    QString string;
    QByteArray data;
    std::vector<uint32_t> members; // an array's items; a dictionary's n keys, then its n values

    static QString typeName(Type type);
};

// Reads a property list object by object, on demand. The binary form is read
// directly; the XML form is converted to it first. Shared objects are not
// copied and nothing is followed recursively, so a hostile file can neither
// blow the stack nor expand exponentially. Throws KVNArchiveFailure.
class KVNPropertyListReader {
public:
    explicit KVNPropertyListReader(QByteArray data);

    uint32_t topIndex() const { return top_; }
    uint32_t objectCount() const { return count_; }
    KVNPlistObject object(uint32_t index) const;
    // The value index for key when the object is a dictionary that holds it.
    std::optional<uint32_t> dictionaryValue(const KVNPlistObject &dictionary, QStringView key) const;

    // Session archives are a few kilobytes; this keeps a hostile file from
    // costing more than a bounded amount of memory.
    static constexpr qsizetype maxInputSize = qsizetype(32) << 20;

private:
    uint64_t readUnsigned(uint64_t offset, unsigned size) const;
    uint64_t offsetOf(uint32_t index) const;
    uint32_t readRef(uint64_t offset) const;
    uint64_t readCount(uint8_t marker, uint64_t &cursor, uint64_t limit) const;

    QByteArray data_;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    uint32_t count_ = 0;
    uint32_t top_ = 0;
    uint64_t tableOffset_ = 0;
};

// Text from a file as an error message may show it: on one line, control
// characters escaped, cut after maximum characters.
QString KVNArchiveDisplayText(QStringView text, qsizetype maximum = 64);

// The XML form as the binary form: what KVNPropertyListReader reads. Throws
// KVNArchiveFailure for anything that is not a property list in XML.
QByteArray KVNPropertyListBinaryFromXml(const QByteArray &xml);

// Reads a keyed archive made by the platform's archiver (or ours). UID 0 is
// nil and never reaches object(). Throws KVNArchiveFailure.
class KVNKeyedUnarchiver {
public:
    explicit KVNKeyedUnarchiver(const QByteArray &data);

    uint64_t rootUID() const { return root_; }
    uint64_t objectCount() const { return uint64_t(objects_.size()); }
    KVNPlistObject object(uint64_t uid) const;
    bool isRecord(uint64_t uid) const;

    // A dictionary of $objects with a valid class description.
    class Record {
    public:
        uint64_t uid() const { return uid_; }
        // The class, then its superclasses.
        const QStringList &classes() const { return classes_; }
        // The first class of the chain that is in known: subclasses and
        // mutable variants decode as the base class the caller knows.
        QString firstKnownClass(const QStringList &known) const;

        bool has(QStringView key) const { return fields_.contains(key.toString()); }
        std::optional<KVNPlistObject> field(QStringView key) const;
        // Typed fields: nullopt when absent, a failure when of the wrong type.
        std::optional<uint64_t> uidField(QStringView key) const; // checked against the table
        std::optional<int64_t> integerField(QStringView key) const;
        std::optional<bool> booleanField(QStringView key) const; // a boolean or an integer
        std::optional<std::vector<uint64_t>> uidArrayField(QStringView key) const;

        // "object 17 (NSCompoundPredicate)", for messages.
        QString label() const;

    private:
        friend class KVNKeyedUnarchiver;
        const KVNKeyedUnarchiver *archive_ = nullptr;
        uint64_t uid_ = 0;
        QStringList classes_;
        QHash<QString, uint32_t> fields_;
    };
    Record record(uint64_t uid) const;

    // Marks uid as being decoded while it lives: meeting the same object again
    // inside it means the object contains itself.
    class Visit {
    public:
        Visit(const KVNKeyedUnarchiver &archive, uint64_t uid);
        ~Visit();
        Visit(const Visit &) = delete;
        Visit &operator=(const Visit &) = delete;

    private:
        const KVNKeyedUnarchiver &archive_;
        uint64_t uid_;
    };

    // One line per entry, keys sorted, UIDs as "@n": two archives with the same
    // objects in the same order describe alike, whatever their form.
    QString describe(uint64_t uid) const;

    uint64_t checkedUID(const KVNPlistObject &value, const QString &what) const;

private:
    QStringList classChain(uint64_t classUID, uint64_t ownerUID) const;
    QString describeValue(uint32_t index, int depth) const;

    KVNPropertyListReader reader_;
    std::vector<uint32_t> objects_;
    uint64_t root_ = 0;
    mutable std::vector<bool> inProgress_;
    mutable QHash<uint64_t, QStringList> classCache_;
    mutable uint64_t work_ = 0;
};

// Writes a keyed archive in the platform's order: an object gets its UID when
// it is first met (reserve()), its fields are encoded depth first, and its
// class description is appended after the fields, the first time the class
// is used (setRecord()).
class KVNKeyedArchiver {
public:
    struct UID {
        uint64_t value = 0;
    };
    using Value = std::variant<UID, int64_t, bool, double, QString, std::vector<UID>, QStringList>;
    using Fields = std::vector<std::pair<QString, Value>>;

    KVNKeyedArchiver();

    uint64_t reserve();
    // Equal strings share one entry, as the platform's archiver merges them.
    uint64_t encodeString(const QString &value);
    // A plain number; a double that a float holds exactly is written in 4 bytes.
    uint64_t encodeInteger(int64_t value);
    uint64_t encodeReal(double value);
    uint64_t encodeBoolean(bool value);
    // Fills a reserved entry. classes is the class and its superclasses, ending
    // in NSObject; with none the record gets no $class (tests build broken
    // records that way).
    void setRecord(uint64_t uid, Fields fields, const QStringList &classes);

    QByteArray binary(uint64_t rootUID) const;

private:
    using Entry = std::variant<std::monostate, QString, int64_t, double, bool, Fields>;
    void *buildTop(uint64_t rootUID) const; // a plist_t the caller frees

    std::vector<Entry> entries_;
    QHash<QString, uint64_t> strings_;
    QHash<QString, uint64_t> classes_;
};

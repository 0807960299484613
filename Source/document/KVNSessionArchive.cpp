#include "KVNSessionArchive.h"

#include "KVNKeyedArchive.h"

#include <QHash>

#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <unordered_map>

namespace {

using UID = KVNKeyedArchiver::UID;
using Fields = KVNKeyedArchiver::Fields;
using Record = KVNKeyedUnarchiver::Record;
using Visit = KVNKeyedUnarchiver::Visit;
using Operator = KVNComparisonPredicate::Operator;
using PlistType = KVNPlistObject::Type;

[[noreturn]] void fail(const QString &message)
{
    throw KVNArchiveFailure{message};
}

const char *const rootKeys[] = {"documentClass", "documentVersion", "originalURL",
                                "modifiedURL",   "ancestorURL",     "exclusionPredicate"};

// Dates in archives count from 2001-01-01; ours from 1970-01-01.
constexpr double referenceDateOffset = 978307200.0;

// Compound types as the platform numbers them.
constexpr int64_t compoundNot = 0;
constexpr int64_t compoundAnd = 1;
constexpr int64_t compoundOr = 2;

// Option bits of the platform; [n] only promises normalized text, so it
// changes no result and is accepted and dropped.
constexpr int64_t supportedOptions =
    KVNComparisonPredicate::CaseInsensitive | KVNComparisonPredicate::DiacriticInsensitive;
constexpr int64_t normalizedOption = 4;

// A class and its superclasses up to NSObject.
template <typename... Names> QStringList chain(Names... names)
{
    return {QString::fromLatin1(names)..., QStringLiteral("NSObject")};
}

int64_t operatorType(Operator op)
{
    switch (op) {
    case Operator::Less:
        return 0;
    case Operator::LessOrEqual:
        return 1;
    case Operator::Greater:
        return 2;
    case Operator::GreaterOrEqual:
        return 3;
    case Operator::Equal:
        return 4;
    case Operator::NotEqual:
        return 5;
    case Operator::Matches:
        return 6;
    case Operator::Like:
        return 7;
    case Operator::BeginsWith:
        return 8;
    case Operator::EndsWith:
        return 9;
    case Operator::In:
        return 10;
    case Operator::Contains:
        return 99;
    }
    return 4;
}

double singlePrecision(double value)
{
    // A double beyond the float range has no float to convert to.
    if (std::isfinite(value) && std::fabs(value) > double(FLT_MAX))
        return value > 0 ? double(HUGE_VALF) : -double(HUGE_VALF);
    return double(float(value));
}

// MARK: - URLs

bool isPathCharacter(uint8_t c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
        return true;
    return c != 0 && std::strchr("-._~!$&'()*+,;=:@/", c) != nullptr;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

struct URLParts {
    QString scheme;
    std::optional<QString> authority;
    QString path;
    std::optional<QString> query;
    std::optional<QString> fragment;
};

URLParts splitURL(const QString &url)
{
    URLParts parts;
    qsizetype i = 0;
    if (!url.isEmpty() && url[0].isLetter() && url[0].unicode() < 0x80) {
        qsizetype j = 1;
        while (j < url.size() && url[j].unicode() < 0x80 &&
               (url[j].isLetterOrNumber() || url[j] == u'+' || url[j] == u'-' || url[j] == u'.'))
            ++j;
        if (j < url.size() && url[j] == u':') {
            parts.scheme = url.left(j);
            i = j + 1;
        }
    }
    auto endOf = [&](qsizetype from, QStringView stops) {
        qsizetype end = from;
        while (end < url.size() && !stops.contains(url[end]))
            ++end;
        return end;
    };
    if (url.mid(i, 2) == QLatin1String("//")) {
        const qsizetype end = endOf(i + 2, u"/?#");
        parts.authority = url.mid(i + 2, end - i - 2);
        i = end;
    }
    const qsizetype pathEnd = endOf(i, u"?#");
    parts.path = url.mid(i, pathEnd - i);
    i = pathEnd;
    if (i < url.size() && url[i] == u'?') {
        const qsizetype end = endOf(i + 1, u"#");
        parts.query = url.mid(i + 1, end - i - 1);
        i = end;
    }
    if (i < url.size() && url[i] == u'#')
        parts.fragment = url.mid(i + 1);
    return parts;
}

QString removeDotSegments(const QString &path)
{
    QStringList output;
    const QStringList segments = path.split(u'/');
    for (qsizetype i = 0; i < segments.size(); ++i) {
        const QString &segment = segments[i];
        const bool last = i + 1 == segments.size();
        if (segment == QLatin1String(".")) {
            if (last)
                output.append(QString());
        } else if (segment == QLatin1String("..")) {
            if (output.size() > 1 || (output.size() == 1 && !output.front().isEmpty()))
                output.removeLast();
            if (last)
                output.append(QString());
        } else {
            output.append(segment);
        }
    }
    QString result = output.join(u'/');
    if (path.startsWith(u'/') && !result.startsWith(u'/'))
        result.prepend(u'/');
    return result;
}

// A reference resolved against its base, the standard way.
QString resolveURL(const QString &base, const QString &relative)
{
    const URLParts r = splitURL(relative);
    const URLParts b = splitURL(base);
    URLParts t;
    if (!r.scheme.isEmpty()) {
        t = r;
        t.path = removeDotSegments(r.path);
    } else {
        if (r.authority) {
            t.authority = r.authority;
            t.path = removeDotSegments(r.path);
            t.query = r.query;
        } else {
            if (r.path.isEmpty()) {
                t.path = b.path;
                t.query = r.query ? r.query : b.query;
            } else {
                if (r.path.startsWith(u'/')) {
                    t.path = removeDotSegments(r.path);
                } else {
                    QString merged;
                    if (b.authority && b.path.isEmpty())
                        merged = QLatin1Char('/') + r.path;
                    else
                        merged = b.path.left(b.path.lastIndexOf(u'/') + 1) + r.path;
                    t.path = removeDotSegments(merged);
                }
                t.query = r.query;
            }
            t.authority = b.authority;
        }
        t.scheme = b.scheme;
    }
    t.fragment = r.fragment;

    QString url;
    if (!t.scheme.isEmpty())
        url += t.scheme + QLatin1Char(':');
    if (t.authority)
        url += QLatin1String("//") + *t.authority;
    url += t.path;
    if (t.query)
        url += QLatin1Char('?') + *t.query;
    if (t.fragment)
        url += QLatin1Char('#') + *t.fragment;
    return url;
}

// MARK: - Writing

class SessionWriter {
public:
    QByteArray write(const KVNSessionContents &contents);

private:
    uint64_t nullObject();
    uint64_t url(const QByteArray &path);
    uint64_t predicate(const KVNPredicatePtr &predicate);
    uint64_t comparison(const KVNComparisonPredicate &comparison);
    uint64_t expression(const KVNExpression &expression);
    uint64_t selfExpression();
    uint64_t constantValue(const KVNValue &value);
    uint64_t predicateOperator(Operator op, unsigned options);

    KVNKeyedArchiver archiver_;
    uint64_t null_ = 0; // NSNull and SELF are singletons: one record each
    uint64_t self_ = 0;
    std::unordered_map<const KVNPredicate *, uint64_t> predicates_;
};

QByteArray SessionWriter::write(const KVNSessionContents &contents)
{
    const uint64_t root = archiver_.reserve();
    std::vector<UID> keys;
    for (const char *key : rootKeys)
        keys.push_back({archiver_.encodeString(QLatin1String(key))});
    // All keys come before the first value, as the platform encodes a dictionary.
    std::vector<UID> values;
    values.push_back({archiver_.encodeString(contents.documentClass)});
    values.push_back({archiver_.encodeReal(singlePrecision(contents.documentVersion.value_or(double(0.1f))))});
    for (const auto *location : {&contents.originalURL, &contents.modifiedURL, &contents.ancestorURL})
        values.push_back({*location ? url(**location) : nullObject()});
    values.push_back({contents.exclusionPredicate ? predicate(contents.exclusionPredicate) : nullObject()});
    archiver_.setRecord(root, {{QStringLiteral("NS.keys"), keys}, {QStringLiteral("NS.objects"), values}},
                        chain("NSDictionary"));
    return archiver_.binary(root);
}

uint64_t SessionWriter::nullObject()
{
    if (!null_) {
        null_ = archiver_.reserve();
        archiver_.setRecord(null_, {}, chain("NSNull"));
    }
    return null_;
}

uint64_t SessionWriter::url(const QByteArray &path)
{
    const uint64_t uid = archiver_.reserve();
    const uint64_t relative = archiver_.encodeString(KVNSessionArchive::fileURLString(path));
    archiver_.setRecord(uid, {{QStringLiteral("NS.base"), UID{0}}, {QStringLiteral("NS.relative"), UID{relative}}},
                        chain("NSURL"));
    return uid;
}

uint64_t SessionWriter::predicate(const KVNPredicatePtr &predicate)
{
    // The same predicate object reached twice is archived once, as the
    // platform's archiver does; it also keeps shared subtrees from growing
    // the file exponentially.
    if (const auto it = predicates_.find(predicate.get()); it != predicates_.end())
        return it->second;
    uint64_t uid = 0;
    const auto kind = predicate->kind();
    if (kind == KVNPredicate::Kind::Comparison) {
        uid = comparison(static_cast<const KVNComparisonPredicate &>(*predicate));
    } else {
        uid = archiver_.reserve();
        const uint64_t array = archiver_.reserve();
        std::vector<UID> subpredicates;
        for (const auto &subpredicate : predicate->subpredicates())
            subpredicates.push_back({this->predicate(subpredicate)});
        archiver_.setRecord(array, {{QStringLiteral("NS.objects"), subpredicates}}, chain("NSArray"));
        // TRUEPREDICATE is the AND of nothing, FALSEPREDICATE the OR of nothing.
        const int64_t type = kind == KVNPredicate::Kind::Not                                         ? compoundNot
                             : (kind == KVNPredicate::Kind::And || kind == KVNPredicate::Kind::True) ? compoundAnd
                                                                                                     : compoundOr;
        archiver_.setRecord(
            uid, {{QStringLiteral("NSSubpredicates"), UID{array}}, {QStringLiteral("NSCompoundPredicateType"), type}},
            chain("NSCompoundPredicate", "NSPredicate"));
    }
    predicates_.emplace(predicate.get(), uid);
    return uid;
}

uint64_t SessionWriter::comparison(const KVNComparisonPredicate &comparison)
{
    const uint64_t uid = archiver_.reserve();
    const uint64_t left = expression(comparison.leftExpression());
    const uint64_t right = expression(comparison.rightExpression());
    const uint64_t op = predicateOperator(comparison.predicateOperator(), comparison.options());
    archiver_.setRecord(uid,
                        {{QStringLiteral("NSLeftExpression"), UID{left}},
                         {QStringLiteral("NSRightExpression"), UID{right}},
                         {QStringLiteral("NSPredicateOperator"), UID{op}}},
                        chain("NSComparisonPredicate", "NSPredicate"));
    return uid;
}

uint64_t SessionWriter::selfExpression()
{
    if (!self_) {
        self_ = archiver_.reserve();
        archiver_.setRecord(self_, {{QStringLiteral("NSExpressionType"), int64_t(1)}},
                            chain("NSSelfExpression", "NSExpression"));
    }
    return self_;
}

uint64_t SessionWriter::expression(const KVNExpression &expression)
{
    switch (expression.kind()) {
    case KVNExpression::Kind::Self:
        return selfExpression();
    case KVNExpression::Kind::Constant: {
        const uint64_t uid = archiver_.reserve();
        const uint64_t value = constantValue(expression.constantValue());
        archiver_.setRecord(
            uid, {{QStringLiteral("NSExpressionType"), int64_t(0)}, {QStringLiteral("NSConstantValue"), UID{value}}},
            chain("NSConstantValueExpression", "NSExpression"));
        return uid;
    }
    case KVNExpression::Kind::KeyPath: {
        // A key path is a function of SELF: valueForKey: for one key,
        // valueForKeyPath: for a dotted path, with one key-path specifier.
        const uint64_t uid = archiver_.reserve();
        const QStringList &keys = expression.keyPathComponents();
        const uint64_t selector = archiver_.encodeString(keys.size() == 1 ? QStringLiteral("valueForKey:")
                                                                          : QStringLiteral("valueForKeyPath:"));
        const uint64_t operand = selfExpression();
        const uint64_t arguments = archiver_.reserve();
        const uint64_t specifier = archiver_.reserve();
        const uint64_t path = archiver_.encodeString(keys.join(u'.'));
        archiver_.setRecord(
            specifier, {{QStringLiteral("NSExpressionType"), int64_t(10)}, {QStringLiteral("NSKeyPath"), UID{path}}},
            chain("NSKeyPathSpecifierExpression", "NSExpression"));
        archiver_.setRecord(arguments, {{QStringLiteral("NS.objects"), std::vector<UID>{{specifier}}}},
                            chain("NSMutableArray", "NSArray"));
        archiver_.setRecord(uid,
                            {{QStringLiteral("NSExpressionType"), int64_t(3)},
                             {QStringLiteral("NSSelectorName"), UID{selector}},
                             {QStringLiteral("NSOperand"), UID{operand}},
                             {QStringLiteral("NSArguments"), UID{arguments}}},
                            chain("NSKeyPathExpression", "NSFunctionExpression", "NSExpression"));
        return uid;
    }
    case KVNExpression::Kind::Aggregate: {
        const uint64_t uid = archiver_.reserve();
        const uint64_t collection = archiver_.reserve();
        std::vector<UID> elements;
        for (const KVNExpression &element : expression.elements())
            elements.push_back({this->expression(element)});
        archiver_.setRecord(collection, {{QStringLiteral("NS.objects"), elements}}, chain("NSArray"));
        archiver_.setRecord(
            uid, {{QStringLiteral("NSExpressionType"), int64_t(14)}, {QStringLiteral("NSCollection"), UID{collection}}},
            chain("NSAggregateExpression", "NSExpression"));
        return uid;
    }
    }
    return 0;
}

uint64_t SessionWriter::constantValue(const KVNValue &value)
{
    switch (value.type()) {
    case KVNValue::Type::Nil:
    case KVNValue::Type::Object:
        return 0;
    case KVNValue::Type::Bool:
        return archiver_.encodeBoolean(value.toBool());
    case KVNValue::Type::Integer:
        return archiver_.encodeInteger(value.toInteger());
    case KVNValue::Type::Double:
        return archiver_.encodeReal(value.toDouble());
    case KVNValue::Type::String:
        return archiver_.encodeString(value.toString());
    case KVNValue::Type::Date: {
        const uint64_t uid = archiver_.reserve();
        const double time = value.toDate().toSecondsSinceEpoch() - referenceDateOffset;
        archiver_.setRecord(uid, {{QStringLiteral("NS.time"), time}}, chain("NSDate"));
        return uid;
    }
    }
    return 0;
}

uint64_t SessionWriter::predicateOperator(Operator op, unsigned options)
{
    const uint64_t uid = archiver_.reserve();
    const int64_t type = operatorType(op);
    Fields fields{{QStringLiteral("NSOperatorType"), type}, {QStringLiteral("NSModifier"), int64_t(0)}};
    QStringList classes;
    switch (op) {
    case Operator::Less:
    case Operator::LessOrEqual:
    case Operator::Greater:
    case Operator::GreaterOrEqual:
        fields.emplace_back(QStringLiteral("NSVariant"), type);
        fields.emplace_back(QStringLiteral("NSOptions"), int64_t(options));
        classes = chain("NSComparisonPredicateOperator", "NSPredicateOperator");
        break;
    case Operator::Equal:
    case Operator::NotEqual:
        fields.emplace_back(QStringLiteral("NSNegate"), op == Operator::NotEqual);
        fields.emplace_back(QStringLiteral("NSOptions"), int64_t(options));
        classes = chain("NSEqualityPredicateOperator", "NSPredicateOperator");
        break;
    case Operator::Matches:
        fields.emplace_back(QStringLiteral("NSFlags"), int64_t(options));
        classes = chain("NSMatchingPredicateOperator", "NSStringPredicateOperator", "NSPredicateOperator");
        break;
    case Operator::Like:
        fields.emplace_back(QStringLiteral("NSFlags"), int64_t(options));
        classes = chain("NSLikePredicateOperator", "NSMatchingPredicateOperator", "NSStringPredicateOperator",
                        "NSPredicateOperator");
        break;
    case Operator::BeginsWith:
    case Operator::EndsWith:
        fields.emplace_back(QStringLiteral("NSFlags"), int64_t(options));
        fields.emplace_back(QStringLiteral("NSPosition"), int64_t(op == Operator::EndsWith ? 1 : 0));
        classes = chain("NSSubstringPredicateOperator", "NSStringPredicateOperator", "NSPredicateOperator");
        break;
    case Operator::In:
    case Operator::Contains:
        fields.emplace_back(QStringLiteral("NSFlags"), int64_t(options));
        classes = chain("NSInPredicateOperator", "NSPredicateOperator");
        break;
    }
    archiver_.setRecord(uid, std::move(fields), classes);
    return uid;
}

// MARK: - Reading

class SessionReader {
public:
    explicit SessionReader(const KVNKeyedUnarchiver &archive) : archive_(archive) {}
    KVNSessionContents read();

private:
    struct Decoded {
        KVNPredicatePtr predicate;
        int64_t nodes = 0; // the tree's size with shared subtrees counted at each use
    };

    QString describe(uint64_t uid);
    bool isNull(uint64_t uid);
    QString string(uint64_t uid, const QString &what);
    std::optional<QByteArray> location(uint64_t uid, const QString &key);
    QString urlString(uint64_t uid, int depth);
    KVNPredicatePtr predicateValue(uint64_t uid);
    struct CompoundFrame;
    std::optional<Decoded> open(uint64_t uid, int depth, const QString &what, std::deque<CompoundFrame> &stack);
    Decoded predicate(uint64_t uid, const QString &what);
    Decoded comparison(const Record &record);
    KVNExpression expression(uint64_t uid, int depth, int64_t &nodes, const QString &what);
    KVNExpression keyPath(const Record &record, int depth, int64_t &nodes);
    std::vector<uint64_t> arrayElements(uint64_t uid, const QString &what);
    KVNValue constant(uint64_t uid);
    std::pair<Operator, unsigned> predicateOperator(uint64_t uid);
    static void countNodes(int64_t &nodes, int64_t more);

    const KVNKeyedUnarchiver &archive_;
    QHash<uint64_t, Decoded> predicates_;
};

void SessionReader::countNodes(int64_t &nodes, int64_t more)
{
    nodes += more;
    if (nodes > KVNSessionArchive::maxPredicateNodes())
        fail(QStringLiteral("the exclusion predicate is too large (more than %1 nodes)")
                 .arg(KVNSessionArchive::maxPredicateNodes()));
}

QString SessionReader::describe(uint64_t uid)
{
    if (uid == 0)
        return QStringLiteral("nil");
    const KVNPlistObject value = archive_.object(uid);
    if (value.type == PlistType::Dictionary)
        return QStringLiteral("an object of class %1")
            .arg(KVNArchiveDisplayText(archive_.record(uid).classes().value(0)));
    return QStringLiteral("a %1").arg(KVNPlistObject::typeName(value.type));
}

bool SessionReader::isNull(uint64_t uid)
{
    return archive_.isRecord(uid) && !archive_.record(uid).firstKnownClass({QStringLiteral("NSNull")}).isEmpty();
}

QString SessionReader::string(uint64_t uid, const QString &what)
{
    if (uid != 0) {
        const KVNPlistObject value = archive_.object(uid);
        if (value.type == PlistType::String)
            return value.string;
        if (value.type == PlistType::Dictionary) {
            const Record record = archive_.record(uid);
            if (!record.firstKnownClass({QStringLiteral("NSString")}).isEmpty()) {
                // NSMutableString holds its characters inline; accept a UID too.
                const auto characters = record.field(u"NS.string");
                if (characters && characters->type == PlistType::String)
                    return characters->string;
                if (characters && characters->type == PlistType::Uid) {
                    const uint64_t inner =
                        archive_.checkedUID(*characters, record.label() + QStringLiteral(": NS.string"));
                    if (inner != 0 && archive_.object(inner).type == PlistType::String)
                        return archive_.object(inner).string;
                }
                fail(QStringLiteral("%1: %2 holds no characters").arg(what, record.label()));
            }
        }
    }
    fail(QStringLiteral("%1 is %2, expected a string").arg(what, describe(uid)));
}

KVNSessionContents SessionReader::read()
{
    const uint64_t root = archive_.rootUID();
    Visit visit(archive_, root);
    const Record record = archive_.record(root);
    if (record.firstKnownClass({QStringLiteral("NSDictionary")}).isEmpty())
        fail(QStringLiteral("the archive's root is an object of class %1, expected a dictionary")
                 .arg(KVNArchiveDisplayText(record.classes().value(0))));
    const auto keys = record.uidArrayField(u"NS.keys");
    const auto values = record.uidArrayField(u"NS.objects");
    if (!keys || !values)
        fail(QStringLiteral("the root dictionary has no NS.keys or no NS.objects"));
    if (keys->size() != values->size())
        fail(QStringLiteral("the root dictionary has %1 keys but %2 values").arg(keys->size()).arg(values->size()));
    QHash<QString, uint64_t> entries;
    for (std::size_t i = 0; i < keys->size(); ++i) {
        const QString key = string((*keys)[i], QStringLiteral("a key of the root dictionary"));
        if (!entries.contains(key))
            entries.insert(key, (*values)[i]);
    }

    KVNSessionContents contents;
    contents.documentClass.clear();
    contents.documentVersion.reset();
    const uint64_t documentClass = entries.value(QStringLiteral("documentClass"));
    if (documentClass != 0 && !isNull(documentClass))
        contents.documentClass = string(documentClass, QStringLiteral("documentClass"));
    if (const uint64_t version = entries.value(QStringLiteral("documentVersion")); version != 0 && !isNull(version)) {
        const KVNPlistObject number = archive_.object(version);
        if (number.type == PlistType::Real)
            contents.documentVersion = number.real;
        else if (number.type == PlistType::Integer)
            contents.documentVersion = double(number.integer);
        else if (number.type == PlistType::Boolean)
            contents.documentVersion = number.boolean ? 1.0 : 0.0;
        else
            fail(QStringLiteral("documentVersion is %1, expected a number").arg(describe(version)));
    }
    contents.originalURL = location(entries.value(QStringLiteral("originalURL")), QStringLiteral("originalURL"));
    contents.modifiedURL = location(entries.value(QStringLiteral("modifiedURL")), QStringLiteral("modifiedURL"));
    contents.ancestorURL = location(entries.value(QStringLiteral("ancestorURL")), QStringLiteral("ancestorURL"));
    contents.exclusionPredicate = predicateValue(entries.value(QStringLiteral("exclusionPredicate")));
    return contents;
}

std::optional<QByteArray> SessionReader::location(uint64_t uid, const QString &key)
{
    if (uid == 0 || isNull(uid))
        return std::nullopt;
    if (!archive_.isRecord(uid) || archive_.record(uid).firstKnownClass({QStringLiteral("NSURL")}).isEmpty())
        fail(QStringLiteral("%1 is %2, expected a URL or NSNull").arg(key, describe(uid)));
    const QString url = urlString(uid, 0);
    QString why;
    const auto path = KVNSessionArchive::pathFromFileURL(url, &why);
    if (!path)
        fail(QStringLiteral("%1: %2").arg(key, why));
    return path;
}

QString SessionReader::urlString(uint64_t uid, int depth)
{
    // A base is itself a URL that may have a base; real ones have none.
    if (depth > 16)
        fail(QStringLiteral("object %1: a URL's bases are nested too deeply").arg(uid));
    const Visit visit(archive_, uid);
    const Record record = archive_.record(uid);
    if (record.firstKnownClass({QStringLiteral("NSURL")}).isEmpty())
        fail(QStringLiteral("the base of a URL is %1, expected a URL").arg(describe(uid)));
    const uint64_t base = record.uidField(u"NS.base").value_or(0);
    const auto relative = record.uidField(u"NS.relative");
    if (!relative)
        fail(QStringLiteral("%1 has no NS.relative").arg(record.label()));
    const QString text = string(*relative, record.label() + QStringLiteral(": NS.relative"));
    if (base == 0)
        return text;
    return resolveURL(urlString(base, depth + 1), text);
}

KVNPredicatePtr SessionReader::predicateValue(uint64_t uid)
{
    if (uid == 0 || isNull(uid))
        return nullptr;
    const KVNPlistObject value = archive_.object(uid);
    QString text;
    if (value.type == PlistType::String) {
        text = value.string;
    } else if (value.type == PlistType::Dictionary &&
               !archive_.record(uid).firstKnownClass({QStringLiteral("NSString")}).isEmpty()) {
        text = string(uid, QStringLiteral("exclusionPredicate"));
    } else if (value.type == PlistType::Dictionary) {
        return predicate(uid, QStringLiteral("exclusionPredicate")).predicate;
    } else {
        fail(QStringLiteral("exclusionPredicate is %1, expected a predicate, its text or NSNull").arg(describe(uid)));
    }
    // The predicate in its text form, as a platform without archived
    // predicates would store it.
    const auto parsed = KVNPredicate::parse(text);
    if (!parsed.ok())
        fail(QStringLiteral("exclusionPredicate: the predicate text does not parse: %1 (at character %2)")
                 .arg(KVNArchiveDisplayText(parsed.error ? parsed.error->message : QString(), 200))
                 .arg(parsed.error ? parsed.error->position : 0));
    return parsed.predicate;
}

// A compound being decoded: its subpredicates are decoded one at a time from
// an explicit stack, so that nesting costs heap, not the thread's stack.
struct SessionReader::CompoundFrame {
    CompoundFrame(const KVNKeyedUnarchiver &archive, const Record &record, int depth)
        : record(record), depth(depth), visit(archive, record.uid())
    {}
    Record record;
    int depth;
    Visit visit;
    std::optional<Visit> visitList;
    int64_t type = 0;
    QString what;
    std::vector<uint64_t> elements;
    std::size_t next = 0;
    std::vector<KVNPredicatePtr> subpredicates;
    int64_t nodes = 1;
};

std::optional<SessionReader::Decoded> SessionReader::open(uint64_t uid, int depth, const QString &what,
                                                          std::deque<CompoundFrame> &stack)
{
    if (uid == 0)
        fail(QStringLiteral("%1 is nil, expected a predicate").arg(what));
    // Shared subtrees are decoded once; their size still counts at each use.
    if (const auto it = predicates_.constFind(uid); it != predicates_.constEnd())
        return *it;
    {
        // Whatever uid turns out to be, meeting it inside itself is a loop.
        const Visit probe(archive_, uid);
    }
    const Record record = archive_.record(uid);
    const QString kind =
        record.firstKnownClass({QStringLiteral("NSComparisonPredicate"), QStringLiteral("NSCompoundPredicate"),
                                QStringLiteral("NSTruePredicate"), QStringLiteral("NSFalsePredicate")});
    Decoded decoded;
    if (kind == QLatin1String("NSCompoundPredicate")) {
        const auto type = record.integerField(u"NSCompoundPredicateType");
        if (!type)
            fail(QStringLiteral("%1 has no NSCompoundPredicateType").arg(record.label()));
        if (*type != compoundNot && *type != compoundAnd && *type != compoundOr)
            fail(QStringLiteral("%1 has the unknown compound type %2").arg(record.label()).arg(*type));
        if (depth >= KVNSessionArchive::maxPredicateDepth())
            fail(QStringLiteral("the exclusion predicate is nested deeper than %1 levels")
                     .arg(KVNSessionArchive::maxPredicateDepth()));
        const auto list = record.uidField(u"NSSubpredicates");
        if (!list)
            fail(QStringLiteral("%1 has no NSSubpredicates").arg(record.label()));
        CompoundFrame &frame = stack.emplace_back(archive_, record, depth);
        frame.type = *type;
        frame.what = record.label() + QStringLiteral(": NSSubpredicates");
        if (*list != 0)
            frame.visitList.emplace(archive_, *list);
        frame.elements = arrayElements(*list, frame.what);
        if (*type == compoundNot && frame.elements.size() != 1)
            fail(QStringLiteral("%1 is a NOT with %2 subpredicates, expected one")
                     .arg(record.label())
                     .arg(frame.elements.size()));
        frame.subpredicates.reserve(frame.elements.size());
        return std::nullopt;
    }
    if (kind == QLatin1String("NSComparisonPredicate")) {
        const Visit visit(archive_, uid);
        decoded = comparison(record);
    } else if (kind == QLatin1String("NSTruePredicate")) {
        decoded = {KVNPredicate::truePredicate(), 1};
    } else if (kind == QLatin1String("NSFalsePredicate")) {
        decoded = {KVNPredicate::falsePredicate(), 1};
    } else {
        fail(QStringLiteral("%1: %2 is not a predicate this application can read").arg(what, record.label()));
    }
    predicates_.insert(uid, decoded);
    return decoded;
}

SessionReader::Decoded SessionReader::predicate(uint64_t uid, const QString &what)
{
    std::deque<CompoundFrame> stack;
    if (const auto leaf = open(uid, 0, what, stack))
        return *leaf;
    for (;;) {
        CompoundFrame &frame = stack.back();
        if (frame.next < frame.elements.size()) {
            const uint64_t element = frame.elements[frame.next++];
            // A compound child pushes its own frame; the loop then works on it.
            if (const auto leaf = open(element, frame.depth + 1, frame.what, stack)) {
                countNodes(frame.nodes, leaf->nodes);
                frame.subpredicates.push_back(leaf->predicate);
            }
            continue;
        }
        // The factories keep the archived shape, except that an AND of
        // nothing is TRUEPREDICATE and an OR of nothing FALSEPREDICATE, which
        // is how we write those two.
        Decoded decoded;
        decoded.nodes = frame.nodes;
        if (frame.type == compoundNot)
            decoded.predicate = KVNPredicate::notPredicateWithSubpredicate(frame.subpredicates.front());
        else if (frame.type == compoundAnd)
            decoded.predicate = KVNPredicate::andPredicateWithSubpredicates(frame.subpredicates);
        else
            decoded.predicate = KVNPredicate::orPredicateWithSubpredicates(frame.subpredicates);
        predicates_.insert(frame.record.uid(), decoded);
        stack.pop_back();
        if (stack.empty())
            return decoded;
        CompoundFrame &parent = stack.back();
        countNodes(parent.nodes, decoded.nodes);
        parent.subpredicates.push_back(decoded.predicate);
    }
}

std::vector<uint64_t> SessionReader::arrayElements(uint64_t uid, const QString &what)
{
    if (uid == 0)
        return {};
    if (!archive_.isRecord(uid) || archive_.record(uid).firstKnownClass({QStringLiteral("NSArray")}).isEmpty())
        fail(QStringLiteral("%1 is %2, expected an array").arg(what, describe(uid)));
    return archive_.record(uid).uidArrayField(u"NS.objects").value_or(std::vector<uint64_t>());
}

SessionReader::Decoded SessionReader::comparison(const Record &record)
{
    auto part = [&](const char16_t *key) {
        const auto uid = record.uidField(key);
        if (!uid || *uid == 0)
            fail(QStringLiteral("%1 has no %2").arg(record.label(), QStringView(key)));
        return *uid;
    };
    const uint64_t leftUID = part(u"NSLeftExpression");
    const uint64_t rightUID = part(u"NSRightExpression");
    const uint64_t operatorUID = part(u"NSPredicateOperator");
    Decoded decoded;
    decoded.nodes = 1;
    KVNExpression left = expression(leftUID, 0, decoded.nodes, record.label() + QStringLiteral(": NSLeftExpression"));
    KVNExpression right =
        expression(rightUID, 0, decoded.nodes, record.label() + QStringLiteral(": NSRightExpression"));
    const auto [op, options] = predicateOperator(operatorUID);
    QString why;
    decoded.predicate = KVNComparisonPredicate::make(std::move(left), op, std::move(right), options, &why);
    if (!decoded.predicate)
        fail(QStringLiteral("%1: %2").arg(record.label(), why));
    return decoded;
}

KVNExpression SessionReader::expression(uint64_t uid, int depth, int64_t &nodes, const QString &what)
{
    // Expressions the predicate code knows are at most a few levels deep.
    if (depth > 4)
        fail(QStringLiteral("%1: expressions are nested too deeply").arg(what));
    if (uid == 0)
        fail(QStringLiteral("%1 is nil, expected an expression").arg(what));
    const Visit visit(archive_, uid);
    const Record record = archive_.record(uid);
    countNodes(nodes, 1);
    const QString kind = record.firstKnownClass(
        {QStringLiteral("NSConstantValueExpression"), QStringLiteral("NSSelfExpression"),
         QStringLiteral("NSKeyPathExpression"), QStringLiteral("NSFunctionExpression"),
         QStringLiteral("NSKeyPathSpecifierExpression"), QStringLiteral("NSAggregateExpression")});
    if (kind == QLatin1String("NSSelfExpression"))
        return KVNExpression::self();
    if (kind == QLatin1String("NSKeyPathExpression") || kind == QLatin1String("NSFunctionExpression") ||
        kind == QLatin1String("NSKeyPathSpecifierExpression"))
        return keyPath(record, depth, nodes);
    if (kind == QLatin1String("NSConstantValueExpression")) {
        if (record.has(u"NSConstantValueClassName"))
            fail(QStringLiteral("%1: constants that stand for a class are not supported").arg(record.label()));
        const uint64_t value = record.uidField(u"NSConstantValue").value_or(0);
        // A list given as an argument archives as one constant array.
        if (archive_.isRecord(value) &&
            !archive_.record(value).firstKnownClass({QStringLiteral("NSArray")}).isEmpty()) {
            const Visit visitList(archive_, value);
            std::vector<KVNExpression> elements;
            for (const uint64_t element : arrayElements(value, record.label() + QStringLiteral(": NSConstantValue"))) {
                countNodes(nodes, 1);
                elements.push_back(KVNExpression::constant(constant(element)));
            }
            return KVNExpression::aggregate(std::move(elements));
        }
        return KVNExpression::constant(constant(value));
    }
    if (kind == QLatin1String("NSAggregateExpression")) {
        const auto collection = record.uidField(u"NSCollection");
        if (!collection)
            fail(QStringLiteral("%1 has no NSCollection").arg(record.label()));
        const QString collectionWhat = record.label() + QStringLiteral(": NSCollection");
        std::optional<Visit> visitList;
        if (*collection != 0)
            visitList.emplace(archive_, *collection);
        std::vector<KVNExpression> elements;
        for (const uint64_t element : arrayElements(*collection, collectionWhat))
            elements.push_back(expression(element, depth + 1, nodes, collectionWhat));
        return KVNExpression::aggregate(std::move(elements));
    }
    fail(QStringLiteral("%1: %2 is not an expression this application can read").arg(what, record.label()));
}

KVNExpression SessionReader::keyPath(const Record &record, int depth, int64_t &nodes)
{
    QString path;
    if (record.firstKnownClass({QStringLiteral("NSKeyPathSpecifierExpression")}).isEmpty()) {
        const auto selectorUID = record.uidField(u"NSSelectorName");
        const QString selector = string(selectorUID.value_or(0), record.label() + QStringLiteral(": NSSelectorName"));
        if (selector != QLatin1String("valueForKey:") && selector != QLatin1String("valueForKeyPath:"))
            fail(QStringLiteral("%1: the function %2 is not supported")
                     .arg(record.label(), KVNArchiveDisplayText(selector)));
        const auto operandUID = record.uidField(u"NSOperand");
        const KVNExpression operand =
            expression(operandUID.value_or(0), depth + 1, nodes, record.label() + QStringLiteral(": NSOperand"));
        if (operand.kind() != KVNExpression::Kind::Self)
            fail(QStringLiteral("%1: only key paths that start at SELF are supported").arg(record.label()));
        const QString argumentsWhat = record.label() + QStringLiteral(": NSArguments");
        const auto argumentsUID = record.uidField(u"NSArguments");
        if (!argumentsUID || *argumentsUID == 0)
            fail(QStringLiteral("%1 has no NSArguments").arg(record.label()));
        const Visit visitArguments(archive_, *argumentsUID);
        const std::vector<uint64_t> arguments = arrayElements(*argumentsUID, argumentsWhat);
        if (arguments.size() != 1)
            fail(QStringLiteral("%1 holds %2 arguments, expected one").arg(argumentsWhat).arg(arguments.size()));
        const KVNExpression argument = expression(arguments.front(), depth + 1, nodes, argumentsWhat);
        // A key-path specifier reads back as the key path itself; an older form
        // passes the path as a constant string.
        if (argument.kind() == KVNExpression::Kind::KeyPath)
            return argument;
        if (argument.kind() != KVNExpression::Kind::Constant ||
            argument.constantValue().type() != KVNValue::Type::String)
            fail(QStringLiteral("%1 does not hold a key path").arg(argumentsWhat));
        path = argument.constantValue().toString();
    } else {
        const auto pathUID = record.uidField(u"NSKeyPath");
        path = string(pathUID.value_or(0), record.label() + QStringLiteral(": NSKeyPath"));
    }
    const auto keyPath = KVNExpression::keyPath(QStringView(path));
    if (!keyPath)
        fail(QStringLiteral("%1: \"%2\" is not a key path").arg(record.label(), KVNArchiveDisplayText(path)));
    return *keyPath;
}

KVNValue SessionReader::constant(uint64_t uid)
{
    if (uid == 0)
        return KVNValue();
    const KVNPlistObject value = archive_.object(uid);
    double referenceSeconds = 0;
    switch (value.type) {
    case PlistType::String:
        return KVNValue::fromString(value.string);
    case PlistType::Integer:
        return KVNValue::fromInteger(value.integer);
    case PlistType::Real:
        return KVNValue::fromDouble(value.real);
    case PlistType::Boolean:
        return KVNValue::fromBool(value.boolean);
    case PlistType::Date:
        referenceSeconds = value.real;
        break;
    case PlistType::Dictionary: {
        const Record record = archive_.record(uid);
        const QString kind =
            record.firstKnownClass({QStringLiteral("NSNull"), QStringLiteral("NSString"), QStringLiteral("NSDate")});
        if (kind == QLatin1String("NSNull"))
            return KVNValue();
        if (kind == QLatin1String("NSString"))
            return KVNValue::fromString(string(uid, record.label()));
        if (kind != QLatin1String("NSDate"))
            fail(QStringLiteral("%1 is not a constant this application can read").arg(record.label()));
        const auto time = record.field(u"NS.time");
        if (!time || time->type != PlistType::Real)
            fail(QStringLiteral("%1 has no NS.time").arg(record.label()));
        referenceSeconds = time->real;
        break;
    }
    default:
        fail(QStringLiteral("object %1 is a %2, not a constant this application can read")
                 .arg(uid)
                 .arg(KVNPlistObject::typeName(value.type)));
    }
    if (!std::isfinite(referenceSeconds) || std::fabs(referenceSeconds) > 1e15)
        fail(QStringLiteral("object %1 is a date out of range").arg(uid));
    const double total = referenceSeconds + referenceDateOffset;
    double seconds = std::floor(total);
    auto nanoseconds = int64_t(std::llround((total - seconds) * 1e9));
    if (nanoseconds >= 1'000'000'000) {
        seconds += 1;
        nanoseconds -= 1'000'000'000;
    }
    return KVNValue::fromDate({int64_t(seconds), uint32_t(nanoseconds)});
}

std::pair<Operator, unsigned> SessionReader::predicateOperator(uint64_t uid)
{
    const Visit visit(archive_, uid);
    const Record record = archive_.record(uid);
    const QString kind = record.firstKnownClass(
        {QStringLiteral("NSComparisonPredicateOperator"), QStringLiteral("NSEqualityPredicateOperator"),
         QStringLiteral("NSLikePredicateOperator"), QStringLiteral("NSMatchingPredicateOperator"),
         QStringLiteral("NSSubstringPredicateOperator"), QStringLiteral("NSInPredicateOperator"),
         QStringLiteral("NSBetweenPredicateOperator"), QStringLiteral("NSCustomPredicateOperator")});
    if (kind.isEmpty())
        fail(QStringLiteral("%1 is not a comparison operator this application can read").arg(record.label()));
    if (kind == QLatin1String("NSBetweenPredicateOperator"))
        fail(QStringLiteral("%1: BETWEEN comparisons are not supported").arg(record.label()));
    if (kind == QLatin1String("NSCustomPredicateOperator"))
        fail(QStringLiteral("%1: comparisons by a custom selector are not supported").arg(record.label()));

    const int64_t modifier = record.integerField(u"NSModifier").value_or(0);
    if (modifier == 1)
        fail(QStringLiteral("%1: ALL comparisons are not supported").arg(record.label()));
    if (modifier == 2)
        fail(QStringLiteral("%1: ANY comparisons are not supported").arg(record.label()));
    if (modifier != 0)
        fail(QStringLiteral("%1 has the unknown modifier %2").arg(record.label()).arg(modifier));

    auto flags = record.integerField(u"NSFlags");
    if (!flags)
        flags = record.integerField(u"NSOptions");
    const int64_t options = flags.value_or(0) & ~normalizedOption;
    if (options & ~supportedOptions)
        fail(QStringLiteral("%1: the comparison options %2 are not supported").arg(record.label()).arg(*flags));

    const auto type = record.integerField(u"NSOperatorType");
    auto mismatch = [&]() -> std::pair<Operator, unsigned> {
        fail(QStringLiteral("%1 has the operator type %2, which its class does not have")
                 .arg(record.label())
                 .arg(type ? QString::number(*type) : QStringLiteral("(none)")));
    };
    auto result = [&](Operator op) { return std::pair<Operator, unsigned>(op, unsigned(options)); };

    if (kind == QLatin1String("NSComparisonPredicateOperator")) {
        const int64_t variant = type ? *type : record.integerField(u"NSVariant").value_or(-1);
        static const Operator ordered[] = {Operator::Less, Operator::LessOrEqual, Operator::Greater,
                                           Operator::GreaterOrEqual};
        if (variant < 0 || variant > 3)
            return mismatch();
        return result(ordered[variant]);
    }
    if (kind == QLatin1String("NSEqualityPredicateOperator")) {
        // NSNegate decides, as the platform's decoder lets it.
        auto negate = record.booleanField(u"NSNegate");
        if (!negate && type && (*type == 4 || *type == 5))
            negate = *type == 5;
        if (!negate)
            return mismatch();
        return result(*negate ? Operator::NotEqual : Operator::Equal);
    }
    if (kind == QLatin1String("NSLikePredicateOperator")) {
        if (type && *type != 7)
            return mismatch();
        return result(Operator::Like);
    }
    if (kind == QLatin1String("NSMatchingPredicateOperator")) {
        if (type && *type != 6)
            return mismatch();
        return result(Operator::Matches);
    }
    if (kind == QLatin1String("NSSubstringPredicateOperator")) {
        const auto position = record.integerField(u"NSPosition");
        if (position && (*position == 0 || *position == 1))
            return result(*position == 0 ? Operator::BeginsWith : Operator::EndsWith);
        if (!position && type && (*type == 8 || *type == 9))
            return result(*type == 8 ? Operator::BeginsWith : Operator::EndsWith);
        return mismatch();
    }
    // NSInPredicateOperator: IN, and CONTAINS, its mirror image.
    if (type && *type == 10)
        return result(Operator::In);
    if (type && *type == 99)
        return result(Operator::Contains);
    return mismatch();
}

} // namespace

// MARK: - KVNSessionArchive

QByteArray KVNSessionArchive::archive(const KVNSessionContents &contents)
{
    return SessionWriter().write(contents);
}

std::optional<KVNSessionContents> KVNSessionArchive::unarchive(const QByteArray &data, QString *error)
{
    QString message;
    try {
        const KVNKeyedUnarchiver archive(data);
        return SessionReader(archive).read();
    } catch (const KVNArchiveFailure &failure) {
        message = failure.message;
    } catch (const std::bad_alloc &) {
        message = QStringLiteral("the archive needs more memory than is available");
    }
    if (error)
        *error = message;
    return std::nullopt;
}

QString KVNSessionArchive::fileURLString(const QByteArray &path)
{
    QByteArray absolute = path;
    if (!absolute.startsWith('/')) {
        char *cwd = ::getcwd(nullptr, 0);
        const QByteArray directory = cwd ? QByteArray(cwd) : QByteArray("/");
        std::free(cwd);
        absolute = directory + (directory.endsWith('/') ? "" : "/") + absolute;
    }
    while (absolute.size() > 1 && absolute.endsWith('/'))
        absolute.chop(1);
    struct stat status;
    const bool isDirectory =
        !absolute.contains('\0') && ::stat(absolute.constData(), &status) == 0 && S_ISDIR(status.st_mode);

    static const char hex[] = "0123456789ABCDEF";
    QString url = QStringLiteral("file://");
    url.reserve(url.size() + absolute.size() * 3 + 1);
    for (const char c : absolute) {
        const auto byte = uint8_t(c);
        if (isPathCharacter(byte)) {
            url += QLatin1Char(c);
        } else {
            url += QLatin1Char('%');
            url += QLatin1Char(hex[byte >> 4]);
            url += QLatin1Char(hex[byte & 0xF]);
        }
    }
    if (isDirectory && absolute != "/")
        url += QLatin1Char('/');
    return url;
}

std::optional<QByteArray> KVNSessionArchive::pathFromFileURL(const QString &url, QString *error)
{
    const QString shown = KVNArchiveDisplayText(url, 200);
    auto refuse = [&](const QString &why) -> std::optional<QByteArray> {
        if (error)
            *error = QStringLiteral("\"%1\" %2").arg(shown, why);
        return std::nullopt;
    };
    const QByteArray bytes = url.toUtf8();
    if (bytes.size() < 5 || qstrnicmp(bytes.constData(), "file:", 5) != 0)
        return refuse(QStringLiteral("is not a file URL"));
    QByteArray rest = bytes.mid(5);
    if (rest.startsWith("//")) {
        const qsizetype slash = rest.indexOf('/', 2);
        const QByteArray host = rest.mid(2, slash < 0 ? -1 : slash - 2);
        if (!host.isEmpty() && host.toLower() != "localhost")
            return refuse(QStringLiteral("names the host \"%1\", not a local file")
                              .arg(KVNArchiveDisplayText(QString::fromUtf8(host))));
        rest = slash < 0 ? QByteArray() : rest.mid(slash);
    }
    // A '?' or '#' in a path is escaped; a raw one ends the path.
    for (const char stop : {'?', '#'}) {
        const qsizetype at = rest.indexOf(stop);
        if (at >= 0)
            rest.truncate(at);
    }
    if (!rest.startsWith('/'))
        return refuse(QStringLiteral("has no absolute path"));
    QByteArray path;
    path.reserve(rest.size());
    for (qsizetype i = 0; i < rest.size(); ++i) {
        if (rest[i] != '%') {
            path += rest[i];
            continue;
        }
        const int high = i + 2 < rest.size() ? hexValue(rest[i + 1]) : -1;
        const int low = i + 2 < rest.size() ? hexValue(rest[i + 2]) : -1;
        if (high < 0 || low < 0)
            return refuse(QStringLiteral("has a malformed percent escape"));
        path += char(high * 16 + low);
        i += 2;
    }
    if (path.contains('\0'))
        return refuse(QStringLiteral("holds a NUL byte in its path"));
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    return path;
}

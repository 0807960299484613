#include "KVNPredicate.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

// Factories, compounds, constant predicates and expressions. The parser lives
// in KVNPredicateParser.cpp, comparisons in KVNPredicateComparison.cpp.

namespace {

// The object of one compound evaluation, remembering the last key it was
// asked: "name LIKE[c] 'a' OR name LIKE[c] 'b' OR ..." reads the name once,
// where each read may decode it anew.
class KVNRememberingKeyValue final : public KVNKeyValueCoding {
public:
    explicit KVNRememberingKeyValue(const KVNKeyValueCoding &object) : object_(object) {}
    KVNValue valueForKey(QStringView key) const override
    {
        if (remembered_ && key == QStringView(lastKey_.data(), lastKeySize_))
            return lastValue_;
        KVNValue value = object_.valueForKey(key);
        remembered_ = std::size_t(key.size()) <= lastKey_.size();
        if (remembered_) {
            std::copy(key.begin(), key.end(), lastKey_.begin());
            lastKeySize_ = key.size();
            lastValue_ = value;
        }
        return value;
    }
    const void *identity() const override { return object_.identity(); }

private:
    const KVNKeyValueCoding &object_;
    mutable std::array<QChar, 48> lastKey_; // a copy: the caller's key may not outlive the call
    mutable qsizetype lastKeySize_ = 0;
    mutable KVNValue lastValue_;
    mutable bool remembered_ = false;
};

class KVNBooleanPredicate final : public KVNPredicate {
public:
    explicit KVNBooleanPredicate(bool value) : value_(value) {}
    bool evaluateWithObject(const KVNKeyValueCoding &) const override { return value_; }
    QString predicateFormat() const override
    {
        return value_ ? QStringLiteral("TRUEPREDICATE") : QStringLiteral("FALSEPREDICATE");
    }
    bool isEqual(const KVNPredicate &other) const override { return other.kind() == kind(); }
    Kind kind() const override { return value_ ? Kind::True : Kind::False; }

private:
    bool value_;
};

bool isCompoundKind(KVNPredicate::Kind kind)
{
    return kind == KVNPredicate::Kind::And || kind == KVNPredicate::Kind::Or || kind == KVNPredicate::Kind::Not;
}

// A compound inside a compound keeps its parentheses, so the text parses back
// to the same nesting.
QString wrappedFormat(const KVNPredicate &predicate)
{
    QString text = predicate.predicateFormat();
    if (isCompoundKind(predicate.kind()))
        return QLatin1Char('(') + text + QLatin1Char(')');
    return text;
}

char32_t codePointAt(QStringView text, qsizetype &i)
{
    const char16_t unit = text[i].unicode();
    if (QChar::isHighSurrogate(unit) && i + 1 < text.size() && QChar::isLowSurrogate(text[i + 1].unicode())) {
        const char32_t cp = QChar::surrogateToUcs4(unit, text[i + 1].unicode());
        i += 2;
        return cp;
    }
    ++i;
    return unit;
}

void appendUnicodeEscape(QString &out, char16_t unit)
{
    static const char hex[] = "0123456789abcdef";
    out += QLatin1String("\\u");
    for (int shift = 12; shift >= 0; shift -= 4)
        out += QLatin1Char(hex[(unit >> shift) & 0xF]);
}

QString quotedString(const QString &value)
{
    QString out;
    out.reserve(value.size() + 2);
    out += QLatin1Char('"');
    const qsizetype n = value.size();
    for (qsizetype i = 0; i < n; ++i) {
        const char16_t c = value[i].unicode();
        switch (c) {
        case u'"':
            out += QLatin1String("\\\"");
            continue;
        case u'\\':
            out += QLatin1String("\\\\");
            continue;
        case u'\n':
            out += QLatin1String("\\n");
            continue;
        case u'\t':
            out += QLatin1String("\\t");
            continue;
        case u'\r':
            out += QLatin1String("\\r");
            continue;
        case u'%':
            // The parser reads "%%" in a string as one '%'.
            out += (i + 1 < n && value[i + 1] == u'%') ? QLatin1String("%%") : QLatin1String("%");
            continue;
        default:
            break;
        }
        const bool control = c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
        bool loneSurrogate = false;
        if (QChar::isHighSurrogate(c))
            loneSurrogate = !(i + 1 < n && value[i + 1].isLowSurrogate());
        else if (QChar::isLowSurrogate(c))
            loneSurrogate = !(i > 0 && value[i - 1].isHighSurrogate());
        if (control || loneSurrogate)
            appendUnicodeEscape(out, c);
        else
            out += QChar(c);
    }
    out += QLatin1Char('"');
    return out;
}

QString formatDouble(double value)
{
    // Out-of-range literals read back as infinities.
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("1e999") : QStringLiteral("-1e999");
    if (std::isnan(value))
        return QStringLiteral("NaN");
    if (value == 0) // "-0" would read back as the integer 0 and render differently
        return QStringLiteral("0");
    std::array<char, 64> buffer;
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return QString::fromLatin1(buffer.data(), result.ptr - buffer.data());
}

} // namespace

// MARK: - KVNPredicate

KVNPredicatePtr KVNPredicate::predicateWithFormat(const QString &format, const QList<KVNValue> &arguments)
{
    return parse(format, arguments).predicate;
}

KVNPredicatePtr KVNPredicate::truePredicate()
{
    static const KVNPredicatePtr predicate = std::make_shared<KVNBooleanPredicate>(true);
    return predicate;
}

KVNPredicatePtr KVNPredicate::falsePredicate()
{
    static const KVNPredicatePtr predicate = std::make_shared<KVNBooleanPredicate>(false);
    return predicate;
}

KVNPredicatePtr KVNPredicate::notPredicateWithSubpredicate(const KVNPredicatePtr &predicate)
{
    if (!predicate)
        return nullptr;
    return std::make_shared<KVNCompoundPredicate>(KVNCompoundPredicate::Key{}, Kind::Not,
                                                  std::vector<KVNPredicatePtr>{predicate});
}

namespace {
std::vector<KVNPredicatePtr> presentOnly(const std::vector<KVNPredicatePtr> &predicates)
{
    std::vector<KVNPredicatePtr> present;
    present.reserve(predicates.size());
    for (const auto &predicate : predicates) {
        if (predicate)
            present.push_back(predicate);
    }
    return present;
}
} // namespace

KVNPredicatePtr KVNPredicate::andPredicateWithSubpredicates(const std::vector<KVNPredicatePtr> &predicates)
{
    auto present = presentOnly(predicates);
    if (present.empty())
        return truePredicate();
    if (present.size() == 1)
        return present.front();
    return std::make_shared<KVNCompoundPredicate>(KVNCompoundPredicate::Key{}, Kind::And, std::move(present));
}

KVNPredicatePtr KVNPredicate::orPredicateWithSubpredicates(const std::vector<KVNPredicatePtr> &predicates)
{
    auto present = presentOnly(predicates);
    if (present.empty())
        return falsePredicate();
    if (present.size() == 1)
        return present.front();
    return std::make_shared<KVNCompoundPredicate>(KVNCompoundPredicate::Key{}, Kind::Or, std::move(present));
}

// MARK: - KVNCompoundPredicate

KVNCompoundPredicate::KVNCompoundPredicate(Key, Kind kind, std::vector<KVNPredicatePtr> subpredicates)
    : kind_(kind), subpredicates_(std::move(subpredicates))
{}

bool KVNCompoundPredicate::evaluateWithObject(const KVNKeyValueCoding &object) const
{
    if (kind_ == Kind::Not)
        return !subpredicates_.front()->evaluateWithObject(object);
    const KVNRememberingKeyValue remembering(object);
    const KVNKeyValueCoding &read = subpredicates_.size() > 1 ? remembering : object;
    switch (kind_) {
    case Kind::And:
        return std::all_of(subpredicates_.begin(), subpredicates_.end(),
                           [&](const KVNPredicatePtr &p) { return p->evaluateWithObject(read); });
    case Kind::Or:
        return std::any_of(subpredicates_.begin(), subpredicates_.end(),
                           [&](const KVNPredicatePtr &p) { return p->evaluateWithObject(read); });
    default:
        return false;
    }
}

QString KVNCompoundPredicate::predicateFormat() const
{
    if (kind_ == Kind::Not)
        return QStringLiteral("NOT ") + wrappedFormat(*subpredicates_.front());
    const QString separator = kind_ == Kind::And ? QStringLiteral(" AND ") : QStringLiteral(" OR ");
    QString text;
    for (std::size_t i = 0; i < subpredicates_.size(); ++i) {
        if (i > 0)
            text += separator;
        text += wrappedFormat(*subpredicates_[i]);
    }
    return text;
}

bool KVNCompoundPredicate::isEqual(const KVNPredicate &other) const
{
    if (other.kind() != kind_)
        return false;
    const auto &theirs = static_cast<const KVNCompoundPredicate &>(other).subpredicates_;
    if (theirs.size() != subpredicates_.size())
        return false;
    for (std::size_t i = 0; i < subpredicates_.size(); ++i) {
        if (!subpredicates_[i]->isEqual(*theirs[i]))
            return false;
    }
    return true;
}

// MARK: - KVNExpression

KVNExpression KVNExpression::constant(KVNValue value)
{
    KVNExpression e;
    e.kind_ = Kind::Constant;
    e.value_ = std::move(value);
    return e;
}

std::optional<KVNExpression> KVNExpression::keyPath(const QStringList &components)
{
    if (components.isEmpty())
        return std::nullopt;
    for (const QString &key : components) {
        if (!isValidKey(key))
            return std::nullopt;
    }
    KVNExpression e;
    e.kind_ = Kind::KeyPath;
    e.keys_ = components;
    return e;
}

std::optional<KVNExpression> KVNExpression::keyPath(QStringView dottedPath)
{
    QStringList components;
    for (QStringView part : dottedPath.split(u'.'))
        components.append(part.toString());
    return keyPath(components);
}

KVNExpression KVNExpression::self()
{
    KVNExpression e;
    e.kind_ = Kind::Self;
    return e;
}

KVNExpression KVNExpression::aggregate(std::vector<KVNExpression> elements)
{
    KVNExpression e;
    e.kind_ = Kind::Aggregate;
    e.elements_ = std::move(elements);
    return e;
}

KVNValue KVNExpression::valueWithObject(const KVNKeyValueCoding &object) const
{
    switch (kind_) {
    case Kind::Constant:
        return value_;
    case Kind::Self:
        // Not owned: the value lives only while the caller's object does.
        return KVNValue::fromObject(std::shared_ptr<const KVNKeyValueCoding>(std::shared_ptr<void>(), &object));
    case Kind::KeyPath: {
        KVNValue value = object.valueForKey(keys_.front());
        for (qsizetype i = 1; i < keys_.size(); ++i) {
            if (value.type() != KVNValue::Type::Object)
                return KVNValue();
            const auto next = value.toObject(); // keeps the step alive while value is replaced
            value = next->valueForKey(keys_[i]);
        }
        return value;
    }
    case Kind::Aggregate:
        break;
    }
    return KVNValue();
}

QString KVNExpression::format() const
{
    switch (kind_) {
    case Kind::Constant:
        return formatValue(value_);
    case Kind::Self:
        return QStringLiteral("SELF");
    case Kind::KeyPath: {
        QString text;
        for (qsizetype i = 0; i < keys_.size(); ++i) {
            if (i > 0)
                text += QLatin1Char('.');
            if (isReservedWord(keys_[i]))
                text += QLatin1Char('#');
            text += keys_[i];
        }
        return text;
    }
    case Kind::Aggregate: {
        QString text = QStringLiteral("{");
        for (std::size_t i = 0; i < elements_.size(); ++i) {
            if (i > 0)
                text += QLatin1String(", ");
            text += elements_[i].format();
        }
        return text + QLatin1Char('}');
    }
    }
    return QString();
}

bool KVNExpression::isEqual(const KVNExpression &other) const
{
    if (kind_ != other.kind_)
        return false;
    switch (kind_) {
    case Kind::Constant:
        return valuesIdentical(value_, other.value_);
    case Kind::Self:
        return true;
    case Kind::KeyPath:
        return keys_ == other.keys_;
    case Kind::Aggregate:
        return std::equal(elements_.begin(), elements_.end(), other.elements_.begin(), other.elements_.end(),
                          [](const KVNExpression &a, const KVNExpression &b) { return a.isEqual(b); });
    }
    return false;
}

bool KVNExpression::isValidKey(QStringView key)
{
    if (key.isEmpty())
        return false;
    qsizetype i = 0;
    const char32_t first = codePointAt(key, i);
    if (!(first == U'_' || QChar::isLetter(first)))
        return false;
    while (i < key.size()) {
        const char32_t cp = codePointAt(key, i);
        if (!(cp == U'_' || cp == U'$' || QChar::isLetterOrNumber(cp) || QChar::isMark(cp)))
            return false;
    }
    return true;
}

bool KVNExpression::isReservedWord(QStringView word)
{
    static const char *const words[] = {
        "AND",     "OR",   "NOT",   "TRUEPREDICATE", "FALSEPREDICATE", "NIL",        "NULL",     "YES",
        "NO",      "TRUE", "FALSE", "SELF",          "LIKE",           "BEGINSWITH", "ENDSWITH", "CONTAINS",
        "MATCHES", "IN",   "ANY",   "ALL",           "SOME",           "NONE",       "BETWEEN",
    };
    if (word.size() < 2 || word.size() > 14)
        return false;
    for (const char *reserved : words) {
        if (word.compare(QLatin1String(reserved), Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QString KVNExpression::formatValue(const KVNValue &value)
{
    switch (value.type()) {
    case KVNValue::Type::Nil:
        return QStringLiteral("nil");
    case KVNValue::Type::Bool:
        return value.toBool() ? QStringLiteral("YES") : QStringLiteral("NO");
    case KVNValue::Type::Integer:
        return QString::number(value.toInteger());
    case KVNValue::Type::Double:
        return formatDouble(value.toDouble());
    case KVNValue::Type::String:
        return quotedString(value.toString());
    case KVNValue::Type::Date:
        return QStringLiteral("DATE(%1, %2)").arg(value.toDate().seconds).arg(value.toDate().nanoseconds);
    case KVNValue::Type::Object:
        return QStringLiteral("<object 0x%1>").arg(quintptr(value.toObject()->identity()), 0, 16);
    }
    return QString();
}

// MARK: - Null-safe helpers

bool KVNPredicateEvaluate(const KVNPredicatePtr &predicate, const KVNKeyValueCoding &object)
{
    return predicate && predicate->evaluateWithObject(object);
}

bool KVNPredicatesEqual(const KVNPredicatePtr &a, const KVNPredicatePtr &b)
{
    if (!a || !b)
        return !a && !b;
    return a == b || a->isEqual(*b);
}

QString KVNPredicateFormat(const KVNPredicatePtr &predicate)
{
    return predicate ? predicate->predicateFormat() : QString();
}

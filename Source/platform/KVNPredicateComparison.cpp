#include "KVNPredicate.h"

#include <QVarLengthArray>

#include <cmath>
#include <compare>
#include <limits>
#include <string_view>

// Comparisons: what runs once per row. Strings compared with options are
// folded code point by code point into a stack buffer; constants were folded
// when the predicate was made, so the common cases allocate nothing.

namespace {

using Operator = KVNComparisonPredicate::Operator;
using FoldBuffer = QVarLengthArray<char32_t, 256>;

// Marks in a LIKE pattern; above the Unicode range, so no text matches them.
constexpr char32_t likeAnyOne = 0x110000;
constexpr char32_t likeAnyRun = 0x110001;

bool isNumeric(KVNValue::Type type)
{
    return type == KVNValue::Type::Bool || type == KVNValue::Type::Integer || type == KVNValue::Type::Double;
}

bool isStringOperator(Operator op)
{
    return op == Operator::Like || op == Operator::BeginsWith || op == Operator::EndsWith || op == Operator::Contains ||
           op == Operator::Matches;
}

// MARK: Numbers

struct Number {
    bool isInteger;
    int64_t integer;
    double real;
};

Number numberOf(const KVNValue &value)
{
    switch (value.type()) {
    case KVNValue::Type::Bool:
        return {true, value.toBool() ? 1 : 0, 0};
    case KVNValue::Type::Integer:
        return {true, value.toInteger(), 0};
    default:
        return {false, 0, value.toDouble()};
    }
}

// Exact, also between a 64-bit integer and a double neither can hold.
std::partial_ordering compareIntegerToDouble(int64_t i, double d)
{
    if (std::isnan(d))
        return std::partial_ordering::unordered;
    constexpr double twoTo63 = 9223372036854775808.0;
    if (d >= twoTo63)
        return std::partial_ordering::less;
    if (d < -twoTo63)
        return std::partial_ordering::greater;
    const double whole = std::trunc(d);
    const auto wholeInteger = static_cast<int64_t>(whole);
    if (i != wholeInteger)
        return i <=> wholeInteger;
    return 0.0 <=> (d - whole);
}

std::partial_ordering compareNumbers(const KVNValue &a, const KVNValue &b)
{
    const Number x = numberOf(a);
    const Number y = numberOf(b);
    if (x.isInteger && y.isInteger)
        return x.integer <=> y.integer;
    if (!x.isInteger && !y.isInteger)
        return x.real <=> y.real;
    if (x.isInteger)
        return compareIntegerToDouble(x.integer, y.real);
    return 0 <=> compareIntegerToDouble(y.integer, x.real);
}

// MARK: Folding

inline char32_t foldCase(char32_t c)
{
    if (c < 0x80)
        return (c >= U'A' && c <= U'Z') ? c + 32 : c;
    return QChar::toCaseFolded(c);
}

template <typename Out> void appendWithoutDiacritics(char32_t c, bool caseInsensitive, Out &out)
{
    if (c >= 0xC0) {
        if (QChar::category(c) == QChar::Mark_NonSpacing)
            return;
        if (QChar::decompositionTag(c) == QChar::Canonical) {
            // Canonical decompositions are a few levels deep at most.
            const QString parts = QChar::decomposition(c);
            for (qsizetype i = 0; i < parts.size();) {
                char32_t part = parts[i].unicode();
                if (parts[i].isHighSurrogate() && i + 1 < parts.size()) {
                    part = QChar::surrogateToUcs4(parts[i], parts[i + 1]);
                    i += 2;
                } else {
                    ++i;
                }
                appendWithoutDiacritics(part, caseInsensitive, out);
            }
            return;
        }
    }
    out.push_back(caseInsensitive ? foldCase(c) : c);
}

// The code points of text as the options compare them.
template <typename Out> void foldText(QStringView text, unsigned options, Out &out)
{
    const bool caseInsensitive = options & KVNComparisonPredicate::CaseInsensitive;
    const bool diacriticInsensitive = options & KVNComparisonPredicate::DiacriticInsensitive;
    const qsizetype n = text.size();
    for (qsizetype i = 0; i < n; ++i) {
        char32_t c = text[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < n && text[i + 1].isLowSurrogate()) {
            c = QChar::surrogateToUcs4(char16_t(c), text[i + 1].unicode());
            ++i;
        }
        if (diacriticInsensitive && c >= 0x80)
            appendWithoutDiacritics(c, caseInsensitive, out);
        else
            out.push_back(caseInsensitive ? foldCase(c) : c);
    }
}

std::u32string foldedString(QStringView text, unsigned options)
{
    std::u32string out;
    out.reserve(text.size());
    foldText(text, options, out);
    return out;
}

// Backslash makes the next character literal; runs of '*' are one.
std::u32string likePattern(QStringView pattern, unsigned options)
{
    std::u32string out;
    const qsizetype n = pattern.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = pattern[i];
        if (c == u'*') {
            if (out.empty() || out.back() != likeAnyRun)
                out.push_back(likeAnyRun);
        } else if (c == u'?') {
            out.push_back(likeAnyOne);
        } else {
            if (c == u'\\' && i + 1 < n)
                ++i;
            qsizetype length = 1;
            if (pattern[i].isHighSurrogate() && i + 1 < n && pattern[i + 1].isLowSurrogate())
                length = 2;
            foldText(pattern.mid(i, length), options, out);
            i += length - 1;
        }
    }
    return out;
}

// Reads text a code point at a time, folded as the options say. Diacritic
// folding of a non-ASCII character can change the length, so that case
// reports itself instead and the caller folds the whole text first.
class FoldingReader {
public:
    FoldingReader(QStringView text, unsigned options)
        : text_(text), caseInsensitive_(options & KVNComparisonPredicate::CaseInsensitive),
          diacriticInsensitive_(options & KVNComparisonPredicate::DiacriticInsensitive)
    {}
    std::size_t size() const { return std::size_t(text_.size()); }
    bool needsFullFold() const { return needsFullFold_; }

    // The code point at i, advancing i past it.
    char32_t read(std::size_t &i)
    {
        char32_t c = text_[qsizetype(i)].unicode();
        ++i;
        if (c < 0x80)
            return caseInsensitive_ && c >= U'A' && c <= U'Z' ? c + 32 : c;
        if (QChar::isHighSurrogate(c) && i < size() && text_[qsizetype(i)].isLowSurrogate()) {
            c = QChar::surrogateToUcs4(char16_t(c), text_[qsizetype(i)].unicode());
            ++i;
        }
        if (diacriticInsensitive_)
            needsFullFold_ = true;
        return caseInsensitive_ ? foldCase(c) : c;
    }

private:
    QStringView text_;
    bool caseInsensitive_;
    bool diacriticInsensitive_;
    bool needsFullFold_ = false;
};

class ViewReader {
public:
    explicit ViewReader(std::u32string_view text) : text_(text) {}
    std::size_t size() const { return text_.size(); }
    bool needsFullFold() const { return false; }
    char32_t read(std::size_t &i) { return text_[i++]; }

private:
    std::u32string_view text_;
};

// Greedy with a single backtrack point: linear in practice, never recursive.
// Folding as it reads, a mismatch in the first characters costs nothing more.
template <typename Reader> bool likeMatches(Reader &text, std::u32string_view pattern)
{
    std::size_t t = 0, p = 0;
    std::size_t starP = std::u32string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == likeAnyRun) {
            starP = p++;
            starT = t;
            continue;
        }
        std::size_t next = t;
        const char32_t c = text.read(next);
        if (text.needsFullFold())
            return false;
        if (p < pattern.size() && (pattern[p] == likeAnyOne || pattern[p] == c)) {
            ++p;
            t = next;
        } else if (starP != std::u32string_view::npos) {
            p = starP + 1;
            text.read(starT);
            t = starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == likeAnyRun)
        ++p;
    return p == pattern.size();
}

bool likeMatches(const QString &text, std::u32string_view pattern, unsigned options)
{
    FoldingReader reader(text, options);
    const bool matched = likeMatches(reader, pattern);
    if (!reader.needsFullFold())
        return matched;
    FoldBuffer folded;
    foldText(text, options, folded);
    ViewReader view(std::u32string_view(folded.data(), std::size_t(folded.size())));
    return likeMatches(view, pattern);
}

std::optional<QRegularExpression> compileRegex(const QString &pattern, unsigned options, QString *errorMessage)
{
    QString source = pattern;
    if (options & KVNComparisonPredicate::DiacriticInsensitive) {
        const std::u32string stripped = foldedString(pattern, KVNComparisonPredicate::DiacriticInsensitive);
        source = QString::fromUcs4(stripped.data(), qsizetype(stripped.size()));
    }
    QRegularExpression::PatternOptions patternOptions = QRegularExpression::UseUnicodePropertiesOption;
    if (options & KVNComparisonPredicate::CaseInsensitive)
        patternOptions |= QRegularExpression::CaseInsensitiveOption;
    QRegularExpression regex(QRegularExpression::anchoredPattern(source), patternOptions);
    if (!regex.isValid()) {
        if (errorMessage)
            *errorMessage = QStringLiteral("invalid regular expression at offset %1: %2")
                                .arg(regex.patternErrorOffset())
                                .arg(regex.errorString());
        return std::nullopt;
    }
    // Compiled now, so that threads evaluating at once only read it.
    regex.optimize();
    return regex;
}

bool regexMatches(const QRegularExpression &regex, const QString &text, unsigned options)
{
    if (options & KVNComparisonPredicate::DiacriticInsensitive) {
        FoldBuffer stripped;
        foldText(text, KVNComparisonPredicate::DiacriticInsensitive, stripped);
        return regex.match(QString::fromUcs4(stripped.data(), stripped.size())).hasMatch();
    }
    return regex.match(text).hasMatch();
}

// One string side of a comparison, folded: the prepared constant, or the
// row's value folded into the stack buffer.
class FoldedSide {
public:
    FoldedSide(const QString &text, const std::optional<std::u32string> &prepared, unsigned options)
    {
        if (prepared) {
            view_ = *prepared;
        } else {
            foldText(text, options, buffer_);
            view_ = std::u32string_view(buffer_.data(), std::size_t(buffer_.size()));
        }
    }
    std::u32string_view view() const { return view_; }

private:
    FoldBuffer buffer_;
    std::u32string_view view_;
};

bool stringsEqual(const QString &a, const std::optional<std::u32string> &aFolded, const QString &b,
                  const std::optional<std::u32string> &bFolded, unsigned options)
{
    if (options == 0)
        return a == b;
    return FoldedSide(a, aFolded, options).view() == FoldedSide(b, bFolded, options).view();
}

// Equality as == sees it: nil only equals nil, numbers by value whatever
// their type, objects by identity, different kinds never.
bool valuesEqual(const KVNValue &a, const std::optional<std::u32string> &aFolded, const KVNValue &b,
                 const std::optional<std::u32string> &bFolded, unsigned options)
{
    const auto ta = a.type();
    const auto tb = b.type();
    if (isNumeric(ta) && isNumeric(tb))
        return compareNumbers(a, b) == 0;
    if (ta != tb)
        return false;
    switch (ta) {
    case KVNValue::Type::Nil:
        return true;
    case KVNValue::Type::String:
        return stringsEqual(a.toString(), aFolded, b.toString(), bFolded, options);
    case KVNValue::Type::Date:
        return a.toDate() == b.toDate();
    case KVNValue::Type::Object:
        return a.toObject()->identity() == b.toObject()->identity();
    default:
        return false;
    }
}

std::partial_ordering orderValues(const KVNValue &a, const std::optional<std::u32string> &aFolded, const KVNValue &b,
                                  const std::optional<std::u32string> &bFolded, unsigned options)
{
    const auto ta = a.type();
    const auto tb = b.type();
    if (isNumeric(ta) && isNumeric(tb))
        return compareNumbers(a, b);
    if (ta != tb)
        return std::partial_ordering::unordered;
    if (ta == KVNValue::Type::String) {
        if (options == 0)
            return a.toString().compare(b.toString()) <=> 0;
        return FoldedSide(a.toString(), aFolded, options)
                   .view()
                   .compare(FoldedSide(b.toString(), bFolded, options).view()) <=> 0;
    }
    if (ta == KVNValue::Type::Date)
        return a.toDate() <=> b.toDate();
    return std::partial_ordering::unordered;
}

std::optional<std::u32string> preparedFold(const KVNExpression &expression, unsigned options)
{
    if (options == 0 || expression.kind() != KVNExpression::Kind::Constant ||
        expression.constantValue().type() != KVNValue::Type::String)
        return std::nullopt;
    return foldedString(expression.constantValue().toString(), options);
}

bool hasNaN(const KVNExpression &expression)
{
    if (expression.kind() == KVNExpression::Kind::Aggregate) {
        for (const auto &element : expression.elements()) {
            if (hasNaN(element))
                return true;
        }
        return false;
    }
    return expression.kind() == KVNExpression::Kind::Constant &&
           expression.constantValue().type() == KVNValue::Type::Double &&
           std::isnan(expression.constantValue().toDouble());
}

KVNPredicatePtr refuse(QString *errorMessage, const QString &message)
{
    if (errorMessage)
        *errorMessage = message;
    return nullptr;
}

} // namespace

// MARK: - KVNExpression equality of constants

bool KVNExpression::valuesIdentical(const KVNValue &a, const KVNValue &b)
{
    if (isNumeric(a.type()) && isNumeric(b.type())) {
        const auto order = compareNumbers(a, b);
        if (order == std::partial_ordering::unordered) // NaN is itself, structurally
            return std::isnan(numberOf(a).real) && std::isnan(numberOf(b).real);
        return order == 0;
    }
    return valuesEqual(a, std::nullopt, b, std::nullopt, KVNComparisonPredicate::NoOptions);
}

// MARK: - KVNComparisonPredicate

KVNPredicatePtr KVNComparisonPredicate::make(KVNExpression left, Operator op, KVNExpression right, unsigned options,
                                             QString *errorMessage)
{
    if (options > (CaseInsensitive | DiacriticInsensitive))
        return refuse(errorMessage, QStringLiteral("unknown comparison options"));
    if (left.kind() == KVNExpression::Kind::Aggregate)
        return refuse(errorMessage, QStringLiteral("a list {…} can only stand on the right of IN"));
    if (right.kind() == KVNExpression::Kind::Aggregate) {
        if (op != Operator::In)
            return refuse(errorMessage, QStringLiteral("a list {…} can only stand on the right of IN"));
        for (const auto &element : right.elements()) {
            if (element.kind() != KVNExpression::Kind::Constant)
                return refuse(errorMessage, QStringLiteral("a list {…} holds constants only"));
        }
    }
    if (hasNaN(left) || hasNaN(right))
        return refuse(errorMessage, QStringLiteral("NaN equals nothing, not even itself; it cannot be compared with"));
    std::optional<QRegularExpression> regex;
    if (op == Operator::Matches && right.kind() == KVNExpression::Kind::Constant &&
        right.constantValue().type() == KVNValue::Type::String) {
        regex = compileRegex(right.constantValue().toString(), options, errorMessage);
        if (!regex)
            return nullptr;
    }
    auto predicate = std::shared_ptr<KVNComparisonPredicate>(
        new KVNComparisonPredicate(std::move(left), op, std::move(right), options));
    predicate->regex_ = std::move(regex);
    return predicate;
}

KVNComparisonPredicate::KVNComparisonPredicate(KVNExpression left, Operator op, KVNExpression right, unsigned options)
    : left_(std::move(left)), right_(std::move(right)), op_(op), options_(options)
{
    leftFolded_ = preparedFold(left_, options_);
    rightFolded_ = preparedFold(right_, options_);
    if (op_ == Operator::Like && right_.kind() == KVNExpression::Kind::Constant &&
        right_.constantValue().type() == KVNValue::Type::String)
        likePattern_ = likePattern(right_.constantValue().toString(), options_);
    if (right_.kind() == KVNExpression::Kind::Aggregate) {
        for (const auto &element : right_.elements())
            elementsFolded_.push_back(preparedFold(element, options_));
    }
}

bool KVNComparisonPredicate::evaluateWithObject(const KVNKeyValueCoding &object) const
{
    // Constants are read in place: copying them would touch shared reference
    // counts from every thread that evaluates.
    KVNValue leftHolder;
    const KVNValue &left = left_.kind() == KVNExpression::Kind::Constant ? left_.constantValue()
                                                                         : (leftHolder = left_.valueWithObject(object));
    if (right_.kind() == KVNExpression::Kind::Aggregate)
        return evaluateIn(left, nullptr, object);
    KVNValue rightHolder;
    const KVNValue &right = right_.kind() == KVNExpression::Kind::Constant
                                ? right_.constantValue()
                                : (rightHolder = right_.valueWithObject(object));

    switch (op_) {
    case Operator::Equal:
        return valuesEqual(left, leftFolded_, right, rightFolded_, options_);
    case Operator::NotEqual:
        return !valuesEqual(left, leftFolded_, right, rightFolded_, options_);
    case Operator::Less:
        return orderValues(left, leftFolded_, right, rightFolded_, options_) < 0;
    case Operator::LessOrEqual:
        return orderValues(left, leftFolded_, right, rightFolded_, options_) <= 0;
    case Operator::Greater:
        return orderValues(left, leftFolded_, right, rightFolded_, options_) > 0;
    case Operator::GreaterOrEqual:
        return orderValues(left, leftFolded_, right, rightFolded_, options_) >= 0;
    case Operator::In:
        return evaluateIn(left, &right, object);
    default:
        break;
    }

    if (!isStringOperator(op_) || left.type() != KVNValue::Type::String || right.type() != KVNValue::Type::String)
        return false;
    const QString &text = left.toString();
    const QString &pattern = right.toString();

    if (op_ == Operator::Matches) {
        if (regex_)
            return regexMatches(*regex_, text, options_);
        const auto regex = compileRegex(pattern, options_, nullptr);
        return regex && regexMatches(*regex, text, options_);
    }
    if (op_ == Operator::Like) {
        if (likePattern_)
            return likeMatches(text, *likePattern_, options_);
        return likeMatches(text, likePattern(pattern, options_), options_);
    }
    if (options_ == 0) {
        switch (op_) {
        case Operator::BeginsWith:
            return text.startsWith(pattern);
        case Operator::EndsWith:
            return text.endsWith(pattern);
        case Operator::Contains:
            return text.contains(pattern);
        default:
            return false;
        }
    }
    const FoldedSide textSide(text, leftFolded_, options_);
    const FoldedSide patternSide(pattern, rightFolded_, options_);
    switch (op_) {
    case Operator::BeginsWith:
        return textSide.view().starts_with(patternSide.view());
    case Operator::EndsWith:
        return textSide.view().ends_with(patternSide.view());
    case Operator::Contains:
        return textSide.view().find(patternSide.view()) != std::u32string_view::npos;
    default:
        return false;
    }
}

// "x IN {…}" is true when x equals an element; "x IN s" for strings when s
// contains x.
bool KVNComparisonPredicate::evaluateIn(const KVNValue &left, const KVNValue *right, const KVNKeyValueCoding &) const
{
    if (!right) {
        const auto &elements = right_.elements();
        for (std::size_t i = 0; i < elements.size(); ++i) {
            if (valuesEqual(left, leftFolded_, elements[i].constantValue(), elementsFolded_[i], options_))
                return true;
        }
        return false;
    }
    if (left.type() != KVNValue::Type::String || right->type() != KVNValue::Type::String)
        return false;
    if (options_ == 0)
        return right->toString().contains(left.toString());
    const FoldedSide needle(left.toString(), leftFolded_, options_);
    const FoldedSide haystack(right->toString(), rightFolded_, options_);
    return haystack.view().find(needle.view()) != std::u32string_view::npos;
}

QString KVNComparisonPredicate::operatorText(Operator op)
{
    switch (op) {
    case Operator::Equal:
        return QStringLiteral("==");
    case Operator::NotEqual:
        return QStringLiteral("!=");
    case Operator::Less:
        return QStringLiteral("<");
    case Operator::LessOrEqual:
        return QStringLiteral("<=");
    case Operator::Greater:
        return QStringLiteral(">");
    case Operator::GreaterOrEqual:
        return QStringLiteral(">=");
    case Operator::Like:
        return QStringLiteral("LIKE");
    case Operator::BeginsWith:
        return QStringLiteral("BEGINSWITH");
    case Operator::EndsWith:
        return QStringLiteral("ENDSWITH");
    case Operator::Contains:
        return QStringLiteral("CONTAINS");
    case Operator::Matches:
        return QStringLiteral("MATCHES");
    case Operator::In:
        return QStringLiteral("IN");
    }
    return QString();
}

QString KVNComparisonPredicate::predicateFormat() const
{
    QString text = left_.format() + QLatin1Char(' ') + operatorText(op_);
    if (options_ != 0) {
        text += QLatin1Char('[');
        if (options_ & CaseInsensitive)
            text += QLatin1Char('c');
        if (options_ & DiacriticInsensitive)
            text += QLatin1Char('d');
        text += QLatin1Char(']');
    }
    return text + QLatin1Char(' ') + right_.format();
}

bool KVNComparisonPredicate::isEqual(const KVNPredicate &other) const
{
    if (other.kind() != Kind::Comparison)
        return false;
    const auto &that = static_cast<const KVNComparisonPredicate &>(other);
    return op_ == that.op_ && options_ == that.options_ && left_.isEqual(that.left_) && right_.isEqual(that.right_);
}

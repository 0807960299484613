#pragma once

#include "KVNValue.h"

#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <string>
#include <vector>

class KVNPredicate;
using KVNPredicatePtr = std::shared_ptr<const KVNPredicate>;

// Where parsing stopped and why; position counts UTF-16 units from the start.
struct KVNPredicateError {
    QString message;
    int position = 0;
};

// A parse either gives a predicate or an error, never both.
struct KVNPredicateParseResult {
    KVNPredicatePtr predicate;
    std::optional<KVNPredicateError> error;
    bool ok() const { return predicate != nullptr; }
};

// An immutable predicate over key paths: comparisons, string operators with
// [c]/[d] options, NOT/AND/OR compounds, TRUEPREDICATE and FALSEPREDICATE.
// predicateFormat() renders text that parses back to an equal predicate.
//
// Grouping follows the text: "a OR b OR c" is one OR of three, "(a OR b) OR c"
// is an OR whose first subpredicate is an OR, and a parenthesised comparison is
// just the comparison. The compound factories keep that shape exact: an empty
// AND is TRUEPREDICATE, an empty OR is FALSEPREDICATE, a list of one is that
// one predicate, and null entries are left out (a missing filter adds no
// condition). Nesting deeper than maxNestingDepth() is refused by the parser.
class KVNPredicate {
public:
    virtual ~KVNPredicate() = default;

    // "%@" takes the next argument as a value (string, number, nil, object);
    // "%d" (and "%i", "%ld", "%lu", "%u", "%qu") the next as an integer; "%K"
    // the next string as a key path. "%%" inside a quoted string is one '%'.
    static KVNPredicateParseResult parse(const QString &format, const QList<KVNValue> &arguments = {});
    // Convenience: nullptr on malformed text.
    static KVNPredicatePtr predicateWithFormat(const QString &format, const QList<KVNValue> &arguments = {});

    static KVNPredicatePtr truePredicate();
    static KVNPredicatePtr falsePredicate();
    // A null subpredicate gives null: absent stays absent.
    static KVNPredicatePtr notPredicateWithSubpredicate(const KVNPredicatePtr &predicate);
    static KVNPredicatePtr andPredicateWithSubpredicates(const std::vector<KVNPredicatePtr> &predicates);
    static KVNPredicatePtr orPredicateWithSubpredicates(const std::vector<KVNPredicatePtr> &predicates);

    static constexpr int maxNestingDepth() { return 1000; }

    virtual bool evaluateWithObject(const KVNKeyValueCoding &object) const = 0;
    // Rows and nodes answer keys without being KVNKeyValueCoding themselves.
    template <typename T>
    requires(!std::is_base_of_v<KVNKeyValueCoding, T>) bool evaluateWithObject(const T &object) const
    {
        return evaluateWithObject(KVNKeyValueView<T>(object));
    }
    virtual QString predicateFormat() const = 0;
    // Structural equality: same tree, same operators, options and constants.
    // Numbers are equal by value whatever their type (YES equals 1).
    virtual bool isEqual(const KVNPredicate &other) const = 0;

    // Compound structure, for callers that walk a predicate (the session archive).
    enum class Kind { True, False, Comparison, Not, And, Or };
    virtual Kind kind() const = 0;
    virtual std::vector<KVNPredicatePtr> subpredicates() const { return {}; }
};

// One side of a comparison: a constant, a key path, SELF, or the constant list
// after IN.
class KVNExpression {
public:
    enum class Kind { Constant, KeyPath, Self, Aggregate };

    static KVNExpression constant(KVNValue value);
    // Each component must be an identifier (letters, digits, '_', '$', not
    // starting with a digit); reserved words are fine, they render with '#'.
    static std::optional<KVNExpression> keyPath(const QStringList &components);
    // "a.b.c" split on dots, with the same rule per component.
    static std::optional<KVNExpression> keyPath(QStringView dottedPath);
    static KVNExpression self();
    static KVNExpression aggregate(std::vector<KVNExpression> elements);

    Kind kind() const { return kind_; }
    const KVNValue &constantValue() const { return value_; }
    const QStringList &keyPathComponents() const { return keys_; }
    const std::vector<KVNExpression> &elements() const { return elements_; }

    // Walks the key path through Object values; anything that is not an
    // Object part-way gives nil. SELF gives the object itself, not owned.
    KVNValue valueWithObject(const KVNKeyValueCoding &object) const;
    // Object constants have no text form; they render as an unparseable
    // "<object 0x…>" so that such a predicate cannot be mistaken for another.
    QString format() const;
    bool isEqual(const KVNExpression &other) const;

    static bool isValidKey(QStringView key);
    static bool isReservedWord(QStringView word);
    // The text of one constant, as predicateFormat() writes it.
    static QString formatValue(const KVNValue &value);
    // Equality of constants as isEqual() sees it: numbers by value.
    static bool valuesIdentical(const KVNValue &a, const KVNValue &b);

private:
    KVNExpression() = default;
    Kind kind_ = Kind::Constant;
    KVNValue value_;
    QStringList keys_;
    std::vector<KVNExpression> elements_;
};

// left OP[options] right. Constants are folded, LIKE patterns and regular
// expressions compiled once when the predicate is made, so that evaluating a
// row allocates nothing in the common cases.
class KVNComparisonPredicate final : public KVNPredicate {
public:
    enum class Operator {
        Equal,
        NotEqual,
        Less,
        LessOrEqual,
        Greater,
        GreaterOrEqual,
        Like,
        BeginsWith,
        EndsWith,
        Contains,
        Matches,
        In,
    };
    enum Option : unsigned { NoOptions = 0, CaseInsensitive = 1, DiacriticInsensitive = 2 };

    // Null, with the reason in errorMessage, for a regular expression that
    // does not compile, a NaN constant, or a list anywhere but after IN.
    static KVNPredicatePtr make(KVNExpression left, Operator op, KVNExpression right, unsigned options = NoOptions,
                                QString *errorMessage = nullptr);

    const KVNExpression &leftExpression() const { return left_; }
    const KVNExpression &rightExpression() const { return right_; }
    Operator predicateOperator() const { return op_; }
    unsigned options() const { return options_; }
    static QString operatorText(Operator op);

    bool evaluateWithObject(const KVNKeyValueCoding &object) const override;
    QString predicateFormat() const override;
    bool isEqual(const KVNPredicate &other) const override;
    Kind kind() const override { return Kind::Comparison; }

private:
    KVNComparisonPredicate(KVNExpression left, Operator op, KVNExpression right, unsigned options);
    bool evaluateIn(const KVNValue &left, const KVNValue *right, const KVNKeyValueCoding &object) const;

    KVNExpression left_;
    KVNExpression right_;
    Operator op_;
    unsigned options_;

    // Prepared at construction, read-only afterwards.
    std::optional<std::u32string> leftFolded_; // a constant string side, folded per options_
    std::optional<std::u32string> rightFolded_;
    std::optional<std::u32string> likePattern_;                 // constant LIKE pattern, folded, wildcards marked
    std::optional<QRegularExpression> regex_;                   // constant MATCHES pattern, anchored
    std::vector<std::optional<std::u32string>> elementsFolded_; // IN {…}
};

// AND, OR (two or more subpredicates when made by the factories) and NOT (one).
class KVNCompoundPredicate final : public KVNPredicate {
    struct Key {};
    friend class KVNPredicate;

public:
    // Only the factories of KVNPredicate make these, so the shape holds.
    KVNCompoundPredicate(Key, Kind kind, std::vector<KVNPredicatePtr> subpredicates);

    bool evaluateWithObject(const KVNKeyValueCoding &object) const override;
    QString predicateFormat() const override;
    bool isEqual(const KVNPredicate &other) const override;
    Kind kind() const override { return kind_; }
    std::vector<KVNPredicatePtr> subpredicates() const override { return subpredicates_; }
    const std::vector<KVNPredicatePtr> &subpredicateList() const { return subpredicates_; }

private:
    Kind kind_;
    std::vector<KVNPredicatePtr> subpredicates_;
};

// Null-safe helpers: an absent predicate matches nothing and renders as empty text.
bool KVNPredicateEvaluate(const KVNPredicatePtr &predicate, const KVNKeyValueCoding &object);
template <typename T>
requires(!std::is_base_of_v<KVNKeyValueCoding, T>) bool KVNPredicateEvaluate(const KVNPredicatePtr &predicate,
                                                                             const T &object)
{
    return KVNPredicateEvaluate(predicate, KVNKeyValueView<T>(object));
}
bool KVNPredicatesEqual(const KVNPredicatePtr &a, const KVNPredicatePtr &b);
QString KVNPredicateFormat(const KVNPredicatePtr &predicate);

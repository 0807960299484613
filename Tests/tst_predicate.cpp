// ctest-label: concurrency
#include "KVNPredicate.h"
#include "KVNTestObject.h"

#include <QTest>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>

Q_DECLARE_METATYPE(KVNValue)

namespace {

using Operator = KVNComparisonPredicate::Operator;
using Values = QList<KVNValue>;

const auto S = [](const QString &v) { return KVNValue::fromString(v); };
const auto I = [](int64_t v) { return KVNValue::fromInteger(v); };
const auto D = [](double v) { return KVNValue::fromDouble(v); };
const auto B = [](bool v) { return KVNValue::fromBool(v); };

const std::shared_ptr<KVNTestObject> inner = KVNTestObject::make({{"name", S("inner")}, {"diffResult", I(5)}});

// One row with a value of every kind; rightNode is absent and answers nil.
const KVNTestObject sampleRow({{"name", S("Readme.TXT")},
                               {"diffResult", I(3)},
                               {"size", D(1.5)},
                               {"big", I(std::numeric_limits<int64_t>::max())},
                               {"isDirectory", B(true)},
                               {"isLink", B(false)},
                               {"modified", KVNValue::fromDate({1700000000, 500})},
                               {"leftNode", KVNValue::fromObject(inner)},
                               {"quote", S("say \"hi\"")},
                               {"percent", S("50%")},
                               {"astral", S(QStringLiteral("x\U0001D400y"))},
                               {"empty", S("")},
                               {"eclair", S("Éclair")},
                               {"lower", S("éclair")},
                               {"deseret", S("\xF0\x90\x90\x80")}});

KVNPredicatePtr parseOrFail(const QString &format, const Values &arguments = {})
{
    const auto result = KVNPredicate::parse(format, arguments);
    if (!result.ok())
        qWarning().noquote() << "parse failed:" << format << "->" << result.error->message;
    return result.predicate;
}

// render → parse → render must give the same text and an equal predicate.
QString roundTripFailure(const KVNPredicatePtr &predicate)
{
    const QString text = predicate->predicateFormat();
    const auto back = KVNPredicate::parse(text);
    if (!back.ok())
        return "'" + text + "' does not parse: " + back.error->message;
    const QString again = back.predicate->predicateFormat();
    if (!back.predicate->isEqual(*predicate) || !predicate->isEqual(*back.predicate) || again != text)
        return "'" + text + "' comes back as '" + again + "'";
    return QString();
}

#define VERIFY_ROUND_TRIP(predicate)                                                                                   \
    do {                                                                                                               \
        const QString failure = roundTripFailure(predicate);                                                           \
        QVERIFY2(failure.isEmpty(), qPrintable(failure.left(300)));                                                    \
    } while (0)

// Random predicates from the factories, with reserved words, non-ASCII and
// astral letters in key paths and every awkward character in constants.
class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}
    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    template <typename T, std::size_t N> const T &pick(const T (&pool)[N]) { return pool[below(int(N))]; }

    KVNExpression keyPath()
    {
        static const char *const keys[] = {"name", "_x1",  "a$b",   "like", "AND",          "self",
                                           "In",   "date", "größe", "名前", "e\xCC\x81tat", "\U0001D400bc"};
        QStringList components{QString::fromUtf8(pick(keys))};
        while (below(4) == 0)
            components << QString::fromUtf8(pick(keys));
        return *KVNExpression::keyPath(components);
    }

    KVNExpression constant()
    {
        static const char16_t pool[] = {u'a', u' ', u'"', u'\'', u'\\', u'%', u'*',   u'?',   u'\n',  u'\t',
                                        0x01, 0x7F, 0x85, u'É',  0x301, u'.', 0x2028, 0xD800, 0xDC00, u'名'};
        static const double reals[] = {0.1, -0.0, 1e300, 5e-324, std::numeric_limits<double>::infinity(), 1e21};
        // Any bit pattern too; NaN is refused by the factory and drawn again.
        const uint64_t bits = (uint64_t(rng_()) << 32) | rng_();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        QString text;
        for (int i = below(8); i > 0; --i)
            text += below(10) == 0 ? QStringLiteral("\U0001D400") : QString(QChar(pick(pool)));
        const KVNValue values[] = {KVNValue(),
                                   B(below(2) == 1),
                                   I(std::numeric_limits<int64_t>::min()),
                                   I(int64_t(rng_()) - int64_t(rng_()) * 4096),
                                   D(pick(reals)),
                                   D(d),
                                   KVNValue::fromDate({int64_t(rng_()) - int64_t(rng_()), uint32_t(rng_())}),
                                   S(text),
                                   S(text)};
        return KVNExpression::constant(pick(values));
    }

    KVNPredicatePtr predicate(int depth)
    {
        const int choice = depth >= 4 ? 0 : below(10);
        if (choice == 4)
            return below(2) ? KVNPredicate::truePredicate() : KVNPredicate::falsePredicate();
        if (choice == 5)
            return KVNPredicate::notPredicateWithSubpredicate(predicate(depth + 1));
        if (choice > 5) {
            std::vector<KVNPredicatePtr> subs;
            for (int i = below(5); i > 0; --i)
                subs.push_back(below(12) == 0 ? nullptr : predicate(depth + 1));
            return choice % 2 ? KVNPredicate::andPredicateWithSubpredicates(subs)
                              : KVNPredicate::orPredicateWithSubpredicates(subs);
        }
        while (true) {
            const auto op = Operator(below(int(Operator::In) + 1));
            const KVNExpression left = below(10) == 0 ? KVNExpression::self() : below(9) == 0 ? constant() : keyPath();
            KVNExpression right = below(5) == 0 ? keyPath() : constant();
            if (op == Operator::In && below(2) == 0) {
                std::vector<KVNExpression> elements;
                for (int i = below(4); i > 0; --i)
                    elements.push_back(constant());
                right = KVNExpression::aggregate(std::move(elements));
            }
            if (auto predicate = KVNComparisonPredicate::make(left, op, right, unsigned(below(4))))
                return predicate;
        }
    }

    // The text with pieces cut, doubled, or replaced by characters the grammar cares about.
    QString damage(QString text)
    {
        static const QString tricky = QStringLiteral("()[]{}\"'\\%@Kd#!&|=<>.,0x1e \u00E9") + QChar(0xD800);
        for (int i = below(2) + 1; i > 0 && !text.isEmpty(); --i) {
            const int at = below(int(text.size())), how = below(3);
            if (how == 0)
                text.remove(at, 1 + below(3));
            else if (how == 1)
                text.insert(at, text.mid(at, 1 + below(6)));
            else
                text[at] = tricky[below(int(tricky.size()))];
        }
        return text;
    }

private:
    std::mt19937 rng_;
};

} // namespace

class TestPredicate : public QObject {
    Q_OBJECT

private slots:
    void comparisons_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<Values>("arguments");
        QTest::addColumn<bool>("expected");
        const auto row = [](const char *format, bool expected, const Values &arguments = {}) {
            QTest::newRow(format) << QString::fromUtf8(format) << arguments << expected;
        };
        // Numbers: integers, reals and booleans compare by value.
        row("diffResult = 3 AND diffResult == 3.0 AND diffResult == 0x3 AND diffResult <> 4", true);
        row("diffResult != 3 OR diffResult =< 2 OR diffResult => 4", false);
        row("-1 < diffResult AND diffResult <= 3 AND diffResult >= 3 AND size > -1.5e0 AND size < 2", true);
        row("big == 9223372036854775807 AND big < 9223372036854775808", true); // exact: the double 2^63 is larger
        row("isDirectory == yes AND isDirectory == TRUE AND isDirectory == 1 AND isDirectory > 0", true);
        row("isLink == NO AND isLink == false AND isLink == 0", true);
        row("diffResult == \"3\" OR name == 3", false);
        // nil: equal only to nil, never ordered.
        row("rightNode == nil AND rightNode == NULL AND leftNode != nil", true);
        row("rightNode != nil OR rightNode < 1 OR rightNode >= nil OR rightNode == 0", false);
        // Strings.
        row("name == 'Readme.TXT' AND name < \"S\" AND name > \"Readme\"", true);
        row("quote == \"say \\\"hi\\\"\" AND quote == 'say \"hi\"' AND percent == \"50%%\" AND percent == \"50%\"",
            true);
        row("astral == \"x\\ud835\\udc00y\" AND astral LIKE \"x?y\"", true); // '?' is one character, also astral
        row("name BEGINSWITH \"Read\" AND name ENDSWITH \".TXT\" AND name CONTAINS \"me.T\"", true);
        row("name MATCHES \"R.*T\" AND name LIKE \"*.TXT\" AND empty LIKE \"*\"", true);
        row("name MATCHES \"eadme\"", false); // anchored at both ends
        // String operators on anything but two strings are false.
        row("diffResult BEGINSWITH \"3\" OR rightNode CONTAINS \"a\" OR name LIKE nil OR diffResult MATCHES \".*\"",
            false);
        // Case and diacritics, also outside the BMP and between two key paths.
        row("eclair ==[cd] \"ECLAIR\" AND eclair ==[d] \"Eclair\" AND eclair ==[c] \"éCLAIR\" AND eclair ==[c] lower",
            true);
        row("eclair ==[d] \"eclair\" OR eclair ==[c] \"eclair\" OR eclair !=[cd] \"eclair\" OR eclair == lower", false);
        row("eclair BEGINSWITH[d] \"Ec\" AND eclair BEGINSWITH[c] \"éC\" AND eclair ENDSWITH[c] \"LAIR\"", true);
        row("eclair CONTAINS[cd] \"ECL\" AND eclair MATCHES[cd] \"ecl.*\" AND \"Ecla\" IN[d] eclair", true);
        row("eclair CONTAINS \"ecl\" OR eclair MATCHES \"ecl.*\" OR name > \"apple\"", false);
        row("deseret ==[c] \"\\ud801\\udc28\" AND name >[c] \"apple\"", true);
        // Key paths step through objects; anything else part-way gives nil.
        row("leftNode.name == \"inner\" AND leftNode.diffResult == 5 AND leftNode.missing == nil", true);
        row("rightNode.name == nil AND name.length == nil AND #like == nil", true);
        // Dates by value.
        row("modified == DATE(1700000000, 500) AND modified > DATE(1699999999, 999999999)", true);
        row("modified < DATE(1700000000, 500) OR modified == 1700000000", false);
        row("diffResult IN {1, 2, 3} AND \"me.T\" IN name AND name IN[c] {\"x\", \"readme.txt\"}", true);
        row("diffResult IN {1, 2} OR diffResult IN {}", false);
        // Keywords in any case, constant predicates, AND binding tighter than OR.
        row("falsepredicate OR diffResult == 3 && !(size > 1)", false);
        row("diffResult == 4 AND size > 1 OR isDirectory == YES", true);
        row("diffResult == 4 AND (size > 1 OR isDirectory == YES)", false);
        // Arguments; a quoted %@ is text.
        row("name == %@ AND rightNode == %@ AND isDirectory == %@ AND size == %@ AND modified == %@", true,
            {S("Readme.TXT"), KVNValue(), B(true), D(1.5), KVNValue::fromDate({1700000000, 500})});
        row("diffResult == %d AND diffResult == %i AND diffResult == %u AND diffResult == %ld AND "
            "diffResult == %lu AND diffResult == %qu AND diffResult == %lld AND diffResult == %d",
            true, {I(3), I(3), I(3), I(3), I(3), I(3), I(3), D(3.0)});
        row("diffResult == %d", false, {B(true)});
        row("%K == %@ AND %K.name == %@ AND %K == nil", true,
            {S("leftNode.name"), S("inner"), S("leftNode"), S("inner"), S("like")});
        row("name == \"%@\"", false);
    }
    void comparisons()
    {
        QFETCH(QString, format);
        QFETCH(Values, arguments);
        QFETCH(bool, expected);
        const auto predicate = parseOrFail(format, arguments);
        QVERIFY(predicate);
        QCOMPARE(predicate->evaluateWithObject(sampleRow), expected);
        VERIFY_ROUND_TRIP(predicate);
        // The rendered text means the same on the row.
        QCOMPARE(KVNPredicate::predicateWithFormat(predicate->predicateFormat())->evaluateWithObject(sampleRow),
                 expected);
    }

    void objectsCompareByIdentity()
    {
        const auto twin = KVNTestObject::make({{"name", S("inner")}, {"diffResult", I(5)}});
        const auto same = parseOrFail("leftNode == %@", {KVNValue::fromObject(inner)});
        const auto lookalike = parseOrFail("leftNode == %@", {KVNValue::fromObject(twin)});
        QVERIFY(same->evaluateWithObject(sampleRow) && !lookalike->evaluateWithObject(sampleRow));
        QVERIFY(!same->isEqual(*lookalike));
        // SELF is the evaluated object itself.
        QVERIFY(parseOrFail("SELF == %@", {KVNValue::fromObject(inner)})->evaluateWithObject(*inner));
        // Objects have no text form: the rendering must not parse as something else.
        QVERIFY(!KVNPredicate::parse(same->predicateFormat()).ok());
    }

    // A compound reads a key once however many of its parts test it, and
    // still answers every key, SELF and keys too long to remember rightly.
    void compoundsReadARepeatedKeyOnce()
    {
        struct Counting final : KVNTestObject {
            using KVNTestObject::KVNTestObject;
            KVNValue valueForKey(QStringView key) const override
            {
                ++reads;
                return KVNTestObject::valueForKey(key);
            }
            mutable int reads = 0;
        };
        const QString longKey(60, QLatin1Char('k'));
        auto object = std::make_shared<Counting>(
            KVNTestObject::Entries{{"name", S("Makefile")}, {"size", I(4)}, {longKey, I(7)}});
        const auto reads = [&](const QString &format, const Values &arguments = {}) {
            object->reads = 0;
            const bool result = parseOrFail(format, arguments)->evaluateWithObject(*object);
            return std::make_pair(result, object->reads);
        };
        QCOMPARE(reads(R"(name LIKE[c] "*.o" OR name LIKE[c] ".git" OR name LIKE[c] "makefile")"),
                 std::make_pair(true, 1));
        QCOMPARE(reads(R"(name == "x" OR name == "y" OR name == "z")"), std::make_pair(false, 1));
        QCOMPARE(reads(R"(name == "Makefile" AND size == 4 AND name != "x" AND size < 5)").first, true);
        QCOMPARE(reads(R"(name == "Makefile" AND (size == 3 OR size == 4) AND NOT name == "y")").first, true);
        QCOMPARE(reads("SELF == %@ AND name == \"Makefile\"", {KVNValue::fromObject(object)}).first, true);
        QCOMPARE(reads(longKey + " == 6 OR " + longKey + " == 7"), std::make_pair(true, 2));
    }

    void likeWildcards()
    {
        const unsigned c = KVNComparisonPredicate::CaseInsensitive, d = KVNComparisonPredicate::DiacriticInsensitive;
        // '*' and '?' match whole strings; a backslash makes the next character literal.
        const std::tuple<const char *, const char *, unsigned, bool> cases[] = {
            {"*.txt", "a.txt.bak", 0, false},
            {"a*b*c", "aXXbYY", 0, false},
            {"**a**", "xxa", 0, true},
            {"a\\*", "a*", 0, true},
            {"a\\\\b", "a\\b", 0, true},
            {"\\", "\\", 0, true}, // a trailing backslash stands for itself
            {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 0, false}, // backtracking
            {"é?", "e\u0301x", d, true},
            {"*CAFE*", "Un Café noir", c | d, true},
            {"*CAFE*", "Un Café noir", c, false}};
        const auto name = *KVNExpression::keyPath(u"name");
        for (const auto &[pattern, text, options, expected] : cases) {
            const KVNTestObject object({{"name", S(text)}, {"pattern", S(pattern)}});
            // A constant pattern (compiled once) and one read from the row must agree.
            const auto constant =
                KVNComparisonPredicate::make(name, Operator::Like, KVNExpression::constant(S(pattern)), options);
            const auto fromRow =
                KVNComparisonPredicate::make(name, Operator::Like, *KVNExpression::keyPath(u"pattern"), options);
            QVERIFY2(constant->evaluateWithObject(object) == expected, pattern);
            QVERIFY2(fromRow->evaluateWithObject(object) == expected, pattern);
            VERIFY_ROUND_TRIP(constant);
        }
    }

    void structureAndFactories()
    {
        const auto a = parseOrFail("a == 1"), b = parseOrFail("b == 2"), c = parseOrFail("c == 3");
        const auto AND = &KVNPredicate::andPredicateWithSubpredicates;
        const auto OR = &KVNPredicate::orPredicateWithSubpredicates;
        const auto NOT = &KVNPredicate::notPredicateWithSubpredicate;
        // Grouping follows the text.
        const std::pair<const char *, KVNPredicatePtr> cases[] = {
            {"a == 1 OR b == 2 AND c == 3", OR({a, AND({b, c})})},
            {"NOT a == 1 AND b == 2 OR c == 3", OR({AND({NOT(a), b}), c})},
            {"(a == 1 AND b == 2) AND c == 3", AND({AND({a, b}), c})},
            {"((a == 1))", a},
            {"!(a == 1 || b == 2) && c == 3", AND({NOT(OR({a, b})), c})},
            {"NOT NOT a == 1", NOT(NOT(a))},
            {"a == 1 && b == 2 AND c == 3", AND({a, b, c})},
        };
        for (const auto &[text, expected] : cases) {
            const auto parsed = parseOrFail(QString::fromUtf8(text));
            QVERIFY2(parsed && parsed->isEqual(*expected), text);
            VERIFY_ROUND_TRIP(parsed);
        }
        QCOMPARE(NOT(NOT(a))->predicateFormat(), QStringLiteral("NOT (NOT a == 1)"));
        // The factories keep the shape exact and leave out what is absent.
        QCOMPARE(AND({})->kind(), KVNPredicate::Kind::True);
        QCOMPARE(OR({})->kind(), KVNPredicate::Kind::False);
        QCOMPARE(OR({nullptr, a, nullptr}), a);
        QCOMPARE(NOT(nullptr), KVNPredicatePtr());
        QCOMPARE(AND({a, nullptr, b})->subpredicates(), (std::vector<KVNPredicatePtr>{a, b}));
        QVERIFY(!AND({a, b})->isEqual(*AND({b, a})));
        QVERIFY(KVNPredicatesEqual(parseOrFail("isDirectory == YES"), parseOrFail("isDirectory == 1.0")));
        QVERIFY(!KVNPredicatesEqual(parseOrFail("name == \"a\""), parseOrFail("name ==[c] \"a\"")));
        // The factory refuses what it could not render or evaluate sensibly.
        const auto key = *KVNExpression::keyPath(u"n");
        QString message;
        QVERIFY(!KVNComparisonPredicate::make(key, Operator::Matches, KVNExpression::constant(S("(")), 0, &message));
        QVERIFY(message.contains("regular expression"));
        QVERIFY(!KVNComparisonPredicate::make(key, Operator::Equal, KVNExpression::constant(D(std::nan(""))), 0));
        QVERIFY(!KVNComparisonPredicate::make(key, Operator::Equal, KVNExpression::aggregate({}), 0));
        for (const char16_t *bad : {u"a b", u"a..b", u"1a"})
            QVERIFY(!KVNExpression::keyPath(QStringView(bad)));
    }

    void systemTextsRoundTrip()
    {
        // The exclusion as the system builds it: one format per name, each added
        // name wrapping the whole previous predicate.
        const auto nameLike = [](const char *name) { return parseOrFail("spotlightItemFSName LIKE[c] %@", {S(name)}); };
        const auto exclusion = KVNPredicate::orPredicateWithSubpredicates(
            {nameLike(".DS_Store"), nameLike("CVS"), nameLike(".svn"), nameLike(".git"), nameLike(".hg")});
        const QString exclusionText = exclusion->predicateFormat();
        QCOMPARE(exclusionText, "spotlightItemFSName LIKE[c] \".DS_Store\" OR spotlightItemFSName LIKE[c] \"CVS\" OR "
                                "spotlightItemFSName LIKE[c] \".svn\" OR spotlightItemFSName LIKE[c] \".git\" OR "
                                "spotlightItemFSName LIKE[c] \".hg\"");
        KVNPredicatePtr grown = exclusion;
        for (const char *name : {"*.o", "build"}) {
            const QString before = grown->predicateFormat();
            grown = KVNPredicate::orPredicateWithSubpredicates({grown, nameLike(name)});
            QCOMPARE(grown->predicateFormat(), "(" + before + ") OR spotlightItemFSName LIKE[c] \"" + name + "\"");
            VERIFY_ROUND_TRIP(grown);
        }
        // A filter, and the table's predicate that joins the parts.
        const auto table = KVNPredicate::andPredicateWithSubpredicates(
            {parseOrFail("depthHint == 1"), KVNPredicate::notPredicateWithSubpredicate(exclusion),
             parseOrFail("(diffResult == %d OR diffResult == %d)", {I(2), I(5)})});
        QCOMPARE(table->predicateFormat(),
                 "depthHint == 1 AND (NOT (" + exclusionText + ")) AND (diffResult == 2 OR diffResult == 5)");
        VERIFY_ROUND_TRIP(table);
    }

    // Random predicates round-trip; their texts, damaged, parse to sound
    // predicates or fail with a reason and a position inside the text.
    void randomPredicatesRoundTrip()
    {
        Generator generator(20240611);
        const Values arguments = {S("a"), S("b.c"), I(1), KVNValue(), B(true), D(0.5), S("("), S("a b")};
        int parsed = 0;
        for (int i = 0; i < 10000; ++i) {
            const auto predicate = generator.predicate(0);
            VERIFY_ROUND_TRIP(predicate);
            QCOMPARE(KVNPredicate::predicateWithFormat(predicate->predicateFormat())->evaluateWithObject(sampleRow),
                     predicate->evaluateWithObject(sampleRow));
            const QString text = generator.damage(predicate->predicateFormat());
            const auto result = KVNPredicate::parse(text, arguments.mid(generator.below(8), generator.below(4)));
            QVERIFY(result.ok() != result.error.has_value());
            if (result.ok()) {
                ++parsed;
                result.predicate->evaluateWithObject(sampleRow);
                VERIFY_ROUND_TRIP(result.predicate);
            } else {
                QVERIFY(!result.error->message.isEmpty());
                QVERIFY2(result.error->position >= 0 && result.error->position <= text.size(), qPrintable(text));
            }
        }
        // The damage reaches past the lexer often enough to mean something.
        QVERIFY(parsed > 300);
    }

    void malformedText_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<Values>("arguments");
        QTest::addColumn<int>("position");
        QTest::addColumn<QString>("message");
        const auto row = [](const QString &format, const Values &arguments, int position, const char *message) {
            QTest::newRow(qPrintable(format)) << format << arguments << position << QString::fromUtf8(message);
        };
        row("name == 'abc\\", {}, 8, "unterminated");
        row("name == \"a\\u12\"", {}, 10, "four hexadecimal");
        row("name FOO 1", {}, 5, "unknown operator");
        row("name === 1", {}, 7, "expected a value");
        row("(a == 1", {}, 7, "expected ')'");
        row("a == %@ OR b == %d", {S("x")}, 16, "too few arguments");
        row("a MATCHES[c] %@", {S("[")}, 13, "regular expression");
        row("a LIKE[x] \"b\"", {}, 7, "unknown comparison option");
        row("like == 1", {}, 0, "reserved word");
        row("a == 1 & b == 2", {}, 7, "'&&'");
        row("a == 12abc", {}, 5, "malformed number");
        row("a == {1, 2}", {}, 5, "IN");
        row("a IN {1, b}", {}, 9, "constants only");
        row("%K == 1", {S("a b")}, 0, "not a key path");
        row("a == %d", {S("x")}, 5, "not an integer");
        row("a == %s", {S("x")}, 5, "unknown format specifier");
        row("a == 1 AND", {}, 10, "expected a predicate");
        row("a == DATE(1)", {}, 10, "DATE(");
        row(QStringLiteral("\U0001D400 == \"x"), {}, 6, "unterminated"); // positions count UTF-16 units
        row("a == 1 ; b", {}, 7, "unexpected character");
    }
    void malformedText()
    {
        QFETCH(QString, format);
        QFETCH(Values, arguments);
        QFETCH(int, position);
        QFETCH(QString, message);
        const auto result = KVNPredicate::parse(format, arguments);
        QVERIFY(!result.ok() && result.error);
        QVERIFY2(result.error->message.contains(message, Qt::CaseInsensitive), qPrintable(result.error->message));
        QCOMPARE(result.error->position, position);
        QCOMPARE(KVNPredicate::predicateWithFormat(format, arguments), KVNPredicatePtr());
    }

    void deepNestingIsBounded()
    {
        const int limit = KVNPredicate::maxNestingDepth();
        const auto nested = [](int depth) { return QString(depth, u'(') + "a == 1" + QString(depth, u')'); };
        QVERIFY(KVNPredicate::parse(nested(limit)).ok());
        const auto tooDeep = KVNPredicate::parse(nested(100000));
        QVERIFY(!tooDeep.ok() && tooDeep.error->message.contains("nesting"));
        QCOMPARE(tooDeep.error->position, limit);
        const auto manyNots = KVNPredicate::parse(QStringLiteral("NOT ").repeated(100000) + "a == 1");
        QVERIFY(!manyNots.ok());
        QCOMPARE(manyNots.error->position, 4 * limit);
        for (const QString &text :
             {QString(100000, u'('), QString(100000, u'!') + "a == 1", QStringLiteral("(!").repeated(50000) + "a == 1"})
            QVERIFY(!KVNPredicate::parse(text).ok());
        // A factory-built tree at the limit round-trips; a NOT around parentheses
        // counts twice, so half the limit in levels stays inside it.
        KVNPredicatePtr deep = parseOrFail("a == 1");
        for (int i = 1; i < limit / 2; ++i)
            deep = i % 3 == 0 ? KVNPredicate::notPredicateWithSubpredicate(deep)
                              : KVNPredicate::orPredicateWithSubpredicates({deep, parseOrFail("b == 2")});
        VERIFY_ROUND_TRIP(deep);
        // Long flat chains are not nesting.
        QStringList terms;
        for (int i = 0; i < 20000; ++i)
            terms << QStringLiteral("diffResult == %1").arg(i);
        const auto chain = parseOrFail(terms.join(" OR "));
        QCOMPARE(chain->subpredicates().size(), std::size_t(20000));
        QVERIFY(chain->evaluateWithObject(sampleRow));
    }

    // Compiled patterns and folded constants are shared by every thread.
    void concurrentEvaluation()
    {
        std::vector<KVNPredicatePtr> predicates;
        for (const char *format :
             {R"(name LIKE[c] ".DS_Store" OR name LIKE[cd] "*.TXT")", R"x(name MATCHES[c] "file_[0-9]+\\.(txt|dat)")x",
              R"(name BEGINSWITH[cd] "FILÉ" AND diffResult IN {1, 3})",
              R"(name CONTAINS "_1" OR name ==[c] "FILE_7.DAT" OR size >= 100.5)"})
            predicates.push_back(parseOrFail(QString::fromUtf8(format)));
        std::vector<std::shared_ptr<KVNTestObject>> rows;
        std::vector<char> expected;
        for (int i = 0; i < 500; ++i) {
            const QString name =
                QStringLiteral("%1_%2.%3").arg(i % 2 ? "file" : "Filé").arg(i).arg(i % 3 ? "txt" : "dat");
            rows.push_back(KVNTestObject::make({{"name", S(name)}, {"diffResult", I(i % 5)}, {"size", D(i * 0.75)}}));
            for (const auto &predicate : predicates)
                expected.push_back(predicate->evaluateWithObject(*rows.back()));
        }
        // Both outcomes are common, so a wrong answer shows.
        QVERIFY(std::count(expected.begin(), expected.end(), 1) > 100);
        QVERIFY(std::count(expected.begin(), expected.end(), 0) > 100);
        std::atomic<int> mismatches{0};
        std::vector<std::thread> threads;
        for (std::size_t t = 0; t < 8; ++t)
            threads.emplace_back([&, t] {
                // Different starting rows, so that threads overlap on every predicate.
                for (std::size_t step = 0; step < 20 * rows.size(); ++step)
                    for (std::size_t index = (step + t * 61) % rows.size(), p = 0; p < predicates.size(); ++p)
                        mismatches += char(predicates[p]->evaluateWithObject(*rows[index])) !=
                                      expected[index * predicates.size() + p];
            });
        for (auto &thread : threads)
            thread.join();
        QCOMPARE(mismatches.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestPredicate)
#include "tst_predicate.moc"

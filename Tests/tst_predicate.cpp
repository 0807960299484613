// ctest-label: concurrency
#include "KVNPredicate.h"
#include "KVNTestObject.h"

#include <QTest>

#include <atomic>
#include <cmath>
#include <limits>
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
                               {"isDirectory", B(true)},
                               {"modified", KVNValue::fromDate({1700000000, 500})},
                               {"leftNode", KVNValue::fromObject(inner)},
                               {"eclair", S("Éclair")},
                               {"lower", S("éclair")}});

KVNPredicatePtr parseOrFail(const QString &format, const Values &arguments = {})
{
    const auto result = KVNPredicate::parse(format, arguments);
    if (!result.ok())
        qWarning().noquote() << "parse failed:" << format << "->" << result.error->message;
    return result.predicate;
}

// render → parse → render must give the same text and an equal predicate.
bool roundTrips(const KVNPredicatePtr &predicate)
{
    const QString text = predicate->predicateFormat();
    const auto back = KVNPredicate::parse(text);
    return back.ok() && back.predicate->isEqual(*predicate) && predicate->isEqual(*back.predicate) &&
           back.predicate->predicateFormat() == text;
}

#define VERIFY_ROUND_TRIP(p) QVERIFY2(roundTrips(p), qPrintable((p)->predicateFormat().left(300)))

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
        row("9223372036854775807 == 9223372036854775807 AND 9223372036854775807 < 9223372036854775808",
            true); // exact: the double 2^63 is larger
        row("isDirectory == yes AND isDirectory == TRUE AND isDirectory == 1 AND isDirectory != NO", true);
        row("diffResult == \"3\" OR name == 3", false);
        // nil: equal only to nil, never ordered.
        row("rightNode == nil AND rightNode == NULL AND leftNode != nil", true);
        row("rightNode != nil OR rightNode < 1 OR rightNode >= nil OR rightNode == 0", false);
        // Strings.
        row("name == 'Readme.TXT' AND name < \"S\" AND name > \"Readme\"", true);
        row("'say \"hi\"' == \"say \\\"hi\\\"\" AND \"%%\" == \"%\"", true);
        row("\"x𝐀y\" == \"x\\ud835\\udc00y\" AND \"x𝐀y\" LIKE \"x?y\"", true); // '?' is one character, also astral
        row("name BEGINSWITH \"Read\" AND name ENDSWITH \".TXT\" AND name CONTAINS \"me.T\"", true);
        row("name MATCHES \"R.*T\" AND name LIKE \"*.TXT\" AND \"\" LIKE \"*\"", true);
        row("name MATCHES \"eadme\"", false); // anchored at both ends
        // LIKE: a backslash makes the next character literal, a trailing one stands for itself.
        row(R"("a*" LIKE "a\\*" AND "a\\b" LIKE "a\\\\b" AND "\\" LIKE "\\" AND "e\u0301x" LIKE[d] "é?")", true);
        row(R"("a.txt.bak" LIKE "*.txt" OR "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa" LIKE "*a*a*a*a*b")",
            false);
        row(R"("Un Café noir" LIKE[cd] "*CAFE*" AND NOT "Un Café noir" LIKE[c] "*CAFE*")", true);
        // String operators on anything but two strings are false.
        row("diffResult BEGINSWITH \"3\" OR rightNode CONTAINS \"a\" OR name LIKE nil OR diffResult MATCHES \".*\"",
            false);
        // Case and diacritics, also outside the BMP and between two key paths.
        row("eclair ==[cd] \"ECLAIR\" AND eclair ==[d] \"Eclair\" AND eclair ==[c] \"éCLAIR\" AND eclair ==[c] lower",
            true);
        row("eclair ==[d] \"eclair\" OR eclair ==[c] \"eclair\" OR eclair !=[cd] \"eclair\" OR eclair == lower", false);
        row("eclair CONTAINS[cd] \"ECL\" AND eclair MATCHES[cd] \"ecl.*\" AND \"Ecla\" IN[d] eclair", true);
        row("\"\xF0\x90\x90\x80\" ==[c] \"\\ud801\\udc28\" AND name >[c] \"apple\"", true);
        // Key paths step through objects; anything else part-way gives nil.
        row("leftNode.name == \"inner\" AND leftNode.diffResult == 5 AND leftNode.missing == nil", true);
        row("rightNode.name == nil AND name.length == nil AND #like == nil", true);
        // Dates by value.
        row("modified == DATE(1700000000, 500) AND modified > DATE(1699999999, 999999999)", true);
        row("diffResult IN {1, 2, 3} AND \"me.T\" IN name AND name IN[c] {\"x\", \"readme.txt\"}", true);
        row("diffResult IN {1, 2} OR diffResult IN {}", false);
        // Keywords in any case, constant predicates, AND binding tighter than OR.
        row("falsepredicate OR diffResult == 3 && !(size > 1)", false);
        row("diffResult == 4 AND size > 1 OR isDirectory == YES", true);
        row("diffResult == 4 AND (size > 1 OR isDirectory == YES)", false);
        // Arguments; a quoted %@ is text.
        row("name == %@ AND rightNode == %@ AND isDirectory == %@ AND size == %@ AND modified == %@", true,
            {S("Readme.TXT"), KVNValue(), B(true), D(1.5), KVNValue::fromDate({1700000000, 500})});
        row("diffResult == %i AND diffResult == %lu AND diffResult == %qu AND diffResult == %d", true,
            {I(3), I(3), I(3), D(3.0)});
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
            {"!(a == 1 || b == 2) && c == 3", AND({NOT(OR({a, b})), c})},
            {"a == 1 && b == 2 AND c == 3", AND({a, b, c})}};
        for (const auto &[text, expected] : cases) {
            const auto parsed = parseOrFail(QString::fromUtf8(text));
            QVERIFY2(parsed && parsed->isEqual(*expected), text);
            VERIFY_ROUND_TRIP(parsed);
        }
        QCOMPARE(NOT(NOT(a))->predicateFormat(), QStringLiteral("NOT (NOT a == 1)"));
        // A compound inside another keeps its parentheses, as added exclusions wrap the previous ones.
        const auto wrapped = OR({OR({a, b}), c});
        QCOMPARE(wrapped->predicateFormat(), QStringLiteral("(a == 1 OR b == 2) OR c == 3"));
        VERIFY_ROUND_TRIP(wrapped);
        // The factories keep the shape exact and leave out what is absent.
        QCOMPARE(AND({})->kind(), KVNPredicate::Kind::True);
        QCOMPARE(OR({})->kind(), KVNPredicate::Kind::False);
        QCOMPARE(OR({nullptr, a, nullptr}), a);
        QCOMPARE(AND({a, nullptr, b})->subpredicates(), (std::vector<KVNPredicatePtr>{a, b}));
        QVERIFY(!AND({a, b})->isEqual(*AND({b, a})));
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

    // Reserved words, non-ASCII and astral letters in keys, and awkward
    // characters and numbers in constants, under every operator.
    void awkwardTextsRoundTrip()
    {
        const char *const keys[] = {"like",         "AND",          "In",          "gr\u00f6\u00dfe",
                                    "\u540d\u524d", "e\xCC\x81tat", "\U0001D400bc"};
        const QString text = QStringLiteral("\"'\\%*?\n\t\x01\x7F\u0085\u2028\u00C9\u0301\U0001D400");
        const KVNValue constants[] = {KVNValue(),
                                      I(std::numeric_limits<int64_t>::min()),
                                      D(-0.0),
                                      D(5e-324),
                                      D(std::numeric_limits<double>::infinity()),
                                      D(1e21),
                                      KVNValue::fromDate({-5, 999999999}),
                                      S(text),
                                      S(QString(QChar(0xDC00)) + "x" + QChar(0xD800))};
        int made = 0;
        for (const char *key : keys)
            for (const KVNValue &value : constants)
                for (int op = 0; op <= int(Operator::In); ++op)
                    if (const auto predicate = KVNComparisonPredicate::make(
                            *KVNExpression::keyPath({QString::fromUtf8(key), QStringLiteral("self")}), Operator(op),
                            KVNExpression::constant(value), unsigned(op) % 4)) {
                        ++made;
                        VERIFY_ROUND_TRIP(predicate);
                    }
        QVERIFY(made > 100);
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
        row("(a == 1", {}, 7, "expected ')'");
        row("a == %@ OR b == %d", {S("x")}, 16, "too few arguments");
        row("a MATCHES[c] %@", {S("[")}, 13, "regular expression");
        row("a LIKE[x] \"b\"", {}, 7, "unknown comparison option");
        row("like == 1", {}, 0, "reserved word");
        row("a == 1 & b == 2", {}, 7, "'&&'");
        row("a IN {1, b}", {}, 9, "constants only");
        row("%K == 1", {S("a b")}, 0, "not a key path");
        row("a == DATE(1)", {}, 10, "DATE(");
        row(QStringLiteral("\U0001D400 == \"x"), {}, 6, "unterminated"); // positions count UTF-16 units
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

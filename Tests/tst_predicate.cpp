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

KVNValue S(const QString &v)
{
    return KVNValue::fromString(v);
}
KVNValue I(int64_t v)
{
    return KVNValue::fromInteger(v);
}
KVNValue D(double v)
{
    return KVNValue::fromDouble(v);
}
KVNValue B(bool v)
{
    return KVNValue::fromBool(v);
}

std::shared_ptr<KVNTestObject> innerNode()
{
    static const auto node = KVNTestObject::make({{"name", S("inner")}, {"diffResult", I(5)}});
    return node;
}

// One row with a value of every kind; rightNode is absent and answers nil.
const KVNTestObject &sampleRow()
{
    static const auto row = KVNTestObject::make({
        {"name", S("Readme.TXT")},
        {"accented", S(QStringLiteral("Éclair"))},
        {"diffResult", I(3)},
        {"size", D(1.5)},
        {"big", I(std::numeric_limits<int64_t>::max())},
        {"isDirectory", B(true)},
        {"isLink", B(false)},
        {"modified", KVNValue::fromDate({1700000000, 500})},
        {"leftNode", KVNValue::fromObject(innerNode())},
        {"quote", S("say \"hi\"")},
        {"percent", S("50%")},
        {"astral", S(QString::fromUtf8("x\xF0\x9D\x90\x80y"))}, // x, U+1D400, y
        {"empty", S("")},
    });
    return *row;
}

KVNPredicatePtr parseOrFail(const QString &format, const Values &arguments = {})
{
    const auto result = KVNPredicate::parse(format, arguments);
    if (!result.ok())
        qWarning().noquote() << "parse failed:" << format << "->" << result.error->message << "at"
                             << result.error->position;
    return result.predicate;
}

KVNPredicatePtr comparison(const QString &key, Operator op, KVNValue constant, unsigned options = 0)
{
    return KVNComparisonPredicate::make(*KVNExpression::keyPath(QStringView(key)), op,
                                        KVNExpression::constant(std::move(constant)), options);
}

// render → parse → render must give the same text and an equal predicate.
QString roundTripFailure(const KVNPredicatePtr &predicate)
{
    const QString text = predicate->predicateFormat();
    const auto reparsed = KVNPredicate::parse(text);
    if (!reparsed.ok())
        return QStringLiteral("'%1' does not parse: %2 at %3")
            .arg(text, reparsed.error->message)
            .arg(reparsed.error->position);
    if (!reparsed.predicate->isEqual(*predicate) || !predicate->isEqual(*reparsed.predicate))
        return QStringLiteral("'%1' parses to a different predicate '%2'")
            .arg(text, reparsed.predicate->predicateFormat());
    if (reparsed.predicate->predicateFormat() != text)
        return QStringLiteral("'%1' renders again as '%2'").arg(text, reparsed.predicate->predicateFormat());
    return QString();
}

// MARK: Random predicates from the factories

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    QString key()
    {
        static const char *const keys[] = {
            "name",
            "diffResult",
            "spotlightItemFSName",
            "depthHint",
            "_x1",
            "a$b",
            "like",
            "AND",
            "self",
            "In",
            "nil",
            "date",
            "größe",
            "名前",
            "e\xCC\x81tat",
            "\xF0\x9D\x90\x80"
            "bc",
        };
        return QString::fromUtf8(keys[below(int(std::size(keys)))]);
    }

    QString text()
    {
        static const char16_t pool[] = {u'a', u'Z',  u' ',   u'"',   u'\'',  u'\\', u'%', u'*',
                                        u'?', u'\n', u'\t',  u'\r',  0x01,   0x7F,  0x85, u'é',
                                        u'É', 0x301, 0x2028, 0xD800, 0xDC00, u'名', u'.'};
        QString s;
        const int length = below(8);
        for (int i = 0; i < length; ++i) {
            if (below(10) == 0)
                s += QString::fromUtf8("\xF0\x9D\x90\x80");
            else
                s += QChar(pool[below(int(std::size(pool)))]);
        }
        return s;
    }

    KVNValue constant()
    {
        switch (below(9)) {
        case 0:
            return KVNValue();
        case 1:
            return B(below(2) == 1);
        case 2:
            return I(int64_t(rng_()) - int64_t(rng_()) * 4096);
        case 3: {
            static const int64_t edges[] = {0, -1, 1, std::numeric_limits<int64_t>::min(),
                                            std::numeric_limits<int64_t>::max()};
            return I(edges[below(5)]);
        }
        case 4: {
            // Any bit pattern; NaN is refused by the factory and drawn again.
            const uint64_t bits = (uint64_t(rng_()) << 32) | rng_();
            double d;
            std::memcpy(&d, &bits, sizeof d);
            return D(d);
        }
        case 5: {
            static const double edges[] = {0.1,
                                           -0.0,
                                           1e300,
                                           5e-324,
                                           std::numeric_limits<double>::infinity(),
                                           -std::numeric_limits<double>::infinity(),
                                           3.0,
                                           1e21};
            return D(edges[below(8)]);
        }
        case 6:
            return KVNValue::fromDate({int64_t(rng_()) - int64_t(rng_()), uint32_t(rng_())});
        default:
            return S(text());
        }
    }

    KVNExpression keyPath()
    {
        QStringList components{key()};
        while (below(4) == 0)
            components << key();
        return *KVNExpression::keyPath(components);
    }

    KVNPredicatePtr comparison()
    {
        while (true) {
            const auto op = Operator(below(int(Operator::In) + 1));
            const unsigned options = unsigned(below(4));
            KVNExpression left = below(10) == 0   ? KVNExpression::self()
                                 : below(10) == 0 ? KVNExpression::constant(constant())
                                                  : keyPath();
            KVNExpression right = below(5) == 0 ? keyPath() : KVNExpression::constant(constant());
            if (op == Operator::Matches && below(2) == 0) {
                static const char *const patterns[] = {".*", "a[bc]+", "(x|y)?z", "\\d{2,}", "é.", "[^\"]*"};
                right = KVNExpression::constant(S(QString::fromUtf8(patterns[below(6)])));
            }
            if (op == Operator::In && below(2) == 0) {
                std::vector<KVNExpression> elements;
                for (int i = below(4); i > 0; --i)
                    elements.push_back(KVNExpression::constant(constant()));
                right = KVNExpression::aggregate(std::move(elements));
            }
            if (auto predicate = KVNComparisonPredicate::make(left, op, right, options))
                return predicate;
        }
    }

    KVNPredicatePtr predicate(int depth)
    {
        const int choice = depth >= 4 ? 0 : below(10);
        if (choice <= 3)
            return comparison();
        if (choice == 4)
            return below(2) ? KVNPredicate::truePredicate() : KVNPredicate::falsePredicate();
        if (choice == 5)
            return KVNPredicate::notPredicateWithSubpredicate(predicate(depth + 1));
        std::vector<KVNPredicatePtr> subs;
        for (int i = below(5); i > 0; --i)
            subs.push_back(below(12) == 0 ? nullptr : predicate(depth + 1));
        return choice % 2 ? KVNPredicate::andPredicateWithSubpredicates(subs)
                          : KVNPredicate::orPredicateWithSubpredicates(subs);
    }

    QString noise()
    {
        const int mode = below(3);
        if (mode == 0) {
            // A valid text with a few characters cut, doubled or replaced.
            QString text = predicate(1)->predicateFormat();
            for (int i = below(4); i > 0 && !text.isEmpty(); --i) {
                const int at = below(int(text.size()));
                switch (below(3)) {
                case 0:
                    text.remove(at, 1 + below(3));
                    break;
                case 1:
                    text.insert(at, text.at(at));
                    break;
                default:
                    text[at] = QChar(char16_t(below(128)));
                    break;
                }
            }
            return text;
        }
        if (mode == 1) {
            QByteArray bytes;
            for (int i = below(40); i > 0; --i)
                bytes += char(rng_());
            return below(2) ? QString::fromLatin1(bytes) : QString::fromUtf8(bytes);
        }
        static const char *const pieces[] = {
            "(",       ")",     "a",
            "b.c",     "==",    "!=",
            "<",       ">=",    "=<",
            "LIKE",    "[c]",   "[cd]",
            "[x",      "AND",   "OR",
            "NOT",     "!",     "&&",
            "||",      "\"s\"", "'t",
            "\"",      "\\",    "%@",
            "%d",      "%K",    "%%",
            "%",       "1",     "-2.5e3",
            "0x1F",    "0x",    "{",
            "}",       ",",     "IN",
            "MATCHES", "\"(\"", "nil",
            "YES",     "SELF",  "DATE(",
            "#",       "#like", "TRUEPREDICATE",
            " ",       "é",     "\xF0\x9D\x90\x80",
            ".",       "1e999", "\"\\u00\"",
        };
        QString s;
        for (int i = below(16); i > 0; --i)
            s += QString::fromUtf8(pieces[below(int(std::size(pieces)))]);
        if (below(8) == 0)
            s += QChar(0xD800);
        return s;
    }

    Values arguments()
    {
        static const KVNValue pool[] = {S("a"), S("b.c"), I(1), KVNValue(), B(true), D(0.5), S("("), S("a b")};
        Values values;
        for (int i = below(4); i > 0; --i)
            values << pool[below(int(std::size(pool)))];
        return values;
    }

private:
    std::mt19937 rng_;
};

std::vector<KVNPredicatePtr> likeAll(const QString &key, const QStringList &patterns)
{
    std::vector<KVNPredicatePtr> list;
    for (const QString &pattern : patterns)
        list.push_back(comparison(key, Operator::Like, S(pattern), KVNComparisonPredicate::CaseInsensitive));
    return list;
}

} // namespace

class TestPredicate : public QObject {
    Q_OBJECT

private slots:
    void comparisons_data();
    void comparisons();
    void formatArguments_data();
    void formatArguments();
    void objectsCompareByIdentity();
    void caseAndDiacriticOptions_data();
    void caseAndDiacriticOptions();
    void likeWildcards_data();
    void likeWildcards();
    void precedenceAndGrouping();
    void compoundFactories();
    void systemTextsRoundTrip();
    void randomPredicatesRoundTrip();
    void malformedText_data();
    void malformedText();
    void randomNoiseNeverCrashes();
    void deepNestingIsBounded();
    void concurrentEvaluation();
};

// MARK: - Operators against a row

void TestPredicate::comparisons_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("expected");
    const auto row = [](const char *format, bool expected) {
        QTest::newRow(format) << QString::fromUtf8(format) << expected;
    };

    // Numbers: Integer, Double and Bool compare by value.
    row("diffResult == 3", true);
    row("diffResult = 3", true);
    row("diffResult != 3", false);
    row("diffResult <> 4", true);
    row("diffResult == 3.0", true);
    row("diffResult == 0x3", true);
    row("diffResult <= 3", true);
    row("diffResult =< 2", false);
    row("diffResult >= 3", true);
    row("diffResult => 4", false);
    row("-1 < diffResult", true);
    row("size == 1.5", true);
    row("size > 1 AND size < 2", true);
    row("size > -1.5e0", true);
    row("big == 9223372036854775807", true);
    row("big < 9223372036854775808", true); // exact: the double 2^63 is larger
    row("big == 9.223372036854775807e18", false);
    row("isDirectory == YES", true);
    row("isDirectory == yes", true);
    row("isDirectory == TRUE", true);
    row("isDirectory == 1", true);
    row("isDirectory > 0", true);
    row("isLink == NO", true);
    row("isLink == false", true);
    row("isLink == 0", true);
    row("diffResult == \"3\"", false);
    row("diffResult != \"3\"", true);
    // nil: equal only to nil, never ordered.
    row("rightNode == nil", true);
    row("rightNode == NULL", true);
    row("rightNode != nil", false);
    row("leftNode == nil", false);
    row("leftNode != nil", true);
    row("rightNode < 1", false);
    row("rightNode >= nil", false);
    row("rightNode == 0", false);
    // Strings.
    row("name == \"Readme.TXT\"", true);
    row("name == 'Readme.TXT'", true);
    row("name == \"readme.txt\"", false);
    row("name < \"S\"", true);
    row("name > \"Readme\"", true);
    row("name == 3", false);
    row("quote == \"say \\\"hi\\\"\"", true);
    row("quote == 'say \"hi\"'", true);
    row("percent == \"50%%\"", true);
    row("percent == \"50%\"", true);
    row("astral == \"x\\ud835\\udc00y\"", true);
    row("name BEGINSWITH \"Read\"", true);
    row("name BEGINSWITH \"read\"", false);
    row("name ENDSWITH \".TXT\"", true);
    row("name CONTAINS \"me.T\"", true);
    row("name CONTAINS \"xyz\"", false);
    row("name MATCHES \"R.*T\"", true);
    row("name MATCHES \"eadme\"", false); // anchored at both ends
    row("name MATCHES \"readme\\\\.txt\"", false);
    row("name LIKE \"*.TXT\"", true);
    row("name like \"*.txt\"", false);
    row("empty LIKE \"*\"", true);
    row("empty LIKE \"?\"", false);
    row("astral LIKE \"x?y\"", true); // '?' is one character, also outside the BMP
    // String operators on anything but two strings are false.
    row("diffResult BEGINSWITH \"3\"", false);
    row("rightNode CONTAINS \"a\"", false);
    row("rightNode LIKE \"*\"", false);
    row("name LIKE nil", false);
    row("diffResult MATCHES \".*\"", false);
    row("name ENDSWITH leftNode", false);
    // Key paths step through objects; anything else part-way gives nil.
    row("leftNode.name == \"inner\"", true);
    row("leftNode.diffResult == 5", true);
    row("leftNode.missing == nil", true);
    row("rightNode.name == nil", true);
    row("name.length == nil", true);
    row("SELF.diffResult == 3", true);
    row("self != nil", true);
    row("#like == nil", true);
    row("name == name", true);
    row("leftNode.name BEGINSWITH leftNode.name", true);
    // Dates by value.
    row("modified == DATE(1700000000, 500)", true);
    row("modified < DATE(1700000000, 501)", true);
    row("modified > DATE(1699999999, 999999999)", true);
    row("modified == 1700000000", false);
    // IN.
    row("diffResult IN {1, 2, 3}", true);
    row("diffResult IN {1, 2}", false);
    row("diffResult IN {}", false);
    row("name IN[c] {\"x\", \"readme.txt\"}", true);
    row("\"me.T\" IN name", true);
    // Keywords in any case, constant predicates.
    row("TRUEPREDICATE", true);
    row("falsepredicate", false);
    row("not diffResult == 3", false);
    row("diffResult == 3 and size > 1", true);
    row("diffResult == 4 or size > 1", true);
    row("diffResult == 3 && !(size > 1)", false);
    row("diffResult == 4 || isDirectory == yes", true);
}

void TestPredicate::comparisons()
{
    QFETCH(QString, format);
    QFETCH(bool, expected);
    const auto predicate = parseOrFail(format);
    QVERIFY(predicate);
    QCOMPARE(predicate->evaluateWithObject(sampleRow()), expected);
    const QString failure = roundTripFailure(predicate);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    // The rendered text means the same on the row.
    QCOMPARE(KVNPredicate::predicateWithFormat(predicate->predicateFormat())->evaluateWithObject(sampleRow()),
             expected);
}

void TestPredicate::formatArguments_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<Values>("arguments");
    QTest::addColumn<bool>("expected");

    QTest::newRow("%@ string") << "name == %@" << Values{S("Readme.TXT")} << true;
    QTest::newRow("%@ nil") << "rightNode == %@" << Values{KVNValue()} << true;
    QTest::newRow("%@ bool") << "isDirectory == %@" << Values{B(true)} << true;
    QTest::newRow("%@ double") << "size == %@" << Values{D(1.5)} << true;
    QTest::newRow("%@ date") << "modified == %@" << Values{KVNValue::fromDate({1700000000, 500})} << true;
    QTest::newRow("%d") << "diffResult == %d" << Values{I(3)} << true;
    QTest::newRow("%i") << "diffResult == %i" << Values{I(3)} << true;
    QTest::newRow("%u") << "diffResult == %u" << Values{I(3)} << true;
    QTest::newRow("%ld") << "diffResult == %ld" << Values{I(3)} << true;
    QTest::newRow("%lu") << "diffResult == %lu" << Values{I(3)} << true;
    QTest::newRow("%qu") << "diffResult == %qu" << Values{I(3)} << true;
    QTest::newRow("%lld") << "diffResult == %lld" << Values{I(3)} << true;
    QTest::newRow("%d from bool") << "diffResult == %d" << Values{B(true)} << false;
    QTest::newRow("%d from whole double") << "diffResult == %d" << Values{D(3.0)} << true;
    QTest::newRow("%K") << "%K == %@" << Values{S("leftNode.name"), S("inner")} << true;
    QTest::newRow("%K then key") << "%K.name == %@" << Values{S("leftNode"), S("inner")} << true;
    QTest::newRow("%K reserved word") << "%K == nil" << Values{S("like")} << true;
    QTest::newRow("quoted %@ is literal") << "name == \"%@\"" << Values{} << false;
    QTest::newRow("order kept") << "diffResult == %d AND name == %@ AND size < %@"
                                << Values{I(3), S("Readme.TXT"), D(2)} << true;
}

void TestPredicate::formatArguments()
{
    QFETCH(QString, format);
    QFETCH(Values, arguments);
    QFETCH(bool, expected);
    const auto predicate = parseOrFail(format, arguments);
    QVERIFY(predicate);
    QCOMPARE(predicate->evaluateWithObject(sampleRow()), expected);
    const QString failure = roundTripFailure(predicate);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
}

void TestPredicate::objectsCompareByIdentity()
{
    const auto twin = KVNTestObject::make({{"name", S("inner")}, {"diffResult", I(5)}});
    const auto same = parseOrFail("leftNode == %@", {KVNValue::fromObject(innerNode())});
    const auto lookalike = parseOrFail("leftNode == %@", {KVNValue::fromObject(twin)});
    QVERIFY(same && lookalike);
    QVERIFY(same->evaluateWithObject(sampleRow()));
    QVERIFY(!lookalike->evaluateWithObject(sampleRow()));
    QVERIFY(parseOrFail("leftNode != %@", {KVNValue::fromObject(twin)})->evaluateWithObject(sampleRow()));
    QVERIFY(!same->isEqual(*lookalike));
    // SELF is the evaluated object itself.
    QVERIFY(parseOrFail("SELF == %@", {KVNValue::fromObject(innerNode())})->evaluateWithObject(*innerNode()));
    QVERIFY(!parseOrFail("SELF == %@", {KVNValue::fromObject(twin)})->evaluateWithObject(*innerNode()));
    // Objects have no text form: the rendering must not parse as something else.
    QVERIFY(!KVNPredicate::parse(same->predicateFormat()).ok());
}

// MARK: - String options

void TestPredicate::caseAndDiacriticOptions_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("value");
    QTest::addColumn<bool>("expected");

    const QString composed = QStringLiteral("É");         // U+00C9
    const QString decomposed = QStringLiteral("E\u0301"); // E + combining acute
    QTest::newRow("É ==[cd] e") << "v ==[cd] \"e\"" << composed << true;
    QTest::newRow("E+acute ==[cd] e") << "v ==[cd] \"e\"" << decomposed << true;
    QTest::newRow("É ==[d] E") << "v ==[d] \"E\"" << composed << true;
    QTest::newRow("É ==[d] e") << "v ==[d] \"e\"" << composed << false;
    QTest::newRow("É ==[c] é") << "v ==[c] \"é\"" << composed << true;
    QTest::newRow("É ==[c] e") << "v ==[c] \"e\"" << composed << false;
    QTest::newRow("É == e") << "v == \"e\"" << composed << false;
    QTest::newRow("É !=[cd] e") << "v !=[cd] \"e\"" << composed << false;
    QTest::newRow("Éclair LIKE[cd]") << "v LIKE[cd] \"*CLAIR\""
                                     << "Éclair" << true;
    QTest::newRow("Éclair BEGINSWITH[d]") << "v BEGINSWITH[d] \"Ec\""
                                          << "Éclair" << true;
    QTest::newRow("Éclair BEGINSWITH[c]") << "v BEGINSWITH[c] \"éC\""
                                          << "Éclair" << true;
    QTest::newRow("Éclair ENDSWITH[c]") << "v ENDSWITH[c] \"LAIR\""
                                        << "Éclair" << true;
    QTest::newRow("Éclair CONTAINS[cd]") << "v CONTAINS[cd] \"ECL\""
                                         << "Éclair" << true;
    QTest::newRow("Éclair CONTAINS") << "v CONTAINS \"ecl\""
                                     << "Éclair" << false;
    QTest::newRow("Éclair MATCHES[cd]") << "v MATCHES[cd] \"ecl.*\""
                                        << "Éclair" << true;
    QTest::newRow("Éclair MATCHES") << "v MATCHES \"ecl.*\""
                                    << "Éclair" << false;
    QTest::newRow("café IN[d]") << "\"cafe\" IN[d] v"
                                << "un café noir" << true;
    QTest::newRow("astral case fold") << "v ==[c] \"\\ud801\\udc28\"" << QString::fromUtf8("\xF0\x90\x90\x80") << true;
    QTest::newRow("ordering [c]") << "v <[c] \"Banana\""
                                  << "apple" << true;
    QTest::newRow("ordering plain") << "v < \"Banana\""
                                    << "apple" << false;
    QTest::newRow("options on key sides") << "v ==[c] w"
                                          << "ÀB" << true;
}

void TestPredicate::caseAndDiacriticOptions()
{
    QFETCH(QString, format);
    QFETCH(QString, value);
    QFETCH(bool, expected);
    const KVNTestObject object({{"v", S(value)}, {"w", S(QStringLiteral("àb"))}});
    const auto predicate = parseOrFail(format);
    QVERIFY(predicate);
    QCOMPARE(predicate->evaluateWithObject(object), expected);
    const QString failure = roundTripFailure(predicate);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
}

void TestPredicate::likeWildcards_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("options");
    QTest::addColumn<bool>("expected");

    const int c = KVNComparisonPredicate::CaseInsensitive;
    const int d = KVNComparisonPredicate::DiacriticInsensitive;
    QTest::newRow("suffix") << "*.txt"
                            << "a.txt" << 0 << true;
    QTest::newRow("whole string") << "*.txt"
                                  << "a.txt.bak" << 0 << false;
    QTest::newRow("one char") << "?.txt"
                              << "a.txt" << 0 << true;
    QTest::newRow("one char only") << "?.txt"
                                   << "ab.txt" << 0 << false;
    QTest::newRow("several runs") << "a*b*c"
                                  << "aXXbYYc" << 0 << true;
    QTest::newRow("several runs, no end") << "a*b*c"
                                          << "aXXbYY" << 0 << false;
    QTest::newRow("star on empty") << "*"
                                   << "" << 0 << true;
    QTest::newRow("empty on empty") << ""
                                    << "" << 0 << true;
    QTest::newRow("empty on text") << ""
                                   << "a" << 0 << false;
    QTest::newRow("repeated stars") << "**a**"
                                    << "xxa" << 0 << true;
    QTest::newRow("escaped star") << "a\\*"
                                  << "a*" << 0 << true;
    QTest::newRow("escaped star is literal") << "a\\*"
                                             << "ab" << 0 << false;
    QTest::newRow("escaped question") << "a\\?"
                                      << "a?" << 0 << true;
    QTest::newRow("escaped question is literal") << "a\\?"
                                                 << "ab" << 0 << false;
    QTest::newRow("escaped backslash") << "a\\\\b"
                                       << "a\\b" << 0 << true;
    QTest::newRow("trailing backslash") << "\\"
                                        << "\\" << 0 << true;
    QTest::newRow("backtracking") << "*a*a*a*a*b" << QString(60, u'a') << 0 << false;
    QTest::newRow("case") << "*.TXT"
                          << "readme.txt" << 0 << false;
    QTest::newRow("[c]") << "*.TXT"
                         << "readme.txt" << c << true;
    QTest::newRow("[d]") << "caf?"
                         << "café" << d << true;
    QTest::newRow("[d] pattern accent") << "é?"
                                        << "e\u0301x" << d << true;
    QTest::newRow("[cd]") << "*CAFE*"
                          << "Un Café noir" << (c | d) << true;
    QTest::newRow("[c] not [d]") << "*CAFE*"
                                 << "Un Café noir" << c << false;
}

void TestPredicate::likeWildcards()
{
    QFETCH(QString, pattern);
    QFETCH(QString, text);
    QFETCH(int, options);
    QFETCH(bool, expected);
    const KVNTestObject object({{"name", S(text)}, {"pattern", S(pattern)}});
    // A constant pattern (compiled once) and one read from the row must agree.
    const auto constant = comparison("name", Operator::Like, S(pattern), unsigned(options));
    const auto fromRow = KVNComparisonPredicate::make(*KVNExpression::keyPath(u"name"), Operator::Like,
                                                      *KVNExpression::keyPath(u"pattern"), unsigned(options));
    QCOMPARE(constant->evaluateWithObject(object), expected);
    QCOMPARE(fromRow->evaluateWithObject(object), expected);
    const QString failure = roundTripFailure(constant);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
}

// MARK: - Structure

void TestPredicate::precedenceAndGrouping()
{
    const auto a = comparison("a", Operator::Equal, I(1));
    const auto b = comparison("b", Operator::Equal, I(2));
    const auto c = comparison("c", Operator::Equal, I(3));
    const auto AND = &KVNPredicate::andPredicateWithSubpredicates;
    const auto OR = &KVNPredicate::orPredicateWithSubpredicates;
    const auto NOT = &KVNPredicate::notPredicateWithSubpredicate;

    const struct {
        const char *text;
        KVNPredicatePtr expected;
    } cases[] = {
        {"a == 1 OR b == 2 AND c == 3", OR({a, AND({b, c})})},
        {"a == 1 AND b == 2 OR c == 3", OR({AND({a, b}), c})},
        {"NOT a == 1 AND b == 2", AND({NOT(a), b})},
        {"a == 1 AND b == 2 AND c == 3", AND({a, b, c})},
        {"(a == 1 AND b == 2) AND c == 3", AND({AND({a, b}), c})},
        {"a == 1 OR (b == 2 OR c == 3)", OR({a, OR({b, c})})},
        {"((a == 1))", a},
        {"(a == 1) || (b == 2)", OR({a, b})},
        {"!(a == 1 || b == 2) && c == 3", AND({NOT(OR({a, b})), c})},
        {"NOT NOT a == 1", NOT(NOT(a))},
        {"a == 1 && b == 2 AND c == 3", AND({a, b, c})},
    };
    for (const auto &test : cases) {
        const auto parsed = parseOrFail(QString::fromUtf8(test.text));
        QVERIFY2(parsed, test.text);
        QVERIFY2(parsed->isEqual(*test.expected),
                 qPrintable(QStringLiteral("%1 parsed as %2").arg(test.text, parsed->predicateFormat())));
        const QString failure = roundTripFailure(parsed);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    // AND binds tighter than OR, also when evaluated.
    QVERIFY(parseOrFail("diffResult == 4 AND size > 1 OR isDirectory == YES")->evaluateWithObject(sampleRow()));
    QVERIFY(!parseOrFail("diffResult == 4 AND (size > 1 OR isDirectory == YES)")->evaluateWithObject(sampleRow()));
    QCOMPARE(NOT(NOT(a))->predicateFormat(), QStringLiteral("NOT (NOT a == 1)"));
    QCOMPARE(NOT(KVNPredicate::truePredicate())->predicateFormat(), QStringLiteral("NOT TRUEPREDICATE"));
}

void TestPredicate::compoundFactories()
{
    const auto a = comparison("diffResult", Operator::Equal, I(3));
    const auto b = comparison("diffResult", Operator::Equal, I(4));
    const auto &row = sampleRow();

    QCOMPARE(KVNPredicate::andPredicateWithSubpredicates({})->kind(), KVNPredicate::Kind::True);
    QCOMPARE(KVNPredicate::orPredicateWithSubpredicates({})->kind(), KVNPredicate::Kind::False);
    QCOMPARE(KVNPredicate::andPredicateWithSubpredicates({a}), a);
    QCOMPARE(KVNPredicate::orPredicateWithSubpredicates({nullptr, a, nullptr}), a);
    QCOMPARE(KVNPredicate::notPredicateWithSubpredicate(nullptr), KVNPredicatePtr());

    const auto both = KVNPredicate::andPredicateWithSubpredicates({a, nullptr, b});
    QCOMPARE(both->kind(), KVNPredicate::Kind::And);
    QCOMPARE(both->subpredicates().size(), std::size_t(2));
    QVERIFY(both->subpredicates()[1] == b);
    QVERIFY(!both->evaluateWithObject(row));
    QVERIFY(KVNPredicate::orPredicateWithSubpredicates({a, b})->evaluateWithObject(row));
    QVERIFY(!KVNPredicate::notPredicateWithSubpredicate(a)->evaluateWithObject(row));
    QVERIFY(!both->isEqual(*KVNPredicate::andPredicateWithSubpredicates({b, a})));

    QVERIFY(!KVNPredicateEvaluate(nullptr, row));
    QVERIFY(KVNPredicateEvaluate(a, row));
    QVERIFY(KVNPredicatesEqual(nullptr, nullptr));
    QVERIFY(!KVNPredicatesEqual(a, nullptr));
    QVERIFY(KVNPredicatesEqual(a, parseOrFail("diffResult == 3.0")));
    QVERIFY(KVNPredicatesEqual(parseOrFail("isDirectory == YES"), parseOrFail("isDirectory == 1")));
    QVERIFY(!KVNPredicatesEqual(parseOrFail("name == \"a\""), parseOrFail("name ==[c] \"a\"")));
    QVERIFY(KVNPredicateFormat(nullptr).isEmpty());

    // The factory refuses what it could not render or evaluate sensibly.
    QString message;
    QVERIFY(!KVNComparisonPredicate::make(*KVNExpression::keyPath(u"n"), Operator::Matches,
                                          KVNExpression::constant(S("(")), 0, &message));
    QVERIFY(message.contains("regular expression"));
    QVERIFY(!KVNComparisonPredicate::make(*KVNExpression::keyPath(u"n"), Operator::Equal,
                                          KVNExpression::constant(D(std::nan(""))), 0, &message));
    QVERIFY(!KVNComparisonPredicate::make(*KVNExpression::keyPath(u"n"), Operator::Equal, KVNExpression::aggregate({}),
                                          0, &message));
    QVERIFY(!KVNExpression::keyPath(u"a b"));
    QVERIFY(!KVNExpression::keyPath(u"a..b"));
    QVERIFY(!KVNExpression::keyPath(u"1a"));
}

// MARK: - Round trips

void TestPredicate::systemTextsRoundTrip()
{
    const QStringList ignored{".DS_Store", "CVS", ".svn", ".git", ".hg"};
    const auto exclusion = KVNPredicate::orPredicateWithSubpredicates(likeAll("spotlightItemFSName", ignored));
    // Built the way the system builds it: one format per name.
    std::vector<KVNPredicatePtr> fromFormats;
    for (const QString &name : ignored)
        fromFormats.push_back(parseOrFail("spotlightItemFSName LIKE[c] %@", {S(name)}));
    QVERIFY(exclusion->isEqual(*KVNPredicate::orPredicateWithSubpredicates(fromFormats)));
    const QString exclusionText =
        QStringLiteral("spotlightItemFSName LIKE[c] \".DS_Store\" OR spotlightItemFSName LIKE[c] \"CVS\" OR "
                       "spotlightItemFSName LIKE[c] \".svn\" OR spotlightItemFSName LIKE[c] \".git\" OR "
                       "spotlightItemFSName LIKE[c] \".hg\"");
    QCOMPARE(exclusion->predicateFormat(), exclusionText);

    const auto filter = parseOrFail("(diffResult == %d OR diffResult == %d)", {I(2), I(5)});
    const struct {
        KVNPredicatePtr predicate;
        QString expected;
    } cases[] = {
        {exclusion, exclusionText},
        {parseOrFail("(diffResult == %d OR diffResult == %d OR diffResult == %d OR diffResult == %d)",
                     {I(3), I(5), I(2), I(0)}),
         "diffResult == 3 OR diffResult == 5 OR diffResult == 2 OR diffResult == 0"},
        {filter, "diffResult == 2 OR diffResult == 5"},
        {parseOrFail("(diffResult == %d OR diffResult == %d)", {I(3), I(5)}), "diffResult == 3 OR diffResult == 5"},
        {parseOrFail("(diffResult == %d)", {I(1)}), "diffResult == 1"},
        {parseOrFail("depthHint == 1"), "depthHint == 1"},
        {parseOrFail("spotlightItemFSName ENDSWITH[c] %@", {S(".txt")}), "spotlightItemFSName ENDSWITH[c] \".txt\""},
        {parseOrFail("(rightNode == nil) || (leftNode == nil)"), "rightNode == nil OR leftNode == nil"},
        {parseOrFail("isDirectory == YES"), "isDirectory == YES"},
        {KVNPredicate::notPredicateWithSubpredicate(exclusion), "NOT (" + exclusionText + ")"},
        {KVNPredicate::andPredicateWithSubpredicates(
             {parseOrFail("depthHint == 1"), KVNPredicate::notPredicateWithSubpredicate(exclusion), filter}),
         "depthHint == 1 AND (NOT (" + exclusionText + ")) AND (diffResult == 2 OR diffResult == 5)"},
    };
    for (const auto &test : cases) {
        QVERIFY(test.predicate);
        QCOMPARE(test.predicate->predicateFormat(), test.expected);
        const QString failure = roundTripFailure(test.predicate);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    // The exclusion grows one level per name the user adds; every stage round-trips.
    KVNPredicatePtr grown = exclusion;
    for (const char *name : {"*.o", "build", "node_modules", "*~"}) {
        const QString before = grown->predicateFormat();
        grown = KVNPredicate::orPredicateWithSubpredicates(
            {grown, parseOrFail("spotlightItemFSName LIKE[c] %@", {S(name)})});
        QCOMPARE(grown->predicateFormat(),
                 "(" + before + ") OR spotlightItemFSName LIKE[c] \"" + QString::fromUtf8(name) + "\"");
        const QString failure = roundTripFailure(grown);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
    QVERIFY(grown->evaluateWithObject(KVNTestObject({{"spotlightItemFSName", S(".SVN")}})));
    QVERIFY(grown->evaluateWithObject(KVNTestObject({{"spotlightItemFSName", S("main.O")}})));
    QVERIFY(!grown->evaluateWithObject(KVNTestObject({{"spotlightItemFSName", S("main.c")}})));
}

void TestPredicate::randomPredicatesRoundTrip()
{
    Generator generator(20240611);
    const auto &row = sampleRow();
    for (int i = 0; i < 4000; ++i) {
        const auto predicate = generator.predicate(0);
        const QString failure = roundTripFailure(predicate);
        QVERIFY2(failure.isEmpty(), qPrintable(QStringLiteral("#%1: %2").arg(i).arg(failure)));
        // Equal predicates decide alike.
        const auto reparsed = KVNPredicate::predicateWithFormat(predicate->predicateFormat());
        QCOMPARE(reparsed->evaluateWithObject(row), predicate->evaluateWithObject(row));
    }
}

// MARK: - Bad input

void TestPredicate::malformedText_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<Values>("arguments");
    QTest::addColumn<int>("position");
    QTest::addColumn<QString>("message");

    QTest::newRow("unterminated string") << "name == \"abc" << Values{} << 8 << "unterminated";
    QTest::newRow("unterminated after escape") << "name == 'abc\\" << Values{} << 8 << "unterminated";
    QTest::newRow("bad \\u") << "name == \"a\\u12\"" << Values{} << 10 << "four hexadecimal";
    QTest::newRow("unknown operator") << "name FOO 1" << Values{} << 5 << "unknown operator";
    QTest::newRow("operator missing") << "name" << Values{} << 4 << "comparison operator";
    QTest::newRow("operand missing") << "name ==" << Values{} << 7 << "expected a value";
    QTest::newRow("operand is operator") << "name === 1" << Values{} << 7 << "expected a value";
    QTest::newRow("unclosed (") << "(a == 1" << Values{} << 7 << "expected ')'";
    QTest::newRow("stray )") << "a == 1)" << Values{} << 6 << "unbalanced";
    QTest::newRow("too few arguments") << "a == %@ OR b == %d" << Values{S("x")} << 16 << "too few arguments";
    QTest::newRow("too many arguments") << "a == %@" << Values{S("x"), S("y")} << 7 << "2 arguments";
    QTest::newRow("trailing garbage") << "a == 1 b" << Values{} << 7 << "unexpected";
    QTest::newRow("bad regex") << "a MATCHES \"(\"" << Values{} << 10 << "regular expression";
    QTest::newRow("bad regex argument") << "a MATCHES[c] %@" << Values{S("[")} << 13 << "regular expression";
    QTest::newRow("unknown option") << "a LIKE[x] \"b\"" << Values{} << 7 << "unknown comparison option";
    QTest::newRow("unclosed option") << "a LIKE[c \"b\"" << Values{} << 9 << "expected ']'";
    QTest::newRow("reserved word") << "like == 1" << Values{} << 0 << "reserved word";
    QTest::newRow("single &") << "a == 1 & b == 2" << Values{} << 7 << "'&&'";
    QTest::newRow("malformed number") << "a == 12abc" << Values{} << 5 << "malformed number";
    QTest::newRow("bare 0x") << "a == 0x" << Values{} << 5 << "malformed number";
    QTest::newRow("hex too large") << "a == 0x10000000000000000" << Values{} << 5 << "out of range";
    QTest::newRow("empty") << "" << Values{} << 0 << "empty";
    QTest::newRow("blank") << "   " << Values{} << 3 << "empty";
    QTest::newRow("list not after IN") << "a == {1, 2}" << Values{} << 5 << "IN";
    QTest::newRow("list of key paths") << "a IN {1, b}" << Values{} << 9 << "constants only";
    QTest::newRow("%K not a key path") << "%K == 1" << Values{S("a b")} << 0 << "not a key path";
    QTest::newRow("%K not a string") << "%K == 1" << Values{I(4)} << 0 << "not a key path";
    QTest::newRow("%d not an integer") << "a == %d" << Values{S("x")} << 5 << "not an integer";
    QTest::newRow("NaN argument") << "a == %@" << Values{D(std::nan(""))} << 5 << "NaN";
    QTest::newRow("unknown specifier") << "a == %s" << Values{S("x")} << 5 << "unknown format specifier";
    QTest::newRow("%% outside quotes") << "a == %%" << Values{} << 5 << "quoted string";
    QTest::newRow("lone NOT") << "NOT" << Values{} << 3 << "expected a predicate";
    QTest::newRow("dangling AND") << "a == 1 AND" << Values{} << 10 << "expected a predicate";
    QTest::newRow("bad DATE") << "a == DATE(1)" << Values{} << 10 << "DATE(";
    QTest::newRow("# alone") << "# == 1" << Values{} << 0 << "'#'";
    QTest::newRow("dot without key") << "a. == 1" << Values{} << 3 << "after '.'";
    QTest::newRow("position in UTF-16") << QStringLiteral("名前 == \"x") << Values{} << 6 << "unterminated";
    QTest::newRow("position after astral")
        << QString::fromUtf8("\xF0\x9D\x90\x80 == \"x") << Values{} << 6 << "unterminated";
    QTest::newRow("unexpected character") << "a == 1 ; b" << Values{} << 7 << "unexpected character";
}

void TestPredicate::malformedText()
{
    QFETCH(QString, format);
    QFETCH(Values, arguments);
    QFETCH(int, position);
    QFETCH(QString, message);
    const auto result = KVNPredicate::parse(format, arguments);
    QVERIFY(!result.ok());
    QVERIFY(result.error);
    QVERIFY2(result.error->message.contains(message, Qt::CaseInsensitive), qPrintable(result.error->message));
    QCOMPARE(result.error->position, position);
    QCOMPARE(KVNPredicate::predicateWithFormat(format, arguments), KVNPredicatePtr());
}

void TestPredicate::randomNoiseNeverCrashes()
{
    Generator generator(7);
    int parsed = 0;
    for (int i = 0; i < 20000; ++i) {
        const QString text = generator.noise();
        const Values arguments = generator.arguments();
        const auto result = KVNPredicate::parse(text, arguments);
        QVERIFY(result.ok() != result.error.has_value());
        if (result.ok()) {
            ++parsed;
            result.predicate->evaluateWithObject(sampleRow());
            const QString failure = roundTripFailure(result.predicate);
            QVERIFY2(failure.isEmpty(), qPrintable(QStringLiteral("from '%1': %2").arg(text, failure)));
        } else {
            QVERIFY(!result.error->message.isEmpty());
            QVERIFY2(result.error->position >= 0 && result.error->position <= text.size(), qPrintable(text));
        }
    }
    // The soup reaches past the lexer often enough to mean something.
    QVERIFY(parsed > 300);
}

void TestPredicate::deepNestingIsBounded()
{
    const int limit = KVNPredicate::maxNestingDepth();
    const auto nested = [](int depth, const QString &open, const QString &close) {
        return open.repeated(depth) + QStringLiteral("a == 1") + close.repeated(depth);
    };

    const auto atLimit = KVNPredicate::parse(nested(limit, "(", ")"));
    QVERIFY(atLimit.ok());
    const auto tooDeep = KVNPredicate::parse(nested(100000, "(", ")"));
    QVERIFY(!tooDeep.ok());
    QVERIFY(tooDeep.error->message.contains("nesting"));
    QCOMPARE(tooDeep.error->position, limit);
    // Only opening parentheses, no closing ones.
    QVERIFY(!KVNPredicate::parse(QString(100000, u'(')).ok());

    const auto manyNots = KVNPredicate::parse(QStringLiteral("NOT ").repeated(100000) + "a == 1");
    QVERIFY(!manyNots.ok());
    QCOMPARE(manyNots.error->position, 4 * limit);
    QVERIFY(!KVNPredicate::parse(QString(100000, u'!') + "a == 1").ok());
    QVERIFY(!KVNPredicate::parse(QStringLiteral("(!").repeated(50000) + "a == 1").ok());

    // A factory-built tree at the limit round-trips.
    KVNPredicatePtr deep = parseOrFail("a == 1");
    // A NOT around parentheses counts twice, so half the limit in levels stays inside it.
    for (int i = 1; i < limit / 2; ++i) {
        deep = i % 3 == 0 ? KVNPredicate::notPredicateWithSubpredicate(deep)
                          : KVNPredicate::orPredicateWithSubpredicates({deep, parseOrFail("b == 2")});
    }
    const QString failure = roundTripFailure(deep);
    QVERIFY2(failure.isEmpty(), qPrintable(failure.left(200)));

    // Long flat chains are not nesting.
    QStringList terms;
    for (int i = 0; i < 20000; ++i)
        terms << QStringLiteral("diffResult == %1").arg(i);
    const auto chain = parseOrFail(terms.join(" OR "));
    QVERIFY(chain);
    QCOMPARE(chain->subpredicates().size(), std::size_t(20000));
    QVERIFY(chain->evaluateWithObject(sampleRow()));
}

// MARK: - Threads

void TestPredicate::concurrentEvaluation()
{
    const QStringList formats{
        "spotlightItemFSName LIKE[c] \".DS_Store\" OR spotlightItemFSName LIKE[cd] \"*.TXT\"",
        "name MATCHES[c] \"file_[0-9]+\\\\.(txt|dat)\"",
        "name BEGINSWITH[cd] \"FILÉ\" AND diffResult IN {1, 3}",
        "(rightNode == nil) || (leftNode == nil)",
        "diffResult >= 2 AND NOT (size < 100.5)",
        "name CONTAINS \"_1\" OR name ==[c] \"FILE_7.DAT\"",
    };
    std::vector<KVNPredicatePtr> predicates;
    for (const QString &format : formats)
        predicates.push_back(parseOrFail(format));
    QVERIFY(std::all_of(predicates.begin(), predicates.end(), [](const auto &p) { return p != nullptr; }));

    std::vector<std::shared_ptr<KVNTestObject>> rows;
    for (int i = 0; i < 500; ++i) {
        const QString name = QStringLiteral("%1_%2.%3")
                                 .arg(i % 2 ? QStringLiteral("file") : QStringLiteral("Filé"))
                                 .arg(i)
                                 .arg(i % 3 ? QStringLiteral("txt") : QStringLiteral("dat"));
        auto row = KVNTestObject::make(
            {{"name", S(name)}, {"spotlightItemFSName", S(name)}, {"diffResult", I(i % 5)}, {"size", D(i * 0.75)}});
        if (i % 4)
            row->setValue("leftNode", KVNValue::fromObject(innerNode()));
        if (i % 7)
            row->setValue("rightNode", KVNValue::fromObject(innerNode()));
        rows.push_back(row);
    }
    std::vector<char> expected;
    for (const auto &row : rows) {
        for (const auto &predicate : predicates)
            expected.push_back(predicate->evaluateWithObject(*row));
    }
    // Each predicate has both outcomes somewhere, so a wrong answer shows.
    QVERIFY(std::count(expected.begin(), expected.end(), 1) > 100);
    QVERIFY(std::count(expected.begin(), expected.end(), 0) > 100);

    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round) {
                for (std::size_t r = 0; r < rows.size(); ++r) {
                    // Threads start at different rows so that they overlap on every predicate.
                    const std::size_t index = (r + std::size_t(t) * 61) % rows.size();
                    const auto &row = rows[index];
                    const std::size_t base = index * predicates.size();
                    for (std::size_t p = 0; p < predicates.size(); ++p) {
                        if (char(predicates[p]->evaluateWithObject(*row)) != expected[base + p])
                            mismatches.fetch_add(1, std::memory_order_relaxed);
                    }
                }
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    QCOMPARE(mismatches.load(), 0);
}

QTEST_GUILESS_MAIN(TestPredicate)
#include "tst_predicate.moc"

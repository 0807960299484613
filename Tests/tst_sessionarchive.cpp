#include "KVNKeyedArchive.h"
#include "KVNPredicate.h"
#include "KVNSessionArchive.h"
#include "KVNTestTree.h"

#include <QTest>

#include <random>

namespace {

const QString defaultExclusionText = QStringLiteral(
    R"(spotlightItemFSName LIKE[c] ".DS_Store" OR spotlightItemFSName LIKE[c] "CVS" OR )"
    R"(spotlightItemFSName LIKE[c] ".svn" OR spotlightItemFSName LIKE[c] ".git" OR spotlightItemFSName LIKE[c] ".hg")");

const auto parsed = [](const QString &text) { return KVNPredicate::predicateWithFormat(text); };
const auto roundTrip = [](const KVNSessionContents &contents, QString *error) {
    return KVNSessionArchive::unarchive(KVNSessionArchive::archive(contents), error);
};

// Pieces of the XML form.
const auto u = [](int uid) {
    return "<dict><key>CF$UID</key><integer>" + QByteArray::number(uid) + "</integer></dict>";
};
const auto str = [](const QByteArray &text) { return "<string>" + text + "</string>"; };
const auto integer = [](int value) { return "<integer>" + QByteArray::number(value) + "</integer>"; };
const auto ids = [](std::initializer_list<int> uids) {
    QByteArray array = "<array>";
    for (int uid : uids)
        array += u(uid);
    return array + "</array>";
};
// Keys and values, alternating.
const auto dict = [](std::initializer_list<QByteArray> fields) {
    QByteArray xml = "<dict>";
    for (auto it = fields.begin(); it != fields.end(); it += 2)
        xml += "<key>" + it[0] + "</key>" + it[1];
    return xml + "</dict>";
};
const auto cls = [](const QList<QByteArray> &classes) {
    QByteArray names;
    for (const QByteArray &name : classes + QList<QByteArray>{"NSObject"})
        names += str(name);
    return dict({"$classname", str(classes.front()), "$classes", "<array>" + names + "</array>"});
};
const QByteArray likeOperator =
    dict({"NSOperatorType", integer(7), "NSModifier", integer(0), "NSFlags", integer(1), "$class", u(34)});
const QByteArray xmlStart = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                            "<key>$archiver</key><string>NSKeyedArchiver</string>\n"
                            "<key>$version</key><integer>100000</integer>\n<key>$top</key><dict><key>root</key>" +
                            u(1) + "</dict>\n<key>$objects</key>\n<array>\n";
const QByteArray xmlEnd = "</array>\n</dict>\n</plist>\n";

// A session archived by the platform, one object per line: the default
// exclusion, no ancestor. base is the percent-encoded directory of both roots.
QByteArray platformXml(const QByteArray &base)
{
    QList<QByteArray> o = {
        str("$null"),
        dict({"NS.keys", ids({2, 3, 4, 5, 6, 7}), "NS.objects", ids({8, 9, 10, 13, 15, 17}), "$class", u(66)}),
        // The keys, all encoded before the first value.
        str("documentClass"), str("documentVersion"), str("originalURL"), str("modifiedURL"), str("ancestorURL"),
        str("exclusionPredicate"), str("KVNDirCompDocument"),
        "<real>0.10000000149011612</real>", // the 4-byte real 3DCCCCCD in the binary form
        dict({"NS.base", u(0), "NS.relative", u(11), "$class", u(12)}), str("file://" + base + "site%20v1/"),
        cls({"NSURL"}), dict({"NS.base", u(0), "NS.relative", u(14), "$class", u(12)}),
        str("file://" + base + "site-v2/"), dict({"$class", u(16)}), cls({"NSNull"}),
        dict({"NSSubpredicates", u(18), "NSCompoundPredicateType", integer(2), "$class", u(65)}),
        dict({"NS.objects", ids({19, 36, 43, 50, 57}), "$class", u(64)})};
    // spotlightItemFSName LIKE[c] name, five times; the first brings the
    // objects the others share: the selector, SELF, the key and the classes.
    for (const char *name : {".DS_Store", "CVS", ".svn", ".git", ".hg"}) {
        const int at = int(o.size());
        const bool first = at == 19;
        const int arguments = at + (first ? 5 : 2), constant = at + (first ? 11 : 4), op = at + (first ? 14 : 6);
        o << dict({"NSLeftExpression", u(at + 1), "NSRightExpression", u(constant), "NSPredicateOperator", u(op),
                   "$class", u(35)});
        o << dict({"NSExpressionType", integer(3), "NSSelectorName", u(21), "NSOperand", u(22), "NSArguments",
                   u(arguments), "$class", u(29)});
        if (first)
            o << str("valueForKey:") << dict({"NSExpressionType", integer(1), "$class", u(23)})
              << cls({"NSSelfExpression", "NSExpression"});
        o << dict({"NS.objects", ids({arguments + 1}), "$class", u(28)});
        o << dict({"NSExpressionType", integer(10), "NSKeyPath", u(26), "$class", u(27)});
        if (first)
            o << str("spotlightItemFSName") << cls({"NSKeyPathSpecifierExpression", "NSExpression"})
              << cls({"NSMutableArray", "NSArray"})
              << cls({"NSKeyPathExpression", "NSFunctionExpression", "NSExpression"});
        o << dict({"NSExpressionType", integer(0), "NSConstantValue", u(constant + 1), "$class", u(32)}) << str(name);
        if (first)
            o << cls({"NSConstantValueExpression", "NSExpression"});
        o << likeOperator;
        if (first)
            o << cls({"NSLikePredicateOperator", "NSMatchingPredicateOperator", "NSStringPredicateOperator",
                      "NSPredicateOperator"})
              << cls({"NSComparisonPredicate", "NSPredicate"});
    }
    o << cls({"NSArray"}) << cls({"NSCompoundPredicate", "NSPredicate"}) << cls({"NSDictionary"});
    return xmlStart + o.join('\n') + '\n' + xmlEnd;
}

// A temporary directory with the two roots of the platform's example; rows of
// data-driven tests name its directories, so one outlives them all.
struct ExampleTree {
    KVNTestTree tree;
    QByteArray base = tree.root() + '/';
    // The URL of the directory itself, without "file://", keeps its slash.
    QByteArray encodedBase = KVNSessionArchive::fileURLString(base).mid(7).toUtf8();
    QByteArray xml = platformXml(encodedBase);

    KVNSessionContents contents()
    {
        tree.dir("site v1");
        tree.dir("site-v2");
        KVNSessionContents contents;
        contents.originalURL = base + "site v1";
        contents.modifiedURL = base + "site-v2";
        contents.exclusionPredicate = parsed(defaultExclusionText);
        return contents;
    }
    static ExampleTree &shared()
    {
        static ExampleTree example;
        return example;
    }
};

QStringList describeAll(const QByteArray &data)
{
    QStringList lines;
    try {
        const KVNKeyedUnarchiver archive(data);
        for (uint64_t uid = 0; uid < archive.objectCount(); ++uid)
            lines.append(archive.describe(uid));
    } catch (const KVNArchiveFailure &failure) {
        lines.append(QStringLiteral("failure: ") + failure.message);
    }
    return lines;
}

// Replaces the nth occurrence (from 1) of what; a fixture edit that misses
// its target would silently test nothing, so it shouts.
QByteArray edited(QByteArray text, const QByteArray &what, const QByteArray &with, int nth = 1)
{
    qsizetype at = -1;
    for (int i = 0; i < nth; ++i)
        if ((at = text.indexOf(what, at + 1)) < 0)
            qFatal("fixture edit target not found: %s", what.constData());
    return text.replace(at, what.size(), with);
}

// Appends entries to $objects; the first gets UID 67.
QByteArray withEntries(const QByteArray &xml, const QByteArray &entries)
{
    return edited(xml, xmlEnd, entries + '\n' + xmlEnd);
}

void compareContents(const KVNSessionContents &actual, const KVNSessionContents &expected)
{
    QCOMPARE(actual.documentClass, expected.documentClass);
    QCOMPARE(actual.documentVersion, expected.documentVersion);
    QCOMPARE(actual.originalURL, expected.originalURL);
    QCOMPARE(actual.modifiedURL, expected.modifiedURL);
    QCOMPARE(actual.ancestorURL, expected.ancestorURL);
    QCOMPARE(KVNPredicateFormat(actual.exclusionPredicate), KVNPredicateFormat(expected.exclusionPredicate));
    QVERIFY(KVNPredicatesEqual(actual.exclusionPredicate, expected.exclusionPredicate));
}

// A binary property list of arrays written by hand, for shapes no writer
// makes: counts, references and offsets take 4 bytes.
QByteArray bigEndian(quint64 value, int size)
{
    QByteArray bytes;
    for (int i = size - 1; i >= 0; --i)
        bytes += char((value >> (8 * i)) & 0xFF);
    return bytes;
}
QByteArray arrayObject(const QList<quint32> &refs)
{
    QByteArray object = "\xAF\x12" + bigEndian(quint64(refs.size()), 4);
    for (const quint32 ref : refs)
        object += bigEndian(ref, 4);
    return object;
}
QByteArray handWritten(const QList<QByteArray> &objects)
{
    QByteArray data = "bplist00", table;
    for (const QByteArray &object : objects) {
        table += bigEndian(quint64(data.size()), 4);
        data += object;
    }
    return data + table + QByteArray(6, '\0') + "\x04\x04" + bigEndian(quint64(objects.size()), 8) + bigEndian(0, 8) +
           bigEndian(quint64(data.size()), 8);
}

// A session whose exclusion is depth compounds of the given type, each holding
// the next fanout times, around a TRUEPREDICATE: compound i is object 7 + 2i.
QByteArray nestedCompounds(int depth, int type, int fanout)
{
    QList<QByteArray> o = {str("$null"), dict({"NS.keys", ids({2}), "NS.objects", ids({7}), "$class", u(3)}),
                           // The key, then the classes the compounds use.
                           str("exclusionPredicate"), cls({"NSDictionary"}),
                           cls({"NSCompoundPredicate", "NSPredicate"}), cls({"NSArray"}),
                           cls({"NSTruePredicate", "NSPredicate"})};
    for (int i = 0; i < depth; ++i)
        o << dict({"NSSubpredicates", u(8 + 2 * i), "NSCompoundPredicateType", integer(type), "$class", u(4)})
          << dict({"NS.objects", "<array>" + u(9 + 2 * i).repeated(fanout) + "</array>", "$class", u(5)});
    o << dict({"$class", u(6)});
    return xmlStart + o.join('\n') + '\n' + xmlEnd;
}

} // namespace

class TestSessionArchive : public QObject {
    Q_OBJECT

private slots:
    void writesThePlatformsLayout()
    {
        ExampleTree &example = ExampleTree::shared();
        KVNSessionContents contents = example.contents();
        contents.documentVersion = 0.1;
        const QByteArray data = KVNSessionArchive::archive(contents);
        QVERIFY(data.startsWith("bplist00"));
        // About 2 KB, so offsets take 2 bytes and references 1, as the platform writes them.
        QCOMPARE(int(data[data.size() - 26]), 2);
        QCOMPARE(int(data[data.size() - 25]), 1);
        QVERIFY(data.contains(QByteArray::fromHex("223DCCCCCD")));          // 4-byte real 0.1f
        QVERIFY(!data.contains(QByteArray::fromHex("233FB999999999999A"))); // never the double 0.1
        // Entry by entry, our archive of the example session is the platform's.
        const QStringList ours = describeAll(data), theirs = describeAll(example.xml);
        QCOMPARE(theirs.size(), 67);
        for (qsizetype i = 0; i < theirs.size(); ++i)
            QCOMPARE(QString::number(i) + ": " + ours.value(i), QString::number(i) + ": " + theirs[i]);
        QCOMPARE(ours.size(), theirs.size());
        // Ours and the platform's file, in both forms, read back as the session.
        contents.documentVersion = double(0.1f);
        for (const QByteArray &file : {data, example.xml, KVNPropertyListBinaryFromXml(example.xml)}) {
            QString error;
            const auto back = KVNSessionArchive::unarchive(file, &error);
            QVERIFY2(back, qPrintable(error));
            compareContents(*back, contents);
        }
        // NSNull is a singleton: every absent value refers to the same record.
        KVNSessionContents sparse;
        sparse.originalURL = QByteArray("/nonexistent/left");
        const QStringList n = describeAll(KVNSessionArchive::archive(sparse));
        QCOMPARE(n[1], QStringLiteral(R"({"$class": @15, "NS.keys": [@2, @3, @4, @5, @6, @7], )"
                                      R"("NS.objects": [@8, @9, @10, @13, @13, @13]})"));
        QCOMPARE(n[11], QStringLiteral("\"file:///nonexistent/left\""));
        QCOMPARE(n[14], QStringLiteral(R"({"$classes": ["NSNull", "NSObject"], "$classname": "NSNull"})"));
        // No version given: the document's own, in single precision.
        QString error;
        const auto back = KVNSessionArchive::unarchive(KVNSessionArchive::archive(sparse), &error);
        QVERIFY2(back, qPrintable(error));
        QCOMPARE(back->documentVersion, std::optional<double>(double(0.1f)));
    }

    void refusesMalformedArchives_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("problem");
        ExampleTree &tree = ExampleTree::shared();
        const QByteArray &xml = tree.xml;
        const QByteArray binary = KVNPropertyListBinaryFromXml(xml);
        QTest::newRow("empty") << QByteArray() << "not a property list";
        QTest::newRow("other binary version")
            << "bplist01" + binary.mid(8) << "unsupported binary property list version";
        QTest::newRow("offset table outside")
            << binary.left(binary.size() - 8) + QByteArray(8, '\xFF') << "offset table lies outside the file";
        QTest::newRow("broken XML") << QByteArray("<plist version=\"1.0\"><dict><key>a</dict></plist>")
                                    << "does not parse";

        // Edits of the platform's archive, each in both forms.
        const auto add = [](const char *name, const QByteArray &variant, const char *problem) {
            QTest::addRow("%s, XML", name) << variant << QString::fromUtf8(problem);
            QTest::addRow("%s, binary", name) << KVNPropertyListBinaryFromXml(variant) << QString::fromUtf8(problem);
        };
        const auto field = [](const char *key, const QByteArray &value) {
            return "<key>" + QByteArray(key) + "</key>" + value;
        };
        const auto swap = [&](const char *key, const QByteArray &from, const QByteArray &to, int nth = 1) {
            return edited(xml, field(key, from), field(key, to), nth);
        };
        add("root out of range", swap("root", u(1), u(999)), "refers to object 999");
        add("NOT of five", swap("NSCompoundPredicateType", integer(2), integer(0)), "NOT with 5 subpredicates");
        add("unparseable text", withEntries(edited(xml, u(17) + "</array>", u(67) + "</array>"), str("name LIKE")),
            "predicate text does not parse");
        const auto url = [&](const QByteArray &to) {
            return edited(xml, "file://" + tree.encodedBase + "site-v2/", to);
        };
        add("web URL", url("http://example.com/site-v2/"),
            "modifiedURL: \"http://example.com/site-v2/\" is not a file URL");
        add("URL on a host", url("file://server/share/"), "names the host \"server\"");
        add("URL with a NUL", url("file:///a%00b"), "NUL byte");
        // Objects that contain themselves.
        add("predicate in its own subpredicates", edited(xml, "<array>" + u(19), "<array>" + u(17)),
            "object 17 contains itself");
        add("URLs each other's base",
            edited(swap("NS.base", u(0), u(13)), field("NS.base", u(0)), field("NS.base", u(10))), "contains itself");
    }

    void roundTrips()
    {
        // Path bytes that need escapes or are not UTF-8, a root that does not
        // exist (no slash), and every operator and option in its archived form.
        const std::tuple<QByteArray, QString, const char *> cases[] = {
            {"a b%#?\xFF[\"]", "a%20b%25%23%3F%FF%5B%22%5D/",
             R"(name == "a" OR name !=[c] "a" OR size < 5 OR size <= 5.5 OR size > -3 OR name >=[cd] "m")"},
            {"missing", "missing",
             R"(name MATCHES[cd] "a.*b" OR name LIKE[d] "*.t?t" OR name BEGINSWITH[c] "x" OR name ENDSWITH "y")"},
            {"x", "x/", R"(name CONTAINS[cd] "é" OR name IN {"a", "b", 3, 2.5, YES, nil} OR name IN[c] "abcdef")"},
            {"x", "x/",
             "ratio == 0.1 OR ratio == 1e300 OR ratio == -2.5e-300 OR modified > DATE(1700000000, 500000000)"},
            {"x", "x/", "name == \"quote \\\" backslash \\\\ tab \\t\" OR name == \"x𝐀y\" OR name == \"\""},
            {"x", "x/", R"(leftNode.name == "x" AND a.b.c == 1 AND SELF == "x")"},
            {"x", "x/", "NOT (a == 1 AND (b == 2 OR NOT c == 3)) OR d == 4"}};
        for (const auto &[name, encoded, text] : cases) {
            KVNTestTree tree;
            KVNSessionContents contents;
            contents.originalURL = tree.path("left/" + name);
            contents.modifiedURL = tree.path("right/" + name);
            contents.ancestorURL = tree.path(name);
            if (encoded.endsWith(u'/'))
                for (const QByteArray &relative : {"left/" + name, "right/" + name, name})
                    tree.dir(relative);
            const QString url = KVNSessionArchive::fileURLString(tree.root() + '/') + encoded;
            QCOMPARE(KVNSessionArchive::fileURLString(*contents.ancestorURL + '/'), url);
            QString error;
            QCOMPARE(KVNSessionArchive::pathFromFileURL(url, &error), contents.ancestorURL);
            contents.exclusionPredicate = parsed(QString::fromUtf8(text));
            QVERIFY2(contents.exclusionPredicate, text);
            const auto back = roundTrip(contents, &error);
            QVERIFY2(back, qPrintable(error));
            compareContents(*back, contents);
        }
    }

    void refusesMalformedArchives()
    {
        QFETCH(QByteArray, data);
        QFETCH(QString, problem);
        QString error;
        QVERIFY(!KVNSessionArchive::unarchive(data, &error));
        QVERIFY2(error.contains(problem) && !error.contains(u'\n'), qPrintable(QStringLiteral("error: ") + error));
    }

    void boundsNestingAndSharing()
    {
        const int limit = KVNSessionArchive::maxPredicateDepth();
        QString error;
        const auto deepest = KVNSessionArchive::unarchive(nestedCompounds(limit, 0, 1), &error);
        QVERIFY2(deepest, qPrintable(error));
        KVNPredicatePtr level = deepest->exclusionPredicate;
        for (int i = 0; i < limit; ++i) {
            QCOMPARE(level->kind(), KVNPredicate::Kind::Not);
            level = level->subpredicates().front();
        }
        QCOMPARE(level->kind(), KVNPredicate::Kind::True);
        // Deep enough to show no step recurses before the depth is checked.
        for (const int depth : {limit + 1, 10'000}) {
            QVERIFY(!KVNSessionArchive::unarchive(nestedCompounds(depth, 0, 1), &error));
            QVERIFY2(error.contains(QStringLiteral("nested deeper than %1 levels").arg(limit)), qPrintable(error));
        }
        // ORs that hold the one below twice: 64 levels would be 2^64 comparisons
        // once expanded, which nothing downstream could walk.
        QVERIFY(!KVNSessionArchive::unarchive(nestedCompounds(64, 2, 2), &error));
        QVERIFY2(error.contains(QStringLiteral("too large")), qPrintable(error));
    }

    void survivesHostilePropertyLists()
    {
        const auto refused = [](const QList<QByteArray> &objects, const char *problem) {
            QString error;
            return !KVNSessionArchive::unarchive(handWritten(objects), &error) && error.contains(problem);
        };
        // 100,000 arrays, each inside the next; 60 that hold the next one twice (2^60 if expanded).
        QList<QByteArray> chain, shared;
        for (quint32 i = 0; i < 100'000; ++i)
            chain << arrayObject({i + 1});
        for (quint32 i = 0; i < 60; ++i)
            shared << arrayObject({i + 1, i + 1});
        QVERIFY(refused(chain << arrayObject({}), "not a keyed archive"));
        QVERIFY(refused(shared << arrayObject({}), "not a keyed archive"));
        // An array that holds itself, and one whose count runs past the file.
        QVERIFY(refused({arrayObject({0})}, ""));
        QByteArray overlong = arrayObject({0});
        overlong[5] = char(0x7F);
        QVERIFY(refused({overlong}, "runs past the end"));
        // XML nested 200,000 deep.
        QString error;
        QVERIFY(!KVNSessionArchive::unarchive("<plist version=\"1.0\">" + QByteArray("<array>").repeated(200'000) +
                                                  QByteArray("</array>").repeated(200'000) + "</plist>",
                                              &error));
        QVERIFY2(error.contains(QStringLiteral("nested more than")), qPrintable(error));
    }

    void survivesDamage()
    {
        ExampleTree &example = ExampleTree::shared();
        const QByteArray binary = KVNSessionArchive::archive(example.contents());
        // Every cut of the binary form is refused with a reason.
        int accepted = 0, refused = 0;
        const auto read = [&](const QByteArray &data) {
            QString error;
            if (KVNSessionArchive::unarchive(data, &error))
                ++accepted;
            else
                refused += !error.isEmpty();
        };
        for (qsizetype length = 0; length < binary.size(); ++length)
            read(binary.left(length));
        QCOMPARE(refused, binary.size());
        // Bits flipped and bytes replaced: some changes hit only a string's
        // characters, most break the structure, none crash or fail silently.
        accepted = refused = 0;
        std::mt19937 random(7);
        for (int i = 0; i < 6000; ++i) {
            QByteArray data = i % 4 == 3 ? example.xml : binary;
            for (int c = 1 + int(random() % 3); c > 0; --c) {
                const auto at = qsizetype(random() % quint32(data.size()));
                data[at] = i % 2 ? char(random()) : char(data[at] ^ (1 << (random() % 8)));
            }
            read(data);
        }
        QCOMPARE(accepted + refused, 6000);
        QVERIFY(refused > accepted);
    }
};

QTEST_GUILESS_MAIN(TestSessionArchive)
#include "tst_sessionarchive.moc"

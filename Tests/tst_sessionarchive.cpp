#include "KVNKeyedArchive.h"
#include "KVNPredicate.h"
#include "KVNSessionArchive.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

#include <chrono>
#include <random>

namespace {

using Operator = KVNComparisonPredicate::Operator;
using UID = KVNKeyedArchiver::UID;

const QString defaultExclusionText = QStringLiteral(
    R"(spotlightItemFSName LIKE[c] ".DS_Store" OR spotlightItemFSName LIKE[c] "CVS" OR )"
    R"(spotlightItemFSName LIKE[c] ".svn" OR spotlightItemFSName LIKE[c] ".git" OR spotlightItemFSName LIKE[c] ".hg")");

KVNPredicatePtr parsed(const QString &text)
{
    const auto result = KVNPredicate::parse(text);
    if (!result.ok())
        qWarning().noquote() << "does not parse:" << text << result.error->message;
    return result.predicate;
}

KVNPredicatePtr nameComparison(Operator op, const QString &value)
{
    return KVNComparisonPredicate::make(*KVNExpression::keyPath(u"spotlightItemFSName"), op,
                                        KVNExpression::constant(KVNValue::fromString(value)),
                                        KVNComparisonPredicate::CaseInsensitive);
}

// A session archived by the platform: the default exclusion, no ancestor.
// @BASE@ stands for the percent-encoded directory holding both roots.
const char platformSessionTemplate[] = R"xml(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>$archiver</key><string>NSKeyedArchiver</string>
	<key>$version</key><integer>100000</integer>
	<key>$top</key><dict><key>root</key><dict><key>CF$UID</key><integer>1</integer></dict></dict>
	<key>$objects</key>
	<array>
		<!-- 0 --><string>$null</string>
		<!-- 1: root dictionary --><dict>
			<key>NS.keys</key><array><dict><key>CF$UID</key><integer>2</integer></dict><dict><key>CF$UID</key><integer>3</integer></dict><dict><key>CF$UID</key><integer>4</integer></dict><dict><key>CF$UID</key><integer>5</integer></dict><dict><key>CF$UID</key><integer>6</integer></dict><dict><key>CF$UID</key><integer>7</integer></dict></array>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>8</integer></dict><dict><key>CF$UID</key><integer>9</integer></dict><dict><key>CF$UID</key><integer>10</integer></dict><dict><key>CF$UID</key><integer>13</integer></dict><dict><key>CF$UID</key><integer>15</integer></dict><dict><key>CF$UID</key><integer>17</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>66</integer></dict>
		</dict>
		<!-- 2: keys, all encoded before the first value --><string>documentClass</string>
		<!-- 3 --><string>documentVersion</string>
		<!-- 4 --><string>originalURL</string>
		<!-- 5 --><string>modifiedURL</string>
		<!-- 6 --><string>ancestorURL</string>
		<!-- 7 --><string>exclusionPredicate</string>
		<!-- 8: documentClass --><string>KVNDirCompDocument</string>
		<!-- 9: documentVersion (a 4-byte real 3DCCCCCD in the binary form) --><real>0.10000000149011612</real>
		<!-- 10: originalURL --><dict>
			<key>NS.base</key><dict><key>CF$UID</key><integer>0</integer></dict>
			<key>NS.relative</key><dict><key>CF$UID</key><integer>11</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>12</integer></dict>
		</dict>
		<!-- 11 --><string>file://@BASE@site%20v1/</string>
		<!-- 12 --><dict><key>$classname</key><string>NSURL</string><key>$classes</key><array><string>NSURL</string><string>NSObject</string></array></dict>
		<!-- 13: modifiedURL --><dict>
			<key>NS.base</key><dict><key>CF$UID</key><integer>0</integer></dict>
			<key>NS.relative</key><dict><key>CF$UID</key><integer>14</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>12</integer></dict>
		</dict>
		<!-- 14 --><string>file://@BASE@site-v2/</string>
		<!-- 15: ancestorURL: NSNull --><dict>
			<key>$class</key><dict><key>CF$UID</key><integer>16</integer></dict>
		</dict>
		<!-- 16 --><dict><key>$classname</key><string>NSNull</string><key>$classes</key><array><string>NSNull</string><string>NSObject</string></array></dict>
		<!-- 17: exclusionPredicate: OR --><dict>
			<key>NSSubpredicates</key><dict><key>CF$UID</key><integer>18</integer></dict>
			<key>NSCompoundPredicateType</key><integer>2</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>65</integer></dict>
		</dict>
		<!-- 18: its subpredicates --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>19</integer></dict><dict><key>CF$UID</key><integer>36</integer></dict><dict><key>CF$UID</key><integer>43</integer></dict><dict><key>CF$UID</key><integer>50</integer></dict><dict><key>CF$UID</key><integer>57</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>64</integer></dict>
		</dict>
		<!-- 19: spotlightItemFSName LIKE[c] ".DS_Store" --><dict>
			<key>NSLeftExpression</key><dict><key>CF$UID</key><integer>20</integer></dict>
			<key>NSRightExpression</key><dict><key>CF$UID</key><integer>30</integer></dict>
			<key>NSPredicateOperator</key><dict><key>CF$UID</key><integer>33</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>35</integer></dict>
		</dict>
		<!-- 20: left: key path --><dict>
			<key>NSExpressionType</key><integer>3</integer>
			<key>NSSelectorName</key><dict><key>CF$UID</key><integer>21</integer></dict>
			<key>NSOperand</key><dict><key>CF$UID</key><integer>22</integer></dict>
			<key>NSArguments</key><dict><key>CF$UID</key><integer>24</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>29</integer></dict>
		</dict>
		<!-- 21 --><string>valueForKey:</string>
		<!-- 22: SELF, shared by all five key paths --><dict>
			<key>NSExpressionType</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>23</integer></dict>
		</dict>
		<!-- 23 --><dict><key>$classname</key><string>NSSelfExpression</string><key>$classes</key><array><string>NSSelfExpression</string><string>NSExpression</string><string>NSObject</string></array></dict>
		<!-- 24: the function's arguments --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>25</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>28</integer></dict>
		</dict>
		<!-- 25: key-path specifier --><dict>
			<key>NSExpressionType</key><integer>10</integer>
			<key>NSKeyPath</key><dict><key>CF$UID</key><integer>26</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>27</integer></dict>
		</dict>
		<!-- 26: shared by all five specifiers --><string>spotlightItemFSName</string>
		<!-- 27 --><dict><key>$classname</key><string>NSKeyPathSpecifierExpression</string><key>$classes</key><array><string>NSKeyPathSpecifierExpression</string><string>NSExpression</string><string>NSObject</string></array></dict>
		<!-- 28 --><dict><key>$classname</key><string>NSMutableArray</string><key>$classes</key><array><string>NSMutableArray</string><string>NSArray</string><string>NSObject</string></array></dict>
		<!-- 29 --><dict><key>$classname</key><string>NSKeyPathExpression</string><key>$classes</key><array><string>NSKeyPathExpression</string><string>NSFunctionExpression</string><string>NSExpression</string><string>NSObject</string></array></dict>
		<!-- 30: right: constant --><dict>
			<key>NSExpressionType</key><integer>0</integer>
			<key>NSConstantValue</key><dict><key>CF$UID</key><integer>31</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>32</integer></dict>
		</dict>
		<!-- 31 --><string>.DS_Store</string>
		<!-- 32 --><dict><key>$classname</key><string>NSConstantValueExpression</string><key>$classes</key><array><string>NSConstantValueExpression</string><string>NSExpression</string><string>NSObject</string></array></dict>
		<!-- 33: operator: LIKE, options [c] --><dict>
			<key>NSOperatorType</key><integer>7</integer>
			<key>NSModifier</key><integer>0</integer>
			<key>NSFlags</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>34</integer></dict>
		</dict>
		<!-- 34 --><dict><key>$classname</key><string>NSLikePredicateOperator</string><key>$classes</key><array><string>NSLikePredicateOperator</string><string>NSMatchingPredicateOperator</string><string>NSStringPredicateOperator</string><string>NSPredicateOperator</string><string>NSObject</string></array></dict>
		<!-- 35 --><dict><key>$classname</key><string>NSComparisonPredicate</string><key>$classes</key><array><string>NSComparisonPredicate</string><string>NSPredicate</string><string>NSObject</string></array></dict>
		<!-- 36: spotlightItemFSName LIKE[c] "CVS" --><dict>
			<key>NSLeftExpression</key><dict><key>CF$UID</key><integer>37</integer></dict>
			<key>NSRightExpression</key><dict><key>CF$UID</key><integer>40</integer></dict>
			<key>NSPredicateOperator</key><dict><key>CF$UID</key><integer>42</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>35</integer></dict>
		</dict>
		<!-- 37 --><dict>
			<key>NSExpressionType</key><integer>3</integer>
			<key>NSSelectorName</key><dict><key>CF$UID</key><integer>21</integer></dict>
			<key>NSOperand</key><dict><key>CF$UID</key><integer>22</integer></dict>
			<key>NSArguments</key><dict><key>CF$UID</key><integer>38</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>29</integer></dict>
		</dict>
		<!-- 38 --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>39</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>28</integer></dict>
		</dict>
		<!-- 39 --><dict>
			<key>NSExpressionType</key><integer>10</integer>
			<key>NSKeyPath</key><dict><key>CF$UID</key><integer>26</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>27</integer></dict>
		</dict>
		<!-- 40 --><dict>
			<key>NSExpressionType</key><integer>0</integer>
			<key>NSConstantValue</key><dict><key>CF$UID</key><integer>41</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>32</integer></dict>
		</dict>
		<!-- 41 --><string>CVS</string>
		<!-- 42 --><dict>
			<key>NSOperatorType</key><integer>7</integer>
			<key>NSModifier</key><integer>0</integer>
			<key>NSFlags</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>34</integer></dict>
		</dict>
		<!-- 43: ... LIKE[c] ".svn" --><dict>
			<key>NSLeftExpression</key><dict><key>CF$UID</key><integer>44</integer></dict>
			<key>NSRightExpression</key><dict><key>CF$UID</key><integer>47</integer></dict>
			<key>NSPredicateOperator</key><dict><key>CF$UID</key><integer>49</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>35</integer></dict>
		</dict>
		<!-- 44 --><dict>
			<key>NSExpressionType</key><integer>3</integer>
			<key>NSSelectorName</key><dict><key>CF$UID</key><integer>21</integer></dict>
			<key>NSOperand</key><dict><key>CF$UID</key><integer>22</integer></dict>
			<key>NSArguments</key><dict><key>CF$UID</key><integer>45</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>29</integer></dict>
		</dict>
		<!-- 45 --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>46</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>28</integer></dict>
		</dict>
		<!-- 46 --><dict>
			<key>NSExpressionType</key><integer>10</integer>
			<key>NSKeyPath</key><dict><key>CF$UID</key><integer>26</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>27</integer></dict>
		</dict>
		<!-- 47 --><dict>
			<key>NSExpressionType</key><integer>0</integer>
			<key>NSConstantValue</key><dict><key>CF$UID</key><integer>48</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>32</integer></dict>
		</dict>
		<!-- 48 --><string>.svn</string>
		<!-- 49 --><dict>
			<key>NSOperatorType</key><integer>7</integer>
			<key>NSModifier</key><integer>0</integer>
			<key>NSFlags</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>34</integer></dict>
		</dict>
		<!-- 50: ... LIKE[c] ".git" --><dict>
			<key>NSLeftExpression</key><dict><key>CF$UID</key><integer>51</integer></dict>
			<key>NSRightExpression</key><dict><key>CF$UID</key><integer>54</integer></dict>
			<key>NSPredicateOperator</key><dict><key>CF$UID</key><integer>56</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>35</integer></dict>
		</dict>
		<!-- 51 --><dict>
			<key>NSExpressionType</key><integer>3</integer>
			<key>NSSelectorName</key><dict><key>CF$UID</key><integer>21</integer></dict>
			<key>NSOperand</key><dict><key>CF$UID</key><integer>22</integer></dict>
			<key>NSArguments</key><dict><key>CF$UID</key><integer>52</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>29</integer></dict>
		</dict>
		<!-- 52 --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>53</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>28</integer></dict>
		</dict>
		<!-- 53 --><dict>
			<key>NSExpressionType</key><integer>10</integer>
			<key>NSKeyPath</key><dict><key>CF$UID</key><integer>26</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>27</integer></dict>
		</dict>
		<!-- 54 --><dict>
			<key>NSExpressionType</key><integer>0</integer>
			<key>NSConstantValue</key><dict><key>CF$UID</key><integer>55</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>32</integer></dict>
		</dict>
		<!-- 55 --><string>.git</string>
		<!-- 56 --><dict>
			<key>NSOperatorType</key><integer>7</integer>
			<key>NSModifier</key><integer>0</integer>
			<key>NSFlags</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>34</integer></dict>
		</dict>
		<!-- 57: ... LIKE[c] ".hg" --><dict>
			<key>NSLeftExpression</key><dict><key>CF$UID</key><integer>58</integer></dict>
			<key>NSRightExpression</key><dict><key>CF$UID</key><integer>61</integer></dict>
			<key>NSPredicateOperator</key><dict><key>CF$UID</key><integer>63</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>35</integer></dict>
		</dict>
		<!-- 58 --><dict>
			<key>NSExpressionType</key><integer>3</integer>
			<key>NSSelectorName</key><dict><key>CF$UID</key><integer>21</integer></dict>
			<key>NSOperand</key><dict><key>CF$UID</key><integer>22</integer></dict>
			<key>NSArguments</key><dict><key>CF$UID</key><integer>59</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>29</integer></dict>
		</dict>
		<!-- 59 --><dict>
			<key>NS.objects</key><array><dict><key>CF$UID</key><integer>60</integer></dict></array>
			<key>$class</key><dict><key>CF$UID</key><integer>28</integer></dict>
		</dict>
		<!-- 60 --><dict>
			<key>NSExpressionType</key><integer>10</integer>
			<key>NSKeyPath</key><dict><key>CF$UID</key><integer>26</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>27</integer></dict>
		</dict>
		<!-- 61 --><dict>
			<key>NSExpressionType</key><integer>0</integer>
			<key>NSConstantValue</key><dict><key>CF$UID</key><integer>62</integer></dict>
			<key>$class</key><dict><key>CF$UID</key><integer>32</integer></dict>
		</dict>
		<!-- 62 --><string>.hg</string>
		<!-- 63 --><dict>
			<key>NSOperatorType</key><integer>7</integer>
			<key>NSModifier</key><integer>0</integer>
			<key>NSFlags</key><integer>1</integer>
			<key>$class</key><dict><key>CF$UID</key><integer>34</integer></dict>
		</dict>
		<!-- 64 --><dict><key>$classname</key><string>NSArray</string><key>$classes</key><array><string>NSArray</string><string>NSObject</string></array></dict>
		<!-- 65 --><dict><key>$classname</key><string>NSCompoundPredicate</string><key>$classes</key><array><string>NSCompoundPredicate</string><string>NSPredicate</string><string>NSObject</string></array></dict>
		<!-- 66 --><dict><key>$classname</key><string>NSDictionary</string><key>$classes</key><array><string>NSDictionary</string><string>NSObject</string></array></dict>
	</array>
</dict>
</plist>
)xml";

// A temporary directory with the two roots of the platform's example.
struct ExampleTree {
    QTemporaryDir dir;
    QByteArray base; // with a trailing slash
    QByteArray encodedBase;

    ExampleTree()
    {
        base = QFile::encodeName(dir.path()) + '/';
        QDir().mkpath(dir.filePath(QStringLiteral("site v1")));
        QDir().mkpath(dir.filePath(QStringLiteral("site-v2")));
        // The URL of the directory itself, without "file://", keeps its slash.
        encodedBase = KVNSessionArchive::fileURLString(base).mid(7).toUtf8();
    }
    QByteArray xml() const { return QByteArray(platformSessionTemplate).replace("@BASE@", encodedBase); }
    KVNSessionContents contents() const
    {
        KVNSessionContents contents;
        contents.originalURL = base + "site v1";
        contents.modifiedURL = base + "site-v2";
        contents.exclusionPredicate = parsed(defaultExclusionText);
        return contents;
    }
};

// Rows of data-driven tests name its directories, so it outlives them.
const ExampleTree &exampleTree()
{
    static const ExampleTree tree;
    return tree;
}

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
    for (int i = 0; i < nth; ++i) {
        at = text.indexOf(what, at + 1);
        if (at < 0) {
            qFatal("fixture edit target not found: %s", what.constData());
        }
    }
    return text.replace(at, what.size(), with);
}

QByteArray uidXml(int uid)
{
    return "<dict><key>CF$UID</key><integer>" + QByteArray::number(uid) + "</integer></dict>";
}

// Appends entries to $objects; the first gets UID 67.
QByteArray withEntries(QByteArray xml, const QByteArray &entries)
{
    return edited(xml, "\t</array>\n</dict>\n</plist>", entries + "\t</array>\n</dict>\n</plist>");
}

QByteArray classXml(const QList<QByteArray> &classes)
{
    QByteArray xml = "<dict><key>$classname</key><string>" + classes.front() + "</string><key>$classes</key><array>";
    for (const QByteArray &name : classes)
        xml += "<string>" + name + "</string>";
    return xml + "<string>NSObject</string></array></dict>";
}

void compareContents(const KVNSessionContents &actual, const KVNSessionContents &expected)
{
    QCOMPARE(actual.documentClass, expected.documentClass);
    QCOMPARE(actual.documentVersion.has_value(), expected.documentVersion.has_value());
    if (expected.documentVersion)
        QCOMPARE(*actual.documentVersion, *expected.documentVersion);
    QCOMPARE(actual.originalURL, expected.originalURL);
    QCOMPARE(actual.modifiedURL, expected.modifiedURL);
    QCOMPARE(actual.ancestorURL, expected.ancestorURL);
    if (!KVNPredicatesEqual(actual.exclusionPredicate, expected.exclusionPredicate))
        QFAIL(qPrintable(
            QStringLiteral("predicates differ:\n  %1\n  %2")
                .arg(KVNPredicateFormat(actual.exclusionPredicate), KVNPredicateFormat(expected.exclusionPredicate))));
}

std::optional<KVNSessionContents> roundTrip(const KVNSessionContents &contents, QString *error)
{
    return KVNSessionArchive::unarchive(KVNSessionArchive::archive(contents), error);
}

// A session whose predicate is depth NOTs around a TRUEPREDICATE.
QByteArray nestedNots(int depth)
{
    KVNKeyedArchiver archiver;
    const uint64_t root = archiver.reserve();
    const uint64_t key = archiver.encodeString(QStringLiteral("exclusionPredicate"));
    const uint64_t first = archiver.reserve();
    uint64_t current = first;
    for (int i = 0; i < depth; ++i) {
        const uint64_t array = archiver.reserve();
        const uint64_t next = archiver.reserve();
        archiver.setRecord(array, {{QStringLiteral("NS.objects"), std::vector<UID>{{next}}}}, {"NSArray", "NSObject"});
        archiver.setRecord(
            current,
            {{QStringLiteral("NSSubpredicates"), UID{array}}, {QStringLiteral("NSCompoundPredicateType"), int64_t(0)}},
            {"NSCompoundPredicate", "NSPredicate", "NSObject"});
        current = next;
    }
    archiver.setRecord(current, {}, {"NSTruePredicate", "NSPredicate", "NSObject"});
    archiver.setRecord(root,
                       {{QStringLiteral("NS.keys"), std::vector<UID>{{key}}},
                        {QStringLiteral("NS.objects"), std::vector<UID>{{first}}}},
                       {"NSDictionary", "NSObject"});
    return archiver.binary(root);
}

// mkdir -p on bytes, since a name that is not UTF-8 must survive unchanged;
// removes what it made, which QTemporaryDir cannot for such names.
class ByteDirectories {
public:
    ByteDirectories() = default;
    ByteDirectories(const ByteDirectories &) = delete;
    ByteDirectories &operator=(const ByteDirectories &) = delete;
    ~ByteDirectories()
    {
        for (auto it = made_.rbegin(); it != made_.rend(); ++it)
            ::rmdir(it->constData());
    }
    bool make(const QByteArray &path)
    {
        for (qsizetype slash = path.indexOf('/', 1); slash >= 0; slash = path.indexOf('/', slash + 1))
            makeOne(path.left(slash));
        makeOne(path);
        struct stat status;
        return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
    }

private:
    void makeOne(const QByteArray &path)
    {
        if (::mkdir(path.constData(), 0755) == 0)
            made_.append(path);
    }
    QList<QByteArray> made_;
};

QByteArray bigEndian(quint64 value, int size)
{
    QByteArray bytes;
    for (int i = size - 1; i >= 0; --i)
        bytes += char((value >> (8 * i)) & 0xFF);
    return bytes;
}

// A binary property list written by hand, for shapes and sizes no writer
// makes quickly: objects are given encoded, references and offsets are 4 bytes.
struct HandWrittenPlist {
    QList<QByteArray> objects;

    quint32 add(const QByteArray &encoded = QByteArray())
    {
        objects.append(encoded);
        return quint32(objects.size() - 1);
    }
    static QByteArray container(uint8_t marker, const QList<quint32> &refs, qsizetype count)
    {
        QByteArray object(1, char(marker | 0x0F));
        object += char(0x12) + bigEndian(quint64(count), 4);
        for (const quint32 ref : refs)
            object += bigEndian(ref, 4);
        return object;
    }
    static QByteArray array(const QList<quint32> &refs) { return container(0xA0, refs, refs.size()); }
    static QByteArray dictionary(const QList<quint32> &keys, const QList<quint32> &values)
    {
        return container(0xD0, keys + values, keys.size());
    }
    quint32 string(const QByteArray &ascii)
    {
        return add(char(0x5F) + (char(0x12) + bigEndian(ascii.size(), 4)) + ascii);
    }
    quint32 integer(quint32 value) { return add(char(0x12) + bigEndian(value, 4)); }
    quint32 uid(quint32 value) { return add(char(0x83) + bigEndian(value, 4)); }

    QByteArray binary(quint32 top = 0) const
    {
        QByteArray data = "bplist00";
        QList<quint32> offsets;
        for (const QByteArray &object : objects) {
            offsets.append(quint32(data.size()));
            data += object;
        }
        const quint64 table = quint64(data.size());
        for (const quint32 offset : offsets)
            data += bigEndian(offset, 4);
        data += QByteArray(6, '\0') + char(4) + char(4);
        return data + bigEndian(quint64(objects.size()), 8) + bigEndian(top, 8) + bigEndian(table, 8);
    }
};

QByteArray handWrittenBinary(const QList<QByteArray> &objects)
{
    return HandWrittenPlist{objects}.binary();
}

QByteArray handWrittenArray(const QList<quint32> &refs)
{
    return HandWrittenPlist::array(refs);
}

// nestedNots() written by hand: libplist's writer takes many seconds for the
// hundreds of thousands of objects of the deepest cases.
QByteArray handWrittenNestedNots(quint32 depth)
{
    HandWrittenPlist p;
    const quint32 top = p.add();
    const quint32 objectTable = p.add();
    const QList<quint32> topKeys = {p.string("$archiver"), p.string("$version"), p.string("$top"),
                                    p.string("$objects")};
    const quint32 root = p.add(HandWrittenPlist::dictionary({p.string("root")}, {p.uid(1)}));
    p.objects[top] =
        HandWrittenPlist::dictionary(topKeys, {p.string("NSKeyedArchiver"), p.integer(100000), root, objectTable});

    const quint32 keys = p.string("NS.keys"), objects = p.string("NS.objects"), classKey = p.string("$class");
    const quint32 subpredicates = p.string("NSSubpredicates"), type = p.string("NSCompoundPredicateType");
    const quint32 zero = p.integer(0);
    auto description = [&](const QList<QByteArray> &classes) {
        QList<quint32> names;
        for (const QByteArray &name : classes)
            names.append(p.string(name));
        return p.add(HandWrittenPlist::dictionary({p.string("$classname"), p.string("$classes")},
                                                  {names.front(), p.add(HandWrittenPlist::array(names))}));
    };
    // UIDs: 0 $null, 1 root, 2 its key, 3-6 classes, then NOT i at 7 + 2i, its
    // list at 8 + 2i, and TRUEPREDICATE at 7 + 2 * depth.
    QList<quint32> entries = {
        p.string("$null"),
        p.add(HandWrittenPlist::dictionary(
            {keys, objects, classKey},
            {p.add(HandWrittenPlist::array({p.uid(2)})), p.add(HandWrittenPlist::array({p.uid(7)})), p.uid(3)})),
        p.string("exclusionPredicate"),
        description({"NSDictionary", "NSObject"}),
        description({"NSCompoundPredicate", "NSPredicate", "NSObject"}),
        description({"NSArray", "NSObject"}),
        description({"NSTruePredicate", "NSPredicate", "NSObject"}),
    };
    for (quint32 i = 0; i < depth; ++i) {
        entries.append(
            p.add(HandWrittenPlist::dictionary({subpredicates, type, classKey}, {p.uid(8 + 2 * i), zero, p.uid(4)})));
        entries.append(p.add(HandWrittenPlist::dictionary(
            {objects, classKey}, {p.add(HandWrittenPlist::array({p.uid(9 + 2 * i)})), p.uid(5)})));
    }
    entries.append(p.add(HandWrittenPlist::dictionary({classKey}, {p.uid(6)})));
    p.objects[objectTable] = HandWrittenPlist::array(entries);
    return p.binary(top);
}

} // namespace

class TestSessionArchive : public QObject {
    Q_OBJECT

private slots:
    // What we write
    void binaryFormAndSinglePrecisionVersion();
    void layoutMatchesPlatformArchive();
    void nestedExclusionLayout();
    void nullIsOneSharedRecord();
    void fileURLs_data();
    void fileURLs();
    void fileURLParsing_data();
    void fileURLParsing();

    // What the platform writes
    void readsPlatformArchive_data();
    void readsPlatformArchive();

    // Round trips
    void roundTripsPredicates_data();
    void roundTripsPredicates();
    void roundTripsGrowingExclusion();
    void roundTripsPaths_data();
    void roundTripsPaths();
    void roundTripsAbsentValuesAndVersions();

    // What we refuse
    void refusesMalformedArchives_data();
    void refusesMalformedArchives();
    void boundsPredicateNesting();
    void refusesExponentialSharing();
    void survivesHostilePropertyLists();
    void survivesRandomBytes();
    void survivesTruncation();
    void survivesByteMutations();
};

// MARK: - What we write

void TestSessionArchive::binaryFormAndSinglePrecisionVersion()
{
    ExampleTree tree;
    for (const double version : {double(0.1f), 0.1}) {
        KVNSessionContents contents = tree.contents();
        contents.documentVersion = version;
        const QByteArray data = KVNSessionArchive::archive(contents);
        QVERIFY(data.startsWith("bplist00"));
        // About 2 KB, so offsets take 2 bytes and references 1, as the platform writes them.
        QCOMPARE(int(data[data.size() - 26]), 2);
        QCOMPARE(int(data[data.size() - 25]), 1);
        QVERIFY(data.contains(QByteArray::fromHex("223DCCCCCD")));          // 4-byte real 0.1f
        QVERIFY(!data.contains(QByteArray::fromHex("233FB999999999999A"))); // never the double 0.1
        QString error;
        const auto back = KVNSessionArchive::unarchive(data, &error);
        QVERIFY2(back, qPrintable(error));
        QCOMPARE(*back->documentVersion, 0.10000000149011612);
        QCOMPARE(float(*back->documentVersion), 0.1f);
    }
}

void TestSessionArchive::layoutMatchesPlatformArchive()
{
    // Entry by entry, our archive of the example session is the platform's.
    ExampleTree tree;
    const QStringList ours = describeAll(KVNSessionArchive::archive(tree.contents()));
    const QStringList theirs = describeAll(tree.xml());
    QCOMPARE(theirs.size(), 67);
    QCOMPARE(ours.size(), theirs.size());
    for (qsizetype i = 0; i < ours.size(); ++i)
        QVERIFY2(ours[i] == theirs[i],
                 qPrintable(QStringLiteral("entry %1:\n  ours   %2\n  theirs %3").arg(i).arg(ours[i], theirs[i])));
    QCOMPARE(ours[1], QStringLiteral(R"({"$class": @66, "NS.keys": [@2, @3, @4, @5, @6, @7], )"
                                     R"("NS.objects": [@8, @9, @10, @13, @15, @17]})"));
}

void TestSessionArchive::nestedExclusionLayout()
{
    // (<default> OR name ENDSWITH[c] ".log") OR name LIKE[c] "build": each
    // added exclusion wraps the previous predicate.
    ExampleTree tree;
    KVNSessionContents contents = tree.contents();
    contents.exclusionPredicate = KVNPredicate::orPredicateWithSubpredicates(
        {KVNPredicate::orPredicateWithSubpredicates(
             {contents.exclusionPredicate, nameComparison(Operator::EndsWith, QStringLiteral(".log"))}),
         nameComparison(Operator::Like, QStringLiteral("build"))});
    const QStringList d = describeAll(KVNSessionArchive::archive(contents));
    QCOMPARE(d.size(), 86);
    QCOMPARE(d[17], QStringLiteral(R"({"$class": @69, "NSCompoundPredicateType": 2, "NSSubpredicates": @18})"));
    QCOMPARE(d[18], QStringLiteral(R"({"$class": @68, "NS.objects": [@19, @78]})"));
    QCOMPARE(d[19], QStringLiteral(R"({"$class": @69, "NSCompoundPredicateType": 2, "NSSubpredicates": @20})"));
    QCOMPARE(d[20], QStringLiteral(R"({"$class": @68, "NS.objects": [@21, @70]})"));
    QCOMPARE(d[22], QStringLiteral(R"({"$class": @68, "NS.objects": [@23, @40, @47, @54, @61]})"));
    QCOMPARE(d[68], QStringLiteral(R"({"$classes": ["NSArray", "NSObject"], "$classname": "NSArray"})"));
    QCOMPARE(d[69], QStringLiteral(R"({"$classes": ["NSCompoundPredicate", "NSPredicate", "NSObject"], )"
                                   R"("$classname": "NSCompoundPredicate"})"));
    QCOMPARE(d[70], QStringLiteral(R"({"$class": @39, "NSLeftExpression": @71, "NSPredicateOperator": @76, )"
                                   R"("NSRightExpression": @74})"));
    QCOMPARE(d[71], QStringLiteral(R"({"$class": @33, "NSArguments": @72, "NSExpressionType": 3, "NSOperand": @26, )"
                                   R"("NSSelectorName": @25})"));
    QCOMPARE(d[72], QStringLiteral(R"({"$class": @32, "NS.objects": [@73]})"));
    QCOMPARE(d[73], QStringLiteral(R"({"$class": @31, "NSExpressionType": 10, "NSKeyPath": @30})"));
    QCOMPARE(d[74], QStringLiteral(R"({"$class": @36, "NSConstantValue": @75, "NSExpressionType": 0})"));
    QCOMPARE(d[75], QStringLiteral(R"(".log")"));
    QCOMPARE(d[76], QStringLiteral(R"({"$class": @77, "NSFlags": 1, "NSModifier": 0, "NSOperatorType": 9, )"
                                   R"("NSPosition": 1})"));
    QCOMPARE(d[77],
             QStringLiteral(R"({"$classes": ["NSSubstringPredicateOperator", "NSStringPredicateOperator", )"
                            R"("NSPredicateOperator", "NSObject"], "$classname": "NSSubstringPredicateOperator"})"));
    QCOMPARE(d[83], QStringLiteral(R"("build")"));
    QCOMPARE(d[84], QStringLiteral(R"({"$class": @38, "NSFlags": 1, "NSModifier": 0, "NSOperatorType": 7})"));
    QCOMPARE(d[85], QStringLiteral(R"({"$classes": ["NSDictionary", "NSObject"], "$classname": "NSDictionary"})"));
}

void TestSessionArchive::nullIsOneSharedRecord()
{
    // NSNull is a singleton: every absent value refers to the same record.
    KVNSessionContents contents;
    contents.originalURL = QByteArray("/nonexistent/left");
    const QByteArray data = KVNSessionArchive::archive(contents);
    const QStringList d = describeAll(data);
    QCOMPARE(d[1], QStringLiteral(R"({"$class": @15, "NS.keys": [@2, @3, @4, @5, @6, @7], )"
                                  R"("NS.objects": [@8, @9, @10, @13, @13, @13]})"));
    QCOMPARE(d[11], QStringLiteral(R"("file:///nonexistent/left")"));
    QCOMPARE(d[13], QStringLiteral(R"({"$class": @14})"));
    QCOMPARE(d[14], QStringLiteral(R"({"$classes": ["NSNull", "NSObject"], "$classname": "NSNull"})"));
}

void TestSessionArchive::fileURLs_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<bool>("directory");
    QTest::addColumn<QString>("encoded");

    QTest::newRow("space") << QByteArray("site v1") << true << QStringLiteral("site%20v1/");
    QTest::newRow("escapes") << QByteArray("100%#1?x") << true << QStringLiteral("100%25%231%3Fx/");
    QTest::newRow("accent") << QByteArray("caf\xC3\xA9") << true << QStringLiteral("caf%C3%A9/");
    QTest::newRow("not UTF-8") << QByteArray("raw\xFF\xFE") << true << QStringLiteral("raw%FF%FE/");
    QTest::newRow("kept as is") << QByteArray("a+b=c,d;e@f:g!h$i&j'k(l)m*n~o_p-q.r") << true
                                << QStringLiteral("a+b=c,d;e@f:g!h$i&j'k(l)m*n~o_p-q.r/");
    QTest::newRow("brackets and quotes") << QByteArray("[x]{y}\"z\"<>|^`\\") << true
                                         << QStringLiteral("%5Bx%5D%7By%7D%22z%22%3C%3E%7C%5E%60%5C/");
    QTest::newRow("missing: no slash") << QByteArray("missing") << false << QStringLiteral("missing");
}

void TestSessionArchive::fileURLs()
{
    QFETCH(QByteArray, name);
    QFETCH(bool, directory);
    QFETCH(QString, encoded);
    QTemporaryDir dir;
    ByteDirectories directories;
    const QByteArray base = QFile::encodeName(dir.path()) + '/';
    const QByteArray path = base + name;
    if (directory)
        QVERIFY(directories.make(path));
    const QString prefix = KVNSessionArchive::fileURLString(base);
    QVERIFY(prefix.startsWith(QStringLiteral("file:///")) && prefix.endsWith(u'/'));
    QCOMPARE(KVNSessionArchive::fileURLString(path), prefix + encoded);
    // A trailing slash given or not makes no difference.
    QCOMPARE(KVNSessionArchive::fileURLString(path + "/"), prefix + encoded);
    QString error;
    QCOMPARE(KVNSessionArchive::pathFromFileURL(prefix + encoded, &error), std::optional<QByteArray>(path));
}

void TestSessionArchive::fileURLParsing_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QByteArray>("path"); // empty: refused
    QTest::addColumn<QString>("problem");

    QTest::newRow("plain") << "file:///home/ana/site%20v1/" << QByteArray("/home/ana/site v1") << QString();
    QTest::newRow("localhost") << "file://localhost/home/ana/x/" << QByteArray("/home/ana/x") << QString();
    QTest::newRow("LOCALHOST, FILE") << "FILE://LocalHost/x" << QByteArray("/x") << QString();
    QTest::newRow("no authority") << "file:/x/y" << QByteArray("/x/y") << QString();
    QTest::newRow("root") << "file:///" << QByteArray("/") << QString();
    QTest::newRow("lower-case escapes") << "file:///a%c3%a9%2f" << QByteArray("/a\xC3\xA9") << QString();
    QTest::newRow("query and fragment end the path") << "file:///a/b?x=1#y" << QByteArray("/a/b") << QString();
    QTest::newRow("other scheme") << "http://example.com/x/" << QByteArray() << "is not a file URL";
    QTest::newRow("remote host") << "file://server/share/" << QByteArray() << "names the host \"server\"";
    QTest::newRow("short escape") << "file:///a%2" << QByteArray() << "malformed percent escape";
    QTest::newRow("bad escape") << "file:///a%zz" << QByteArray() << "malformed percent escape";
    QTest::newRow("NUL") << "file:///a%00b" << QByteArray() << "NUL byte";
    QTest::newRow("no path") << "file://localhost" << QByteArray() << "no absolute path";
    QTest::newRow("relative") << "site%20v1/" << QByteArray() << "is not a file URL";
}

void TestSessionArchive::fileURLParsing()
{
    QFETCH(QString, url);
    QFETCH(QByteArray, path);
    QFETCH(QString, problem);
    QString error;
    const auto result = KVNSessionArchive::pathFromFileURL(url, &error);
    if (path.isEmpty()) {
        QVERIFY(!result);
        QVERIFY2(error.contains(problem), qPrintable(error));
    } else {
        QVERIFY2(result, qPrintable(error));
        QCOMPARE(*result, path);
    }
}

// MARK: - What the platform writes

void TestSessionArchive::readsPlatformArchive_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("predicate"); // empty: the default exclusion
    QTest::addColumn<double>("version");
    QTest::addColumn<QByteArray>("modified");

    const ExampleTree &tree = exampleTree();
    const QByteArray xml = tree.xml();
    const QByteArray e = tree.encodedBase;
    const QByteArray nullBase = "<key>NS.base</key>" + uidXml(0);
    const double single = double(0.1f);

    struct Variant {
        const char *name;
        QByteArray xml;
        QString predicate;
        double version;
        QByteArray modified;
    };
    const QList<Variant> variants = {
        {"as saved", xml, QString(), single, "site-v2"},
        {"file://localhost", QByteArray(xml).replace("file:///", "file://localhost/"), QString(), single, "site-v2"},
        {"no trailing slash", edited(xml, "site%20v1/", "site%20v1"), QString(), single, "site-v2"},
        {"DOCTYPE line",
         edited(xml, "<plist version",
                "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version"),
         QString(), single, "site-v2"},
        {"version as a double", edited(xml, "<real>0.10000000149011612</real>", "<real>0.1</real>"), QString(), 0.1,
         "site-v2"},
        {"mutable root dictionary",
         edited(xml, classXml({"NSDictionary"}), classXml({"NSMutableDictionary", "NSDictionary"})), QString(), single,
         "site-v2"},
        {"mutable subpredicate array", edited(xml, classXml({"NSArray"}), classXml({"NSMutableArray", "NSArray"})),
         QString(), single, "site-v2"},
        {"options under NSOptions", QByteArray(xml).replace("<key>NSFlags</key>", "<key>NSOptions</key>"), QString(),
         single, "site-v2"},
        {"valueForKeyPath:", edited(xml, "<string>valueForKey:</string>", "<string>valueForKeyPath:</string>"),
         QString(), single, "site-v2"},
        {"class hints and unknown keys",
         edited(edited(xml, "<string>NSURL</string><string>NSObject</string></array>",
                       "<string>NSURL</string><string>NSObject</string></array><key>$classhints</key><array>"
                       "<string>NSObject</string></array>"),
                "<key>NSCompoundPredicateType</key>",
                "<key>NSFutureKey</key><integer>7</integer>"
                "<key>NSCompoundPredicateType</key>"),
         QString(), single, "site-v2"},
        {"extra root key",
         withEntries(edited(edited(xml, uidXml(7) + "</array>", uidXml(7) + uidXml(67) + "</array>"),
                            uidXml(17) + "</array>", uidXml(17) + uidXml(8) + "</array>"),
                     "<string>lastWindowFrame</string>\n"),
         QString(), single, "site-v2"},
        {"URL with a base",
         withEntries(edited(edited(xml, nullBase, "<key>NS.base</key>" + uidXml(67)),
                            "<string>file://" + e + "site%20v1/</string>", "<string>site%20v1/</string>"),
                     "<dict><key>NS.base</key>" + uidXml(0) + "<key>NS.relative</key>" + uidXml(68) +
                         "<key>$class</key>" + uidXml(12) + "</dict>\n<string>file://" + e + "</string>\n"),
         QString(), single, "site-v2"},
        {"URL relative to another URL",
         edited(edited(xml, nullBase, "<key>NS.base</key>" + uidXml(10), 2),
                "<string>file://" + e + "site-v2/</string>", "<string>../site%20v1/./sub/</string>"),
         QString(), single, "site v1/sub"},
        {"mutable strings",
         withEntries(edited(edited(xml, "<key>NS.relative</key>" + uidXml(14), "<key>NS.relative</key>" + uidXml(67)),
                            "<key>NS.objects</key><array>" + uidXml(8), "<key>NS.objects</key><array>" + uidXml(69)),
                     "<dict><key>NS.string</key><string>file://" + e + "site-v2/</string><key>$class</key>" +
                         uidXml(68) + "</dict>\n" + classXml({"NSMutableString", "NSString"}) +
                         "\n<dict><key>NS.string</key>" + uidXml(8) + "<key>$class</key>" + uidXml(68) + "</dict>\n"),
         QString(), single, "site-v2"},
        {"equal strings not shared",
         withEntries(edited(xml, "<key>NSKeyPath</key>" + uidXml(26), "<key>NSKeyPath</key>" + uidXml(67), 3),
                     "<string>spotlightItemFSName</string>\n"),
         QString(), single, "site-v2"},
        {"predicate as text",
         withEntries(edited(xml, uidXml(17) + "</array>", uidXml(67) + "</array>"),
                     "<string>spotlightItemFSName LIKE[c] \".git\" OR spotlightItemFSName ENDSWITH[cd] "
                     "\".log\"</string>\n"),
         QStringLiteral("spotlightItemFSName LIKE[c] \".git\" OR spotlightItemFSName ENDSWITH[cd] \".log\""), single,
         "site-v2"},
        {"equality operator, NSNegate as an integer",
         withEntries(edited(xml,
                            "<key>NSOperatorType</key><integer>7</integer>\n\t\t\t<key>NSModifier</key><integer>0"
                            "</integer>\n\t\t\t<key>NSFlags</key><integer>1</integer>\n\t\t\t<key>$class</key>" +
                                uidXml(34),
                            "<key>NSOperatorType</key><integer>5</integer><key>NSModifier</key><integer>0</integer>"
                            "<key>NSNegate</key><integer>1</integer><key>NSOptions</key><integer>1</integer>"
                            "<key>$class</key>" +
                                uidXml(67)),
                     classXml({"NSEqualityPredicateOperator", "NSPredicateOperator"}) + "\n"),
         QStringLiteral(R"(spotlightItemFSName !=[c] ".DS_Store" OR spotlightItemFSName LIKE[c] "CVS" OR )"
                        R"(spotlightItemFSName LIKE[c] ".svn" OR spotlightItemFSName LIKE[c] ".git" OR )"
                        R"(spotlightItemFSName LIKE[c] ".hg")"),
         single, "site-v2"},
    };
    for (const Variant &variant : variants) {
        QTest::addRow("%s, XML", variant.name)
            << variant.xml << variant.predicate << variant.version << tree.base + variant.modified;
        QTest::addRow("%s, binary", variant.name) << KVNPropertyListBinaryFromXml(variant.xml) << variant.predicate
                                                  << variant.version << tree.base + variant.modified;
    }
}

void TestSessionArchive::readsPlatformArchive()
{
    QFETCH(QByteArray, data);
    QFETCH(QString, predicate);
    QFETCH(double, version);
    QFETCH(QByteArray, modified);
    QString error;
    const auto contents = KVNSessionArchive::unarchive(data, &error);
    QVERIFY2(contents, qPrintable(error));
    KVNSessionContents expected;
    expected.documentVersion = version;
    expected.originalURL = exampleTree().base + "site v1";
    expected.modifiedURL = modified;
    expected.exclusionPredicate = parsed(predicate.isEmpty() ? defaultExclusionText : predicate);
    compareContents(*contents, expected);
}

// MARK: - Round trips

void TestSessionArchive::roundTripsPredicates_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("default exclusion") << defaultExclusionText;
    QTest::newRow("==") << R"(name == "a")";
    QTest::newRow("!=[c]") << R"(name !=[c] "a")";
    QTest::newRow("<") << "size < 5";
    QTest::newRow("<=") << "size <= 5.5";
    QTest::newRow(">") << "size > -3";
    QTest::newRow(">=[cd]") << R"(name >=[cd] "m")";
    QTest::newRow("MATCHES[cd]") << R"(name MATCHES[cd] "a.*b")";
    QTest::newRow("LIKE[d]") << R"(name LIKE[d] "*.t?t")";
    QTest::newRow("BEGINSWITH[c]") << R"(name BEGINSWITH[c] "x")";
    QTest::newRow("ENDSWITH") << R"(name ENDSWITH "y")";
    QTest::newRow("CONTAINS[cd]") << QStringLiteral(R"(name CONTAINS[cd] "é")");
    QTest::newRow("IN list") << R"(name IN {"a", "b", 3, 2.5, YES, nil})";
    QTest::newRow("IN string") << R"(name IN[c] "abcdef")";
    QTest::newRow("booleans") << "isDirectory == YES AND isLink == NO";
    QTest::newRow("nil") << "rightNode == nil";
    QTest::newRow("large integers") << "size >= 9223372036854775807 OR size <= -9223372036854775807";
    QTest::newRow("reals") << "ratio == 0.1 OR ratio == 1e300 OR ratio == -2.5e-300";
    QTest::newRow("escaped string") << R"(name == "quote \" backslash \\ tab \t")";
    QTest::newRow("astral and empty") << QStringLiteral("name == \"x\U0001D400y\" OR name == \"\"");
    QTest::newRow("dotted key path") << R"(leftNode.name == "x" AND a.b.c == 1)";
    QTest::newRow("SELF") << R"(SELF == "x")";
    QTest::newRow("date") << "modified > DATE(1700000000, 500000000)";
    QTest::newRow("TRUEPREDICATE") << "TRUEPREDICATE";
    QTest::newRow("FALSEPREDICATE") << "FALSEPREDICATE";
    QTest::newRow("inside compounds") << "TRUEPREDICATE AND (FALSEPREDICATE OR name == \"x\")";
    QTest::newRow("NOT, AND, OR") << R"(NOT (a == 1 AND (b == 2 OR NOT c == 3)) OR d == 4)";
    QTest::newRow("NOT NOT") << "NOT NOT a == 1";
}

void TestSessionArchive::roundTripsPredicates()
{
    QFETCH(QString, text);
    const KVNPredicatePtr predicate = parsed(text);
    QVERIFY(predicate);
    KVNSessionContents contents;
    contents.exclusionPredicate = predicate;
    QString error;
    const auto back = roundTrip(contents, &error);
    QVERIFY2(back, qPrintable(error));
    compareContents(*back, contents);
    QCOMPARE(KVNPredicateFormat(back->exclusionPredicate), KVNPredicateFormat(predicate));
}

void TestSessionArchive::roundTripsGrowingExclusion()
{
    // Each exclusion a user adds wraps the whole previous predicate.
    KVNPredicatePtr predicate = parsed(defaultExclusionText);
    for (int i = 0; i < 20; ++i) {
        const auto op = i % 2 ? Operator::EndsWith : Operator::Like;
        predicate = KVNPredicate::orPredicateWithSubpredicates(
            {predicate, nameComparison(op, QStringLiteral("name-%1").arg(i))});
    }
    KVNSessionContents contents;
    contents.exclusionPredicate = predicate;
    QString error;
    const auto back = roundTrip(contents, &error);
    QVERIFY2(back, qPrintable(error));
    compareContents(*back, contents);
    KVNPredicatePtr level = back->exclusionPredicate;
    for (int i = 0; i < 20; ++i) {
        QCOMPARE(level->kind(), KVNPredicate::Kind::Or);
        QCOMPARE(level->subpredicates().size(), std::size_t(2));
        level = level->subpredicates().front();
    }
    QCOMPARE(level->subpredicates().size(), std::size_t(5));
}

void TestSessionArchive::roundTripsPaths_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<bool>("directory");
    QTest::newRow("spaces") << QByteArray("my site v1") << true;
    QTest::newRow("percent") << QByteArray("100% done") << true;
    QTest::newRow("hash and question mark") << QByteArray("#tag?x=1") << true;
    QTest::newRow("non-ASCII") << QByteArray("na\xC3\xAFve \xE2\x82\xAC") << true;
    QTest::newRow("not UTF-8") << QByteArray("latin1 \xE9t\xE9 \xFF") << true;
    QTest::newRow("dots") << QByteArray("..a/./b..") << true;
    QTest::newRow("missing") << QByteArray("gone away") << false;
}

void TestSessionArchive::roundTripsPaths()
{
    QFETCH(QByteArray, name);
    QFETCH(bool, directory);
    QTemporaryDir dir;
    ByteDirectories directories;
    const QByteArray base = QFile::encodeName(dir.path());
    KVNSessionContents contents;
    contents.originalURL = base + "/left/" + name;
    contents.modifiedURL = base + "/right/" + name;
    contents.ancestorURL = base + "/" + name;
    if (directory) {
        for (const auto &path : {contents.originalURL, contents.modifiedURL, contents.ancestorURL})
            QVERIFY(directories.make(*path));
    }
    QString error;
    const auto back = roundTrip(contents, &error);
    QVERIFY2(back, qPrintable(error));
    compareContents(*back, contents);
}

void TestSessionArchive::roundTripsAbsentValuesAndVersions()
{
    KVNSessionContents contents;
    contents.documentClass = QStringLiteral("SomeOtherDocument");
    contents.documentVersion = 0.2;
    contents.originalURL = QByteArray("/");
    QString error;
    auto back = roundTrip(contents, &error);
    QVERIFY2(back, qPrintable(error));
    QCOMPARE(back->documentClass, QStringLiteral("SomeOtherDocument"));
    QCOMPARE(*back->documentVersion, double(0.2f)); // written in single precision
    QCOMPARE(back->originalURL, std::optional<QByteArray>("/"));
    QVERIFY(!back->modifiedURL && !back->ancestorURL && !back->exclusionPredicate);

    contents.documentVersion.reset(); // the document's own version
    back = roundTrip(contents, &error);
    QVERIFY2(back, qPrintable(error));
    QCOMPARE(*back->documentVersion, double(0.1f));
}

// MARK: - What we refuse

void TestSessionArchive::refusesMalformedArchives_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("problem");

    const ExampleTree &tree = exampleTree();
    const QByteArray xml = tree.xml();
    const QByteArray binary = KVNPropertyListBinaryFromXml(xml);
    const QByteArray e = tree.encodedBase;

    QTest::newRow("empty") << QByteArray() << "not a property list";
    QTest::newRow("text") << QByteArray("hello, world\n") << "not a property list";
    QTest::newRow("other binary version")
        << QByteArray("bplist01").append(binary.mid(8)) << "unsupported binary property list version";
    QTest::newRow("header only") << QByteArray("bplist00") << "truncated";
    QTest::newRow("offset table outside")
        << binary.left(binary.size() - 8) + QByteArray(8, '\xFF') << "offset table lies outside the file";
    QTest::newRow("broken XML") << QByteArray("<plist version=\"1.0\"><dict><key>a</dict></plist>") << "does not parse";
    QTest::newRow("not a dictionary") << QByteArray("<plist version=\"1.0\"><array/></plist>") << "not a keyed archive";

    struct Edit {
        const char *name;
        QByteArray xml;
        const char *problem;
    };
    const QList<Edit> edits = {
        {"$archiver", edited(xml, "<string>NSKeyedArchiver</string>", "<string>NSArchiver</string>"),
         "$archiver is \"NSArchiver\""},
        {"$version", edited(xml, "<integer>100000</integer>", "<integer>200000</integer>"), "version 200000"},
        {"no $top", edited(xml, "<key>$top</key>", "<key>$tip</key>"), "$top is missing"},
        {"no root", edited(xml, "<key>root</key>", "<key>rot</key>"), "no root"},
        {"root out of range", edited(xml, "<key>root</key>" + uidXml(1), "<key>root</key>" + uidXml(999)),
         "refers to object 999"},
        {"nil root", edited(xml, "<key>root</key>" + uidXml(1), "<key>root</key>" + uidXml(0)), "root object is nil"},
        {"UID out of range",
         edited(xml, "<key>NS.objects</key><array>" + uidXml(8), "<key>NS.objects</key><array>" + uidXml(250)),
         "refers to object 250"},
        {"keys and values differ", edited(xml, uidXml(7) + "</array>", "</array>"), "5 keys but 6 values"},
        {"root not a dictionary", edited(xml, classXml({"NSDictionary"}), classXml({"NSArray"})),
         "expected a dictionary"},
        {"$class not a description", edited(xml, "<key>$class</key>" + uidXml(65), "<key>$class</key>" + uidXml(18)),
         "is not a class description"},
        {"record without $class", edited(xml, "<key>$class</key>" + uidXml(16), ""), "has no $class"},
        {"own class", edited(xml, "<key>$class</key>" + uidXml(23), "<key>$class</key>" + uidXml(22)), "its own class"},
        {"version a string", edited(xml, "<real>0.10000000149011612</real>", "<string>0.1</string>"),
         "documentVersion is a string, expected a number"},
        {"compound type a string",
         edited(xml, "<key>NSCompoundPredicateType</key><integer>2</integer>",
                "<key>NSCompoundPredicateType</key><string>OR</string>"),
         "NSCompoundPredicateType is a string, expected an integer"},
        {"unknown compound type",
         edited(xml, "<key>NSCompoundPredicateType</key><integer>2</integer>",
                "<key>NSCompoundPredicateType</key><integer>7</integer>"),
         "unknown compound type 7"},
        {"NOT of five",
         edited(xml, "<key>NSCompoundPredicateType</key><integer>2</integer>",
                "<key>NSCompoundPredicateType</key><integer>0</integer>"),
         "NOT with 5 subpredicates"},
        {"unknown predicate class",
         edited(xml, classXml({"NSCompoundPredicate", "NSPredicate"}), classXml({"NSBlockPredicate"})),
         "(NSBlockPredicate) is not a predicate"},
        {"custom operator",
         edited(xml,
                classXml({"NSLikePredicateOperator", "NSMatchingPredicateOperator", "NSStringPredicateOperator",
                          "NSPredicateOperator"}),
                classXml({"NSCustomPredicateOperator", "NSPredicateOperator"})),
         "custom selector"},
        {"BETWEEN",
         edited(xml,
                classXml({"NSLikePredicateOperator", "NSMatchingPredicateOperator", "NSStringPredicateOperator",
                          "NSPredicateOperator"}),
                classXml({"NSBetweenPredicateOperator", "NSPredicateOperator"})),
         "BETWEEN comparisons are not supported"},
        {"unknown operator class",
         edited(xml,
                classXml({"NSLikePredicateOperator", "NSMatchingPredicateOperator", "NSStringPredicateOperator",
                          "NSPredicateOperator"}),
                classXml({"NSFuzzyPredicateOperator"})),
         "not a comparison operator"},
        {"ANY", edited(xml, "<key>NSModifier</key><integer>0</integer>", "<key>NSModifier</key><integer>2</integer>"),
         "ANY comparisons are not supported"},
        {"ALL",
         edited(xml, "<key>NSModifier</key><integer>0</integer>", "<key>NSModifier</key><integer>1</integer>", 3),
         "ALL comparisons are not supported"},
        {"locale option",
         edited(xml, "<key>NSFlags</key><integer>1</integer>", "<key>NSFlags</key><integer>9</integer>"),
         "options 9 are not supported"},
        {"operator type of another class",
         edited(xml, "<key>NSOperatorType</key><integer>7</integer>", "<key>NSOperatorType</key><integer>9</integer>"),
         "operator type 9"},
        {"variable expression",
         edited(xml, classXml({"NSConstantValueExpression", "NSExpression"}),
                classXml({"NSVariableExpression", "NSExpression"})),
         "is not an expression"},
        {"other function", edited(xml, "<string>valueForKey:</string>", "<string>uppercaseString</string>"),
         "the function uppercaseString is not supported"},
        {"bad key path", edited(xml, "<string>spotlightItemFSName</string>", "<string>not a key</string>"),
         "\"not a key\" is not a key path"},
        {"unparseable text",
         withEntries(edited(xml, uidXml(17) + "</array>", uidXml(67) + "</array>"), "<string>name LIKE</string>\n"),
         "predicate text does not parse"},
        {"web URL", edited(xml, "file://" + e + "site-v2/", "http://example.com/site-v2/"),
         "modifiedURL: \"http://example.com/site-v2/\" is not a file URL"},
        {"remote host", edited(xml, "file://" + e + "site-v2/", "file://server/site-v2/"), "names the host"},
        {"bad escape", edited(xml, "site%20v1/", "site%2v1/"), "malformed percent escape"},
        {"URL of the wrong class",
         edited(xml, "<key>NS.objects</key><array>" + uidXml(8) + uidXml(9) + uidXml(10),
                "<key>NS.objects</key><array>" + uidXml(8) + uidXml(9) + uidXml(17)),
         "originalURL is an object of class NSCompoundPredicate, expected a URL"},
        // Objects that contain themselves.
        {"predicate in its own subpredicates", edited(xml, "<array>" + uidXml(19), "<array>" + uidXml(17)),
         "object 17 contains itself"},
        {"subpredicate list in itself", edited(xml, "<array>" + uidXml(19), "<array>" + uidXml(18)),
         "object 18 contains itself"},
        {"expression its own operand",
         edited(xml, "<key>NSOperand</key>" + uidXml(22), "<key>NSOperand</key>" + uidXml(20)),
         "object 20 contains itself"},
        {"URL its own base", edited(xml, "<key>NS.base</key>" + uidXml(0), "<key>NS.base</key>" + uidXml(10)),
         "object 10 contains itself"},
        {"URLs each other's base",
         edited(edited(xml, "<key>NS.base</key>" + uidXml(0), "<key>NS.base</key>" + uidXml(13)),
                "<key>NS.base</key>" + uidXml(0), "<key>NS.base</key>" + uidXml(10)),
         "contains itself"},
        {"root as its own predicate", edited(xml, uidXml(17) + "</array>", uidXml(1) + "</array>"),
         "object 1 contains itself"},
    };
    for (const Edit &edit : edits) {
        QTest::addRow("%s, XML", edit.name) << edit.xml << QString::fromUtf8(edit.problem);
        QTest::addRow("%s, binary", edit.name)
            << KVNPropertyListBinaryFromXml(edit.xml) << QString::fromUtf8(edit.problem);
    }
}

void TestSessionArchive::refusesMalformedArchives()
{
    QFETCH(QByteArray, data);
    QFETCH(QString, problem);
    QString error;
    const auto contents = KVNSessionArchive::unarchive(data, &error);
    QVERIFY(!contents);
    QVERIFY2(error.contains(problem), qPrintable(QStringLiteral("error: ") + error));
    QVERIFY(!error.contains(u'\n'));
}

void TestSessionArchive::boundsPredicateNesting()
{
    QString error;
    const auto deepest = KVNSessionArchive::unarchive(nestedNots(KVNSessionArchive::maxPredicateDepth()), &error);
    QVERIFY2(deepest, qPrintable(error));
    KVNPredicatePtr level = deepest->exclusionPredicate;
    for (int i = 0; i < KVNSessionArchive::maxPredicateDepth(); ++i) {
        QCOMPARE(level->kind(), KVNPredicate::Kind::Not);
        level = level->subpredicates().front();
    }
    QCOMPARE(level->kind(), KVNPredicate::Kind::True);

    // The hand-written form reads like the archiver's.
    const auto shallow = KVNSessionArchive::unarchive(handWrittenNestedNots(3), &error);
    QVERIFY2(shallow, qPrintable(error));
    QCOMPARE(KVNPredicateFormat(shallow->exclusionPredicate), QStringLiteral("NOT (NOT (NOT TRUEPREDICATE))"));

    const QString tooDeep = QStringLiteral("nested deeper than %1 levels").arg(KVNSessionArchive::maxPredicateDepth());
    QVERIFY(!KVNSessionArchive::unarchive(nestedNots(KVNSessionArchive::maxPredicateDepth() + 1), &error));
    QVERIFY2(error.contains(tooDeep), qPrintable(error));
    const auto started = std::chrono::steady_clock::now();
    QVERIFY(!KVNSessionArchive::unarchive(handWrittenNestedNots(100'000), &error));
    QVERIFY2(error.contains(tooDeep), qPrintable(error));
    QVERIFY(std::chrono::steady_clock::now() - started < std::chrono::seconds(10));
}

void TestSessionArchive::refusesExponentialSharing()
{
    // Each OR holds the one below twice: 64 levels would be 2^64 comparisons
    // once expanded, which nothing downstream could walk.
    KVNKeyedArchiver archiver;
    const uint64_t root = archiver.reserve();
    const uint64_t key = archiver.encodeString(QStringLiteral("exclusionPredicate"));
    const uint64_t top = archiver.reserve();
    uint64_t current = top;
    for (int i = 0; i < 64; ++i) {
        const uint64_t array = archiver.reserve();
        const uint64_t next = archiver.reserve();
        archiver.setRecord(array, {{QStringLiteral("NS.objects"), std::vector<UID>{{next}, {next}}}},
                           {"NSArray", "NSObject"});
        archiver.setRecord(
            current,
            {{QStringLiteral("NSSubpredicates"), UID{array}}, {QStringLiteral("NSCompoundPredicateType"), int64_t(2)}},
            {"NSCompoundPredicate", "NSPredicate", "NSObject"});
        current = next;
    }
    archiver.setRecord(current, {}, {"NSFalsePredicate", "NSPredicate", "NSObject"});
    archiver.setRecord(
        root,
        {{QStringLiteral("NS.keys"), std::vector<UID>{{key}}}, {QStringLiteral("NS.objects"), std::vector<UID>{{top}}}},
        {"NSDictionary", "NSObject"});
    const auto started = std::chrono::steady_clock::now();
    QString error;
    QVERIFY(!KVNSessionArchive::unarchive(archiver.binary(root), &error));
    QVERIFY2(error.contains(QStringLiteral("too large")), qPrintable(error));
    QVERIFY(std::chrono::steady_clock::now() - started < std::chrono::seconds(10));
}

void TestSessionArchive::survivesHostilePropertyLists()
{
    QString error;
    // 100,000 arrays, each inside the next.
    QList<QByteArray> chain;
    for (quint32 i = 0; i < 100'000; ++i)
        chain.append(handWrittenArray({i + 1}));
    chain.append(handWrittenArray({}));
    QVERIFY(!KVNSessionArchive::unarchive(handWrittenBinary(chain), &error));
    QVERIFY2(error.contains(QStringLiteral("not a keyed archive")), qPrintable(error));

    // Arrays that hold the next one twice: 2^60 members if expanded.
    QList<QByteArray> shared;
    for (quint32 i = 0; i < 60; ++i)
        shared.append(handWrittenArray({i + 1, i + 1}));
    shared.append(handWrittenArray({}));
    QVERIFY(!KVNSessionArchive::unarchive(handWrittenBinary(shared), &error));
    QVERIFY2(error.contains(QStringLiteral("not a keyed archive")), qPrintable(error));

    // An array that holds itself, and one whose count runs past the file.
    QVERIFY(!KVNSessionArchive::unarchive(handWrittenBinary({handWrittenArray({0})}), &error));
    QByteArray overlong = handWrittenArray({0});
    overlong[5] = char(0x7F);
    QVERIFY(!KVNSessionArchive::unarchive(handWrittenBinary({overlong}), &error));
    QVERIFY2(error.contains(QStringLiteral("runs past the end")), qPrintable(error));

    // XML nested 200,000 deep.
    const QByteArray deepXml = "<plist version=\"1.0\">" + QByteArray("<array>").repeated(200'000) +
                               QByteArray("</array>").repeated(200'000) + "</plist>";
    QVERIFY(!KVNSessionArchive::unarchive(deepXml, &error));
    QVERIFY2(error.contains(QStringLiteral("nested more than")), qPrintable(error));
}

void TestSessionArchive::survivesRandomBytes()
{
    std::mt19937 random(20240611);
    for (int i = 0; i < 3000; ++i) {
        QByteArray data(qsizetype(random() % 700), Qt::Uninitialized);
        for (char &byte : data)
            byte = char(random());
        if (i % 3 == 0)
            data.prepend("bplist00");
        else if (i % 3 == 1)
            data.prepend("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>");
        QString error;
        QVERIFY(!KVNSessionArchive::unarchive(data, &error));
        QVERIFY(!error.isEmpty());
    }
}

void TestSessionArchive::survivesTruncation()
{
    ExampleTree tree;
    KVNSessionContents contents = tree.contents();
    contents.exclusionPredicate = KVNPredicate::orPredicateWithSubpredicates(
        {contents.exclusionPredicate, nameComparison(Operator::EndsWith, QStringLiteral(".log"))});
    const QByteArray binary = KVNSessionArchive::archive(contents);
    for (qsizetype length = 0; length < binary.size(); ++length) {
        QString error;
        QVERIFY(!KVNSessionArchive::unarchive(binary.left(length), &error));
        QVERIFY(!error.isEmpty());
    }
    // A cut XML file may still be whole when only trailing space is lost.
    const QByteArray xml = tree.xml();
    int refused = 0;
    for (qsizetype length = 0; length < xml.size(); length += 7) {
        QString error;
        if (!KVNSessionArchive::unarchive(xml.left(length), &error)) {
            QVERIFY(!error.isEmpty());
            ++refused;
        }
    }
    QVERIFY(refused > 0);
}

void TestSessionArchive::survivesByteMutations()
{
    ExampleTree tree;
    const QByteArray binary = KVNSessionArchive::archive(tree.contents());
    const QByteArray xml = tree.xml();
    std::mt19937 random(7);
    int accepted = 0;
    int refused = 0;
    for (int i = 0; i < 6000; ++i) {
        QByteArray data = i % 4 == 3 ? xml : binary;
        const int changes = 1 + int(random() % 3);
        for (int c = 0; c < changes; ++c) {
            const auto at = qsizetype(random() % quint32(data.size()));
            data[at] = i % 2 ? char(random()) : char(data[at] ^ (1 << (random() % 8)));
        }
        QString error;
        if (KVNSessionArchive::unarchive(data, &error)) {
            ++accepted;
        } else {
            QVERIFY(!error.isEmpty());
            ++refused;
        }
    }
    // Some changes hit only a string's characters; most break the structure.
    QVERIFY(refused > accepted);
}

QTEST_GUILESS_MAIN(TestSessionArchive)
#include "tst_sessionarchive.moc"

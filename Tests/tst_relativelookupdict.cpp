// The lookup table derives each node's key instead of storing it: a key given
// as text, and a node of the other tree, must find exactly what the
// lower-cased relative path would.
#include "KVNFileNode.h"
#include "KVNPathBytes.h"
#include "KVNRelativeLookupDict.h"

#include <QTest>

class TestRelativeLookupDict : public QObject {
    Q_OBJECT

    // A tree of nodes under base, made in memory: "dir<i>/file<j>" names.
    static std::vector<KVNFileNodePtr> makeTree(const QByteArray &base, const QList<QByteArray> &paths)
    {
        auto root = KVNFileNode::make(base, "./", nullptr, 0);
        QHash<QByteArray, KVNFileNodePtr> directories{{"./", root}};
        std::vector<KVNFileNodePtr> nodes;
        for (const QByteArray &path : paths) {
            const qsizetype slash = path.lastIndexOf('/');
            const QByteArray directory = slash < 0 ? QByteArray("./") : "./" + path.left(slash);
            auto &parent = directories[directory];
            if (!parent) { // directories come before what they hold
                parent = KVNFileNode::makeChild(directories.value("./"), directory.mid(2));
                nodes.push_back(parent);
            }
            auto node = KVNFileNode::makeChild(parent, slash < 0 ? path : path.mid(slash + 1));
            parent->addChildNode(node);
            nodes.push_back(node);
        }
        return nodes;
    }

private slots:
    void keysAreLowerCasedPathsOfEveryForm_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("ascii") << QByteArray("Docs/ReadMe.TXT");
        QTest::newRow("top level") << QByteArray("Makefile");
        QTest::newRow("unicode case") << QByteArray("\xc3\x84rger/\xc3\x9c"
                                                    "ber.md");
        QTest::newRow("not utf-8") << QByteArray("Caf\xe9/Na\xefve");
        QTest::newRow("odd bytes") << QByteArray("a b/100% [x]?");
    }
    void keysAreLowerCasedPathsOfEveryForm()
    {
        QFETCH(QByteArray, path);
        const auto left = makeTree("/left", {path, "Other/x"});
        const auto right = makeTree("/elsewhere/right", {path.toUpper(), "other/X"});
        KVNRelativeLookupDict lookup;
        for (const auto &node : right)
            lookup.insert(node);
        for (const auto &node : left) {
            const auto found = lookup.value(node->lowercaseRelativePath());
            QVERIFY2(found, node->relativePath().constData());
            QCOMPARE(found->lowercaseRelativePath(), node->lowercaseRelativePath());
            QCOMPARE(lookup.valueMatching(*node), found);
        }
        QVERIFY(!lookup.value(KVNPathBytes::lowercasePath("./" + path) + "x"));
        if (path != path.toLower())
            QVERIFY(!lookup.value("./" + path)); // keys are lower-cased; the exact case is not one
    }

    void aLaterNodeReplacesTheEarlierInItsPlace()
    {
        const auto nodes = makeTree("/t", {"a", "B", "b", "c"});
        KVNRelativeLookupDict lookup;
        for (const auto &node : nodes)
            lookup.insert(node);
        QCOMPARE(lookup.size(), size_t(3));
        QCOMPARE(lookup.value("./b"), nodes[2]);
        const std::vector<KVNFileNodePtr> order(lookup.begin(), lookup.end());
        QCOMPARE(order, (std::vector<KVNFileNodePtr>{nodes[0], nodes[2], nodes[3]}));
    }

    void aLargeTreeStaysFindableAsTheTableGrows()
    {
        QList<QByteArray> paths;
        for (int d = 0; d < 200; ++d)
            for (int f = 0; f < 250; ++f)
                paths << QByteArray("Dir%1/File%2.dat")
                             .replace("%1", QByteArray::number(d))
                             .replace("%2", QByteArray::number(f));
        const auto left = makeTree("/l", paths);
        const auto right = makeTree("/r", paths);
        KVNRelativeLookupDict lookup;
        for (const auto &node : right)
            lookup.insert(node);
        lookup.squeeze();
        QCOMPARE(lookup.size(), right.size());
        for (std::size_t i = 0; i < left.size(); ++i)
            QVERIFY(lookup.valueMatching(*left[i]) == right[i]);
        QVERIFY(std::equal(lookup.begin(), lookup.end(), right.begin()));
    }
};

QTEST_GUILESS_MAIN(TestRelativeLookupDict)
#include "tst_relativelookupdict.moc"

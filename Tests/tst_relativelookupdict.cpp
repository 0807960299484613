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

    // Sizes at and around a power of two (where the index takes one bit more
    // from the tag), a table grown after it was squeezed, and one large
    // enough that many keys share a tag: every node is found, a node of a
    // third tree never is, and iteration keeps insertion order.
    void everySizeFindsExactlyWhatItHolds_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("addedAfterSqueeze");
        for (int count : {1, 11, 12, 13, 255, 256, 257, 3071, 3072, 3073})
            QTest::addRow("%d", count) << count << 0;
        QTest::newRow("grown after squeeze") << 1000 << 3000;
        QTest::newRow("one more after squeeze") << 3072 << 1;
        QTest::newRow("shared tags") << 150000 << 0;
    }
    void everySizeFindsExactlyWhatItHolds()
    {
        QFETCH(int, count);
        QFETCH(int, addedAfterSqueeze);
        const std::size_t total = std::size_t(count + addedAfterSqueeze);
        QList<QByteArray> paths, absent;
        for (std::size_t i = 0; i < total; ++i) {
            paths << "D" + QByteArray::number(i / 100) + "/F" + QByteArray::number(i) + ".c";
            absent << "E" + QByteArray::number(i / 100) + "/F" + QByteArray::number(i) + ".c";
        }
        auto right = makeTree("/r", paths);
        auto left = makeTree("/l", paths);
        right.resize(total); // directories count among the nodes
        left.resize(total);
        const auto other = makeTree("/o", absent);
        KVNRelativeLookupDict lookup;
        for (std::size_t i = 0; i < total; ++i) {
            if (i == std::size_t(count))
                lookup.squeeze();
            lookup.insert(right[i]);
        }
        lookup.squeeze();
        QCOMPARE(lookup.size(), total);
        QVERIFY(std::equal(lookup.begin(), lookup.end(), right.begin(), right.end()));
        for (std::size_t i = 0; i < total; ++i) {
            QVERIFY(lookup.valueMatching(*left[i]) == right[i]);
            if (i % 7 == 0)
                QVERIFY(lookup.value(left[i]->lowercaseRelativePath()) == right[i]);
        }
        for (const auto &node : other)
            QVERIFY2(!lookup.valueMatching(*node), node->relativePath().constData());
        // The same key again replaces the node in its place, squeezed or not.
        const auto again = makeTree("/again", {left.back()->relativePath().mid(2)});
        lookup.insert(again.back());
        QCOMPARE(lookup.size(), total);
        QVERIFY(lookup.valueMatching(*left.back()) == again.back());
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

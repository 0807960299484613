// The table derives each node's key instead of storing it: a key given as
// text, and a node of the other tree, must find what the lower-cased relative
// path would.
#include "KVNFileNode.h"
#include "KVNPathBytes.h"
#include "KVNRelativeLookupDict.h"

#include <QTest>

class TestRelativeLookupDict : public QObject {
    Q_OBJECT

    // Nodes under base, at most one directory deep; a directory comes before what it holds.
    static std::vector<KVNFileNodePtr> makeTree(const QByteArray &base, const QList<QByteArray> &paths)
    {
        auto root = KVNFileNode::make(base, "./", nullptr, 0);
        QHash<QByteArray, KVNFileNodePtr> directories;
        std::vector<KVNFileNodePtr> nodes;
        for (const QByteArray &path : paths) {
            const qsizetype slash = path.lastIndexOf('/');
            KVNFileNodePtr parent = root;
            if (slash >= 0) {
                auto &directory = directories[path.left(slash)];
                if (!directory)
                    nodes.push_back(directory = KVNFileNode::makeChild(root, path.left(slash)));
                parent = directory;
            }
            nodes.push_back(KVNFileNode::makeChild(parent, path.mid(slash + 1)));
            parent->addChildNode(nodes.back());
        }
        return nodes;
    }

private slots:
    void keysAreLowerCasedPathsOfEveryForm_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("ascii") << QByteArray("Docs/ReadMe.TXT");
        QTest::newRow("unicode case") << QByteArray("\xc3\x84rger/\xc3\x9c"
                                                    "ber.md");
        QTest::newRow("not utf-8") << QByteArray("Caf\xe9/Na\xefve");
        QTest::newRow("odd bytes") << QByteArray("a b/100% [x]?");
    }
    void keysAreLowerCasedPathsOfEveryForm()
    {
        QFETCH(QByteArray, path);
        const auto left = makeTree("/left", {path, "Makefile"});
        KVNRelativeLookupDict lookup;
        for (const auto &node : makeTree("/elsewhere/right", {path.toUpper(), "MAKEFILE"}))
            lookup.insert(node);
        for (const auto &node : left) {
            const auto found = lookup.value(node->lowercaseRelativePath());
            QVERIFY2(found, node->relativePath().constData());
            QCOMPARE(found->lowercaseRelativePath(), node->lowercaseRelativePath());
            QCOMPARE(lookup.valueMatching(*node), found);
        }
        QVERIFY(!lookup.value(KVNPathBytes::lowercasePath("./" + path) + "x"));
        if (path != path.toLower())
            QVERIFY(!lookup.value("./" + path)); // the exact case is not a key
    }

    // A squeezed table has let its hashes go; replacing and growing must still work.
    void aLaterNodeReplacesTheEarlierInItsPlace()
    {
        const auto nodes = makeTree("/t", {"a", "B", "b", "c"});
        KVNRelativeLookupDict lookup;
        lookup.insert(nodes[0]);
        lookup.insert(nodes[1]);
        lookup.squeeze();
        lookup.insert(nodes[2]);
        lookup.insert(nodes[3]);
        QCOMPARE(lookup.value("./b"), nodes[2]);
        const std::vector<KVNFileNodePtr> order(lookup.begin(), lookup.end());
        QCOMPARE(order, (std::vector<KVNFileNodePtr>{nodes[0], nodes[2], nodes[3]}));
    }

    // Sizes around a power of two (where the index takes one more bit from the
    // tag), growth after a squeeze, and enough keys that many share a tag.
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
        QList<QByteArray> paths;
        for (std::size_t i = 0; i < total; ++i)
            paths << "D" + QByteArray::number(i / 100) + "/F" + QByteArray::number(i) + ".c";
        auto right = makeTree("/r", paths), left = makeTree("/l", paths);
        right.resize(total); // directories count among the nodes
        left.resize(total);
        KVNRelativeLookupDict lookup;
        for (std::size_t i = 0; i < total; ++i) {
            if (i == std::size_t(count))
                lookup.squeeze();
            lookup.insert(right[i]);
        }
        lookup.squeeze();
        QVERIFY(std::equal(lookup.begin(), lookup.end(), right.begin(), right.end()));
        for (std::size_t i = 0; i < total; ++i) {
            const QByteArray key = left[i]->lowercaseRelativePath();
            QVERIFY(lookup.valueMatching(*left[i]) == right[i] && lookup.value(key) == right[i]);
            QVERIFY2(!lookup.value(key + "~"), key.constData()); // probes past shared tags to an empty slot
        }
    }
};

QTEST_GUILESS_MAIN(TestRelativeLookupDict)
#include "tst_relativelookupdict.moc"

// The table derives each node's key instead of storing it: a key given as
// text, and a node of the other tree, must find what the lower-cased relative
// path would.
#include "KVNFileNode.h"
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
            auto &parent = slash < 0 ? root : directories[path.left(slash)];
            if (!parent)
                nodes.push_back(parent = KVNFileNode::makeChild(root, path.left(slash)));
            nodes.push_back(KVNFileNode::makeChild(parent, path.mid(slash + 1)));
            parent->addChildNode(nodes.back());
        }
        return nodes;
    }

private slots:
    void keysAreLowerCasedPathsOfEveryForm_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("unicode case") << QByteArray("\xc3\x84rger/\xc3\x9cmlaut 100% [x]?.md");
        QTest::newRow("not utf-8") << QByteArray("Caf\xe9/Na\xefve");
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
            QVERIFY(found && found->lowercaseRelativePath() == node->lowercaseRelativePath());
            QCOMPARE(lookup.valueMatching(*node), found);
        }
        QVERIFY(!lookup.value("./" + path)); // the exact case is not a key
    }

    // Sizes around a power of two (where the index takes one more bit from the
    // tag), enough keys that many share a tag, and squeezes part way and just
    // before the last: a squeezed table has let its hashes go, and growing,
    // and a later node replacing the earlier in its place, must still work.
    void everySizeFindsExactlyWhatItHolds_data()
    {
        QTest::addColumn<int>("count");
        for (int count : {1, 11, 12, 13, 255, 256, 257, 3071, 3072, 3073, 150000})
            QTest::addRow("%d", count) << count;
    }
    void everySizeFindsExactlyWhatItHolds()
    {
        QFETCH(int, count);
        QList<QByteArray> paths;
        for (int i = 0; i < count; ++i)
            paths << "D" + QByteArray::number(i / 100) + "/F" + QByteArray::number(i) + ".c";
        auto right = makeTree("/r", paths), left = makeTree("/l", paths);
        KVNRelativeLookupDict lookup; // the first count nodes, directories among them
        for (int i = 0; i < count; ++i) {
            if (i == count / 4 || i == count - 1)
                lookup.squeeze();
            lookup.insert(right[i]);
        }
        lookup.squeeze();
        QVERIFY(std::equal(lookup.begin(), lookup.end(), right.begin(), right.begin() + count));
        for (int i = 0; i < count; ++i) {
            const QByteArray key = left[i]->lowercaseRelativePath();
            QVERIFY(lookup.valueMatching(*left[i]) == right[i] && lookup.value(key) == right[i]);
            QVERIFY2(!lookup.value(key + "~"), key.constData()); // probes past shared tags to an empty slot
        }
        const auto &later = left[count / 2]; // replaces its twin from the other tree, in its place
        lookup.insert(later);
        QVERIFY(lookup.begin()[count / 2] == later && lookup.valueMatching(*later) == later);
        QCOMPARE(lookup.size(), std::size_t(count));
    }
};

QTEST_GUILESS_MAIN(TestRelativeLookupDict)
#include "tst_relativelookupdict.moc"

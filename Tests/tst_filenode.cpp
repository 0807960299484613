// ctest-label: concurrency
// Nodes: paths kept as bytes, the pairing key, derived sizes and labels, and
// the narrow rule by which a child's result reaches its parent.
#include "KVNBuildTreeFastOperation.h"
#include "KVNFileNode.h"
#include "KVNOperationQueue.h"
#include "KVNPathBytes.h"
#include "KVNTestTree.h"

#include <QTest>

#include <thread>

class TestFileNode : public QObject {
    Q_OBJECT

    static std::shared_ptr<KVNBuildTreeFastOperation> scan(const QByteArray &root, bool cancelled = false)
    {
        auto operation = KVNBuildTreeFastOperation::make(root);
        if (cancelled)
            operation->cancel();
        KVNOperationQueue queue;
        queue.addOperation(operation);
        queue.waitUntilAllOperationsAreFinished();
        return operation;
    }

private slots:
    void scannedNodesKeepNamesAndOutliveTheirTree()
    {
        // Scanned nodes derive their paths and keys through their parents; a node
        // kept by itself must still answer them once the tree is gone.
        KVNTestTree tree;
        const QByteArray dir = "Deep/\xc3\x84pfel/";
        const QList<QByteArray> names = {"100% done", "#tag?", "line\nbreak", "caf\xe9", "Na\xffme.TXT"};
        for (const QByteArray &name : names)
            tree.file(dir + name, "x");
        const auto placed = [&](const KVNFileNodePtr &node, const QByteArray &name) {
            const QByteArray key = KVNPathBytes::lowercasePath("./" + dir + name);
            QCOMPARE(node->relativePath(), "./" + dir + name);
            QCOMPARE(node->absolutePath(), tree.path(dir + name));
            QCOMPARE(node->directoryPath(), tree.path(dir.chopped(1)));
            QCOMPARE(node->name(), name);
            QVERIFY(node->hasLowercaseRelativePath(key));
        };
        std::vector<KVNFileNodePtr> kept;
        {
            auto fileTree = scan(tree.root())->fileTree();
            QVERIFY(fileTree);
            const auto &root = fileTree->fileTreeRoot();
            QVERIFY(root->relativePath() == "./" && root->absolutePath() == tree.root() && !root->fileAttrs());
            QCOMPARE(root->childNodes().size(), size_t(1));
            auto lookup = *fileTree->relativeLookupDict();
            QCOMPARE(lookup.size(), 2 + names.size());
            // Unicode letters fold in a name that is text; elsewhere only ASCII letters fold.
            QVERIFY(lookup.value("./deep/\xc3\xa4pfel/na\xffme.txt"));
            for (const QByteArray &name : names) {
                kept.push_back(lookup.value(KVNPathBytes::lowercasePath("./" + dir + name)));
                QVERIFY2(kept.back(), name.constData());
                placed(kept.back(), name);
            }
            QVERIFY(kept[0]->directoryNode().get() == kept[1]->directoryNode().get());
        }
        for (std::size_t i = 0; i < kept.size(); ++i) {
            QVERIFY(!kept[i]->parentNode());
            placed(kept[i], names[qsizetype(i)]);
        }

        // A missing root, and a scan cancelled before it starts, give no tree.
        QVERIFY(!scan(tree.path("does-not-exist"))->fileTree());
        QVERIFY(!scan(tree.root(), true)->fileTree());
    }

    void parentRuleIsNarrow()
    {
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        auto a = KVNFileNode::make("/b", "./a", root, 1);
        auto ab = KVNFileNode::make("/b", "./a/b", a, 2);
        auto abc = KVNFileNode::make("/b", "./a/b/c", ab, 3);
        root->addChildNode(a);
        a->addChildNode(ab);
        ab->addChildNode(abc);
        // A 3 under a 1 changes nothing; a 2 alone does not climb either.
        ab->setDiffResult(KVNDiffResultSame);
        abc->setDiffResult(KVNDiffResultSingle);
        abc->setDiffResult(KVNDiffResultDiffer);
        QCOMPARE(ab->diffResult(), 1);
        // A 3 under a 2 makes it 5, and a 5 climbs to the top whatever stood there.
        ab->setDiffResult(KVNDiffResultDiffer);
        a->setDiffResult(KVNDiffResultSame);
        abc->setDiffResult(KVNDiffResultSingle);
        QCOMPARE(ab->diffResult(), 5);
        QCOMPARE(a->diffResult(), 5);
        QCOMPARE(root->diffResult(), 5);
        // With its parent gone there is nobody to tell: nothing happens.
        root = a = ab = nullptr;
        QVERIFY(!abc->parentNode());
        abc->setDiffResult(KVNDiffResultSingle);
    }

    void parentRuleUnderConcurrentChildren()
    {
        // Many children settle at once: the parent ends at 5 and nothing deadlocks.
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        auto dir = KVNFileNode::makeChild(root, "d");
        root->addChildNode(dir);
        std::vector<KVNFileNodePtr> children;
        for (int i = 0; i < 400; ++i)
            dir->addChildNode(children.emplace_back(KVNFileNode::makeChild(dir, "f" + QByteArray::number(i))));
        dir->setDiffResult(KVNDiffResultDiffer);
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = t; i < 400; i += 4)
                    children[size_t(i)]->setDiffResult(i % 2 ? KVNDiffResultSingle : KVNDiffResultDiffer);
            });
        threads.clear();
        QCOMPARE(dir->diffResult(), 5);
        QCOMPARE(root->diffResult(), 5);
    }

    void attributesRoundTripExactly()
    {
        // Ordinary values are kept packed, extreme ones beside the node: both come back as set.
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        const int64_t far = int64_t(1) << 33;
        const KVNFileAttributes cases[] = {
            {KVNFileType::Regular, true, (uint64_t(1) << 48) - 1, {1700000000, 999999999}},
            {KVNFileType::Regular, true, uint64_t(1) << 48, {1700000000, 1}},
            {KVNFileType::Other, true, ~uint64_t(0), {INT64_MIN, 5}},
            {KVNFileType::SymbolicLink, true, 12, {far - 1, 7}},
            {KVNFileType::Directory, false, 0, {far, 0}},
            {KVNFileType::Regular, true, 3, {-far - 1, 0}},
        };
        for (const auto &attrs : cases) {
            // Names that end inside the node's last word and well past it.
            for (const QByteArray &name : {QByteArray("a"), QByteArray("sixchr"), QByteArray(200, 'n')}) {
                auto node = KVNFileNode::makeChild(root, name);
                node->setFileAttrs(attrs);
                QCOMPARE(node->fileAttrs(), std::optional<KVNFileAttributes>(attrs));
                QCOMPARE(node->isDirectory(), attrs.fileType == KVNFileType::Directory);
                QCOMPARE(node->name(), name);
                node->setFileAttrs(std::nullopt);
                QVERIFY(!node->fileAttrs() && !node->modifiedDate());
            }
        }
    }

    void observersFollowTheNodeThroughItsExtras()
    {
        // A counting observer that is never on its way out.
        struct Counter : KVNNodeObserver {
            int told = 0;
            void observeValueForKeyPath(KVNNodeKey, KVNFileNode &) override { ++told; }
            bool retainObserver() noexcept override { return true; }
            void releaseObserver() noexcept override {}
        };
        KVNTestTree tree;
        tree.file("d/a.txt", "a");
        const auto lookup = scan(tree.root())->fileTree()->relativeLookupDict();
        // A file starts with no Extras, a directory with them: both must keep
        // the first observer when later needs (a kind, a second observer) arrive.
        for (const char *key : {"./d/a.txt", "./d"}) {
            const KVNFileNodePtr node = (*lookup)[key];
            Counter first, second;
            node->addObserver(&first);
            node->setDiffResult(KVNDiffResultSame);
            QVERIFY(!node->spotlightItemKind().isEmpty());
            node->addObserver(&second);
            node->setCrc32(7);
            node->setDiffResult(KVNDiffResultDiffer);
            node->removeObserver(&first);
            node->setFileAttrs(node->fileAttrs());
            node->removeObserver(&second);
            node->setDiffResult(KVNDiffResultSame);
            QCOMPARE(first.told, 2);
            QCOMPARE(second.told, 2);
        }
    }

    void packageSizes()
    {
        // Packages show the size of what they hold; other folders show none.
        KVNTestTree tree;
        tree.file("Tool.app/Contents/bin", QByteArray(2048, 'b'));
        tree.file("Tool.app/Contents/data", QByteArray(1024, 'd'));
        tree.file("plain/f", QByteArray(5000, 'f'));
        auto lookup = *scan(tree.root())->fileTree()->relativeLookupDict();
        QVERIFY(lookup["./tool.app"]->isApplication() && lookup["./tool.app"]->isBundle());
        QCOMPARE(lookup["./tool.app"]->fileSizeLabel(), QStringLiteral("3 KB"));
        QCOMPARE(lookup["./plain"]->fileSizeLabel(), QStringLiteral("--"));
        QCOMPARE(lookup["./plain"]->fileSizeWChildren(), uint64_t(5000));
        QCOMPARE(lookup["./plain"]->spotlightItemKind(), QStringLiteral("Folder"));
    }
};

QTEST_GUILESS_MAIN(TestFileNode)
#include "tst_filenode.moc"

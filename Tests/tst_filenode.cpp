// ctest-label: concurrency
// Nodes: paths kept as bytes, the pairing key, derived sizes and labels, and
// the narrow rule by which a child's result reaches its parent.
#include "KVNBuildTreeFastOperation.h"
#include "KVNFileNode.h"
#include "KVNOperationQueue.h"
#include "KVNPathBytes.h"
#include "KVNTestTree.h"

#include <QTest>

#include <atomic>
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
    void scanKeepsNamesAndFacts()
    {
        KVNTestTree tree;
        const QList<QByteArray> names = {"100% done",
                                         "#tag",
                                         "why?",
                                         "a:b",
                                         "line\nbreak",
                                         "caf\xe9",
                                         "Gr\xc3\xbc\xc3\x9f"
                                         "e"};
        for (const QByteArray &name : names)
            tree.file("dir/" + name, "x");
        tree.file("a", QByteArray(4097, 'a'), -1);
        tree.setMtime("a", 1700000000, 123456789);
        tree.symlink("link", "a", 1600000000);
        tree.dir("empty");
        tree.file("Same", "1");
        tree.file("same", "2"); // two names, one key: the later entry wins the lookup
        auto fileTree = scan(tree.root())->fileTree();
        QVERIFY(fileTree);
        QCOMPARE(fileTree->fileTreeRoot()->relativePath(), QByteArray("./"));
        QCOMPARE(fileTree->fileTreeRoot()->absolutePath(), tree.root());
        QVERIFY(!fileTree->fileTreeRoot()->fileAttrs());
        QCOMPARE(fileTree->fileTreeRoot()->childNodes().size(), size_t(6));
        auto lookup = *fileTree->relativeLookupDict();
        QCOMPARE(lookup.size(), 5 + names.size());
        for (const QByteArray &name : names) {
            auto node = lookup.value(KVNPathBytes::lowercasePath("./dir/" + name));
            QVERIFY2(node, name.constData());
            QCOMPARE(node->relativePath(), "./dir/" + name);
            QCOMPARE(node->absolutePath(), tree.path("dir/" + name));
            QCOMPARE(node->name(), name);
            QCOMPARE(node->depthHint(), 2u);
        }
        QCOMPARE(lookup["./a"]->fileAttrs()->fileSize, uint64_t(4097));
        QCOMPARE(lookup["./a"]->fileAttrs()->modificationDate, (KVNDate{1700000000, 123456789}));
        QCOMPARE(lookup["./link"]->fileAttrs()->fileType, KVNFileType::SymbolicLink);
        QCOMPARE(lookup["./link"]->fileAttrs()->modificationDate.seconds, int64_t(1600000000));
        QVERIFY(!lookup["./empty"]->hasChildNodes() && !lookup["./empty"]->fileAttrs()->hasSize);

        // A missing root, and a scan cancelled before it starts, give no tree.
        QVERIFY(!scan(tree.path("does-not-exist"))->fileTree());
        QVERIFY(!scan(tree.root(), true)->fileTree());
    }

    void lowercaseKeyIsPerComponent()
    {
        // Unicode letters fold when the name is text; a name that is not text
        // folds only its ASCII letters, and a text parent still folds in full.
        QCOMPARE(KVNPathBytes::lowercasePath("./Docs/Readme.TXT"), QByteArray("./docs/readme.txt"));
        QCOMPARE(KVNPathBytes::lowercasePath("./\xc3\x84RGER/A\xff"), QByteArray("./\xc3\xa4rger/a\xff"));
        QCOMPARE(KVNPathBytes::displayString("a\xff"
                                             "b"),
                 QStringLiteral("a\\xFFb"));
        QCOMPARE(KVNPathBytes::displayString("\xc3\xa4"), QStringLiteral("\u00e4"));
        auto upper = KVNFileNode::make("/base", "./Docs/Readme.TXT", nullptr, 2);
        auto lower = KVNFileNode::make("/base", "./docs/readme.txt", nullptr, 2);
        QCOMPARE(upper->lowercaseRelativePath(), lower->lowercaseRelativePath());
        QCOMPARE(upper->absolutePath(), QByteArray("/base/Docs/Readme.TXT"));
        QVERIFY(upper->caseInsensitiveCompareLastPathComponent(*lower) == 0);
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
        // A node answers its path after its parent is gone.
        auto orphan = abc;
        root.reset();
        a.reset();
        ab.reset();
        QVERIFY(!orphan->parentNode());
        QCOMPARE(orphan->relativePath(), QByteArray("./a/b/c"));
        orphan->setDiffResult(KVNDiffResultSingle); // no parent to tell: nothing happens
    }

    void scannedNodeOutlivesItsTree()
    {
        // Scanned nodes derive their paths through their parents; a node kept
        // by itself must still answer them, and its key, once the tree is gone.
        KVNTestTree left;
        KVNTestTree right;
        left.file("Deep/Er/\xc3\x84pfel/Na\xffme.TXT", "1");
        left.file("Deep/Er/\xc3\x84pfel/sibling", "2");
        right.file("deep/ER/\xc3\xa4pfel/na\xffme.txt", "1");
        KVNFileNodePtr kept;
        KVNFileNodePtr partner;
        {
            auto leftTree = scan(left.root())->fileTree();
            auto rightTree = scan(right.root())->fileTree();
            const QByteArray key = "./deep/er/\xc3\xa4pfel/na\xffme.txt";
            kept = leftTree->relativeLookupDict()->value(key);
            partner = rightTree->relativeLookupDict()->valueMatching(*kept);
            QVERIFY(kept && partner);
            QVERIFY(kept->hasSameLowercaseRelativePath(*partner) && partner->hasLowercaseRelativePath(key));
            QCOMPARE(kept->lowercaseRelativePathHash(),
                     KVNPathBytes::hashBytes(KVNPathBytes::kHashSeed, key.constData(), key.size()));
            auto sibling = leftTree->relativeLookupDict()->value("./deep/er/\xc3\xa4pfel/sibling");
            QVERIFY(!kept->hasSameLowercaseRelativePath(*sibling));
            QVERIFY(kept->directoryNode().get() == sibling->directoryNode().get());
            QCOMPARE(kept->parentNode()->relativePath(), QByteArray("./Deep/Er/\xc3\x84pfel"));
        }
        QVERIFY(!kept->parentNode());
        QCOMPARE(kept->relativePath(), QByteArray("./Deep/Er/\xc3\x84pfel/Na\xffme.TXT"));
        QCOMPARE(kept->absolutePath(), left.path("Deep/Er/\xc3\x84pfel/Na\xffme.TXT"));
        QCOMPARE(kept->directoryPath(), left.path("Deep/Er/\xc3\x84pfel"));
        QCOMPARE(kept->depthHint(), 4u);
        QVERIFY(kept->hasSameLowercaseRelativePath(*partner));
        QCOMPARE(kept->lowercaseRelativePath(), partner->lowercaseRelativePath());

        // Made under a node that is not its directory, a node keeps its own place.
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        auto stray = KVNFileNode::make("/b", "./x/y", root, 2);
        QCOMPARE(stray->relativePath(), QByteArray("./x/y"));
        QCOMPARE(stray->depthHint(), 2u);
        QVERIFY(!stray->directoryNode().get() && stray->parentNode() == root);
    }

    void parentRuleUnderConcurrentChildren()
    {
        // Many children settle at once: the parent ends at 5 and nothing deadlocks.
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        auto dir = KVNFileNode::make("/b", "./d", root, 1);
        root->addChildNode(dir);
        std::vector<KVNFileNodePtr> children;
        for (int i = 0; i < 400; ++i) {
            children.push_back(KVNFileNode::make("/b", "./d/f" + QByteArray::number(i), dir, 2));
            dir->addChildNode(children.back());
        }
        dir->setDiffResult(KVNDiffResultDiffer);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = t; i < 400; i += 4)
                    children[size_t(i)]->setDiffResult(i % 2 ? KVNDiffResultSingle : KVNDiffResultDiffer);
            });
        for (auto &thread : threads)
            thread.join();
        QCOMPARE(dir->diffResult(), 5);
        QCOMPARE(root->diffResult(), 5);
    }

    void attributesRoundTripExactly()
    {
        // Ordinary values are kept packed, extreme ones beside the node: both come back as set.
        auto root = KVNFileNode::make("/b", "./", nullptr, 0);
        const int64_t farSeconds = int64_t(1) << 33;
        const std::vector<KVNFileAttributes> cases = {
            {KVNFileType::Regular, true, 0, {0, 0}},
            {KVNFileType::Regular, true, (uint64_t(1) << 48) - 1, {1700000000, 999999999}},
            {KVNFileType::Regular, true, uint64_t(1) << 48, {1700000000, 1}},
            {KVNFileType::Other, true, ~uint64_t(0), {-1, 5}},
            {KVNFileType::SymbolicLink, true, 12, {farSeconds - 1, 7}},
            {KVNFileType::Directory, false, 0, {farSeconds, 0}},
            {KVNFileType::Regular, true, 3, {-farSeconds, 999999999}},
            {KVNFileType::Regular, true, 3, {-farSeconds - 1, 0}},
            {KVNFileType::Regular, true, 3, {INT64_MIN, 0}},
        };
        for (const auto &attrs : cases) {
            // Names that end inside the node's last word and well past it.
            for (const QByteArray &name : {QByteArray("a"), QByteArray("sixchr"), QByteArray(200, 'n')}) {
                auto node = KVNFileNode::makeChild(root, name);
                node->setFileAttrs(attrs);
                QCOMPARE(node->fileAttrs(), std::optional<KVNFileAttributes>(attrs));
                QCOMPARE(node->modifiedDate(), std::optional<KVNDate>(attrs.modificationDate));
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
            std::atomic<int> told{0};
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
            QCOMPARE(first.told.load(), 2);
            QCOMPARE(second.told.load(), 2);
        }

        // Observers come and go on several threads while results and kinds are asked.
        const KVNFileNodePtr node = (*lookup)["./d/a.txt"];
        std::vector<Counter> counters(4);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 2000; ++i) {
                    node->addObserver(&counters[size_t(t)]);
                    node->setDiffResult(i % 2 ? KVNDiffResultSame : KVNDiffResultDiffer);
                    if (i % 500 == 0)
                        node->spotlightItemKind();
                    node->removeObserver(&counters[size_t(t)]);
                }
            });
        for (auto &thread : threads)
            thread.join();
        // Each thread's own change reaches its own observer; others' may too.
        int total = 0;
        for (const Counter &counter : counters) {
            QVERIFY(counter.told.load() >= 2000);
            total += counter.told.load();
        }
        // All of them are gone: a change now tells nobody.
        node->setDiffResult(KVNDiffResultDiffer);
        int after = 0;
        for (const Counter &counter : counters)
            after += counter.told.load();
        QCOMPARE(after, total);
    }

    void sizesAndLabels()
    {
        // Labels truncate to whole units.
        const std::pair<qint64, const char *> labels[] = {{1023, "1023 B"},        {1024, "1 KB"},
                                                          {1048575, "1023 KB"},    {1048576, "1 MB"},
                                                          {1073741823, "1023 MB"}, {1073741824, "1 GB"}};
        for (const auto &[size, label] : labels) {
            auto node = KVNFileNode::make("/b", "./f", nullptr, 1);
            KVNFileAttributes attrs;
            attrs.hasSize = true;
            attrs.fileSize = uint64_t(size);
            node->setFileAttrs(attrs);
            QCOMPARE(node->fileSizeLabel(), QString::fromLatin1(label));
        }
        // Packages show the size of what they hold; other folders show none.
        KVNTestTree tree;
        tree.file("Tool.app/Contents/bin", QByteArray(2048, 'b'));
        tree.file("Tool.app/Contents/data", QByteArray(1024, 'd'));
        tree.dir("Empty.app");
        tree.file("plain/f", QByteArray(5000, 'f'));
        tree.file("sub/note.txt", "n");
        auto lookup = *scan(tree.root())->fileTree()->relativeLookupDict();
        QVERIFY(lookup["./tool.app"]->isApplication() && lookup["./tool.app"]->isBundle());
        QCOMPARE(lookup["./tool.app"]->fileSizeWChildren(), uint64_t(3072));
        QCOMPARE(lookup["./tool.app"]->fileSizeLabel(), QStringLiteral("3 KB"));
        QCOMPARE(lookup["./empty.app"]->fileSizeLabel(), QStringLiteral("0 B"));
        QCOMPARE(lookup["./plain"]->fileSizeLabel(), QStringLiteral("--"));
        QCOMPARE(lookup["./plain"]->fileSizeWChildren(), uint64_t(5000));
        QVERIFY(!lookup["./plain"]->isApplication());
        QCOMPARE(lookup["./plain"]->spotlightItemKind(), QStringLiteral("Folder"));

        // A transient node has no catalogue but answers from the disk.
        auto node = KVNFileNode::makeTransient(tree.path("sub/note.txt"));
        QVERIFY(node->isTransient() && !node->isDirectory() && !node->parentNode());
        QCOMPARE(node->absolutePath(), tree.path("sub/note.txt"));
        QCOMPARE(node->relativePath(), tree.path("sub/note.txt"));
        QCOMPARE(node->spotlightItemFSName(), QStringLiteral("note.txt"));
        QVERIFY(KVNFileNode::makeTransient(tree.path("sub"))->isDirectory());
        auto missing = KVNFileNode::makeTransient(tree.path("gone"));
        QVERIFY(!missing->fileAttrs() && !missing->isDirectory());
    }
};

QTEST_GUILESS_MAIN(TestFileNode)
#include "tst_filenode.moc"

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

    static KVNFileTreePtr scan(const QByteArray &root)
    {
        auto operation = KVNBuildTreeFastOperation::make(root);
        KVNOperationQueue queue;
        queue.addOperation(operation);
        queue.waitUntilAllOperationsAreFinished();
        return operation->fileTree();
    }

private slots:
    void pathsSurviveAnyName_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("percent") << QByteArray("100% done");
        QTest::newRow("hash") << QByteArray("#tag");
        QTest::newRow("question") << QByteArray("why?");
        QTest::newRow("colon") << QByteArray("a:b");
        QTest::newRow("newline") << QByteArray("line\nbreak");
        QTest::newRow("latin1") << QByteArray("caf\xe9");
        QTest::newRow("utf8") << QByteArray("Gr\xc3\xbc\xc3\x9f"
                                            "e");
    }
    void pathsSurviveAnyName()
    {
        QFETCH(QByteArray, name);
        KVNTestTree tree;
        tree.file("dir/" + name, "x");
        auto fileTree = scan(tree.root());
        QVERIFY(fileTree);
        auto node = fileTree->relativeLookupDict()->value(KVNPathBytes::lowercasePath("./dir/" + name));
        QVERIFY(node);
        QCOMPARE(node->relativePath(), "./dir/" + name);
        QCOMPARE(node->absolutePath(), tree.path("dir/" + name));
        QCOMPARE(node->name(), name);
        QCOMPARE(node->depthHint(), 2u);
        QCOMPARE(fileTree->fileTreeRoot()->relativePath(), QByteArray("./"));
        QCOMPARE(fileTree->fileTreeRoot()->absolutePath(), tree.root());
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
        QCOMPARE(ab->diffResult(), 1);
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

    void sizeLabelsTruncate_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("label");
        QTest::newRow("1023") << qint64(1023) << "1023 B";
        QTest::newRow("1024") << qint64(1024) << "1 KB";
        QTest::newRow("1048575") << qint64(1048575) << "1023 KB";
        QTest::newRow("1048576") << qint64(1048576) << "1 MB";
        QTest::newRow("1073741823") << qint64(1073741823) << "1023 MB";
        QTest::newRow("1073741824") << qint64(1073741824) << "1 GB";
    }
    void sizeLabelsTruncate()
    {
        QFETCH(qint64, size);
        QFETCH(QString, label);
        auto node = KVNFileNode::make("/b", "./f", nullptr, 1);
        KVNFileAttributes attrs;
        attrs.hasSize = true;
        attrs.fileSize = uint64_t(size);
        node->setFileAttrs(attrs);
        QCOMPARE(node->fileSizeLabel(), label);
    }

    void packagesShowTheirSize()
    {
        KVNTestTree tree;
        tree.file("Tool.app/Contents/bin", QByteArray(2048, 'b'));
        tree.file("Tool.app/Contents/data", QByteArray(1024, 'd'));
        tree.dir("Empty.app");
        tree.file("plain/f", QByteArray(5000, 'f'));
        auto fileTree = scan(tree.root());
        auto lookup = *fileTree->relativeLookupDict();
        QVERIFY(lookup["./tool.app"]->isApplication());
        QVERIFY(lookup["./tool.app"]->isBundle());
        QCOMPARE(lookup["./tool.app"]->fileSizeWChildren(), uint64_t(3072));
        QCOMPARE(lookup["./tool.app"]->fileSizeLabel(), QStringLiteral("3 KB"));
        QCOMPARE(lookup["./empty.app"]->fileSizeLabel(), QStringLiteral("0 B"));
        QCOMPARE(lookup["./plain"]->fileSizeLabel(), QStringLiteral("--"));
        QCOMPARE(lookup["./plain"]->fileSizeWChildren(), uint64_t(5000));
        QVERIFY(!lookup["./plain"]->isApplication());
        QCOMPARE(lookup["./plain"]->spotlightItemKind(), QStringLiteral("Folder"));
    }

    void transientNodeHasNoCacheButAnswers()
    {
        KVNTestTree tree;
        tree.file("sub/note.txt", "n");
        auto node = KVNFileNode::makeTransient(tree.path("sub/note.txt"));
        QVERIFY(node->isTransient());
        QCOMPARE(node->absolutePath(), tree.path("sub/note.txt"));
        QCOMPARE(node->relativePath(), tree.path("sub/note.txt"));
        QCOMPARE(node->spotlightItemFSName(), QStringLiteral("note.txt"));
        QVERIFY(!node->isDirectory());
        QVERIFY(!node->parentNode());
        QVERIFY(KVNFileNode::makeTransient(tree.path("sub"))->isDirectory());
        auto missing = KVNFileNode::makeTransient(tree.path("gone"));
        QVERIFY(!missing->fileAttrs());
        QVERIFY(!missing->isDirectory());
    }

    void scanKeepsCatalogueFacts()
    {
        KVNTestTree tree;
        tree.file("a", QByteArray(4097, 'a'));
        tree.setMtime("a", 1700000000, 123456789);
        tree.symlink("link", "a", 1600000000);
        tree.dir("empty");
        tree.file("Same", "1");
        tree.file("same", "2"); // two names, one key: the later entry wins the lookup
        auto fileTree = scan(tree.root());
        auto lookup = *fileTree->relativeLookupDict();
        auto a = lookup["./a"]->fileAttrs();
        QCOMPARE(a->fileSize, uint64_t(4097));
        QCOMPARE(a->modificationDate, (KVNDate{1700000000, 123456789}));
        auto link = lookup["./link"]->fileAttrs();
        QCOMPARE(link->fileType, KVNFileType::SymbolicLink);
        QCOMPARE(link->modificationDate.seconds, int64_t(1600000000));
        QVERIFY(!lookup["./empty"]->hasChildNodes());
        QVERIFY(!lookup["./empty"]->fileAttrs()->hasSize);
        QCOMPARE(lookup.size(), 4);
        QCOMPARE(fileTree->fileTreeRoot()->childNodes().size(), size_t(5));
        QVERIFY(!fileTree->fileTreeRoot()->fileAttrs());
    }

    void missingRootGivesNoTree()
    {
        KVNTestTree tree;
        auto operation = KVNBuildTreeFastOperation::make(tree.path("does-not-exist"));
        KVNOperationQueue queue;
        queue.addOperation(operation);
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(operation->isFinished());
        QVERIFY(!operation->fileTree());
        // Cancelled before it starts: no tree either.
        auto cancelled = KVNBuildTreeFastOperation::make(tree.root());
        cancelled->cancel();
        queue.addOperation(cancelled);
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(!cancelled->fileTree());
    }
};

QTEST_GUILESS_MAIN(TestFileNode)
#include "tst_filenode.moc"

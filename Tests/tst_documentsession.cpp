// Saving and reading a comparison session through the document, and running
// a saved session with kvdiff.
#include "KVNDirCompDocument.h"
#include "KVNSessionArchive.h"
#include "KVNTestTree.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestDocumentSession : public QObject {
    Q_OBJECT

    QTemporaryDir settings_;

    static bool refused(const KVNSessionContents &contents, KVNDocumentError *error)
    {
        return !KVNDirCompDocument::make()->readFromData(KVNSessionArchive::archive(contents), error);
    }

private slots:
    void initTestCase() { KVNUseIsolatedDefaults(settings_); }

    void savedSessionReadsBack()
    {
        KVNTestTree left, right;
        auto saved = KVNDirCompDocument::make();
        saved->setOriginalURL(left.root(), right.root());
        const auto exclusion = KVNPredicate::orPredicateWithSubpredicates(
            {saved->exclusionPredicate(), KVNPredicate::predicateWithFormat("spotlightItemFSName ENDSWITH[c] '.o'")});
        saved->setExclusionPredicate(exclusion);
        const QByteArray data = saved->dataOfType();
        QVERIFY(data.startsWith("bplist00"));

        auto read = KVNDirCompDocument::make();
        KVNDocumentError error;
        QVERIFY(read->readFromData(data, &error));
        QCOMPARE(read->originalURL(), left.root());
        QCOMPARE(read->modifiedURL(), right.root());
        QVERIFY(!read->ancestorURL());
        QVERIFY(KVNPredicatesEqual(read->exclusionPredicate(), exclusion));
        // The filter is not saved: a read session has none selected until its window sets one up.
        QCOMPARE(read->selectedFilterAction(), KVNFilterAction::None);
        // The exclusion's observation comes after reading: the session then stands as edited.
        QVERIFY(!read->isDocumentEdited());
        QTRY_VERIFY(read->isDocumentEdited());
    }

    void versionAndClassMustMatch_data()
    {
        QTest::addColumn<QString>("documentClass");
        QTest::addColumn<double>("version");
        QTest::newRow("other version") << "KVNDirCompDocument" << 0.2;
        QTest::newRow("double 0.1 is not the float") << "KVNDirCompDocument" << 0.1000001;
        QTest::newRow("other class") << "KVNTextDocument" << double(0.1f);
    }
    void versionAndClassMustMatch()
    {
        QFETCH(QString, documentClass);
        QFETCH(double, version);
        KVNTestTree tree;
        KVNSessionContents contents;
        contents.documentClass = documentClass;
        contents.documentVersion = version;
        contents.originalURL = tree.root();
        contents.modifiedURL = tree.root();
        KVNDocumentError error;
        QVERIFY(refused(contents, &error));
        QCOMPARE(error.domain, QStringLiteral("DocumentVersionMismatch"));
        QCOMPARE(error.code, 0);
        QCOMPARE(error.recoverySuggestion,
                 QStringLiteral("This document's version is not compatible with this version of the application."));
    }

    void missingRootsAndDamageAreNamed()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        KVNSessionContents contents;
        contents.originalURL = tree.path("gone");
        contents.modifiedURL = tree.root();
        KVNDocumentError error;
        QVERIFY(refused(contents, &error));
        QCOMPARE(error.domain, QStringLiteral("KVNDirCompDocument"));
        QCOMPARE(error.recoverySuggestion, QStringLiteral("The \"Original\" directory path (%1) could not be found.")
                                               .arg(QString::fromLocal8Bit(tree.path("gone"))));
        // A root that became a file counts as missing; with both gone the right one is told.
        contents.modifiedURL = tree.path("plain");
        QVERIFY(refused(contents, &error));
        QCOMPARE(error.recoverySuggestion, QStringLiteral("The \"Modified\" directory path (%1) could not be found.")
                                               .arg(QString::fromLocal8Bit(tree.path("plain"))));
        // A damaged file is refused with a reason.
        contents.modifiedURL = contents.originalURL = tree.root();
        const QByteArray good = KVNSessionArchive::archive(contents);
        for (const QByteArray &bad : {QByteArray(), QByteArray("not a session"), good.left(good.size() / 2)}) {
            error = {};
            QVERIFY(!KVNDirCompDocument::make()->readFromData(bad, &error));
            QVERIFY(!error.recoverySuggestion.isEmpty());
        }
    }

    void kvdiffRunsASavedSession()
    {
        KVNTestTree left, right, files;
        KVNFillTrees(left, right, {"~a.o", "=kept"});
        auto doc = KVNDirCompDocument::make();
        doc->setOriginalURL(left.root(), right.root());
        doc->setExclusionPredicate(KVNPredicate::predicateWithFormat("spotlightItemFSName ENDSWITH[c] '.O'"));
        files.file("session.kvsession", doc->dataOfType());
        QProcess kvdiff;
        kvdiff.start(QStringLiteral(KVDIFF_BINARY),
                     {"--session", QString::fromLocal8Bit(files.path("session.kvsession")), "--filter=all"});
        QVERIFY(kvdiff.waitForFinished(60000));
        QCOMPARE(kvdiff.exitCode(), 0); // the only difference is excluded by the session
        const QByteArray out = kvdiff.readAllStandardOutput();
        QVERIFY(out.contains("kept are identical"));
        QVERIFY(!out.contains("a.o"));
        // The same session with a root gone is trouble, with the reason.
        left.remove("");
        kvdiff.start(QStringLiteral(KVDIFF_BINARY),
                     {"--session", QString::fromLocal8Bit(files.path("session.kvsession"))});
        QVERIFY(kvdiff.waitForFinished(60000));
        QCOMPARE(kvdiff.exitCode(), 2);
        QVERIFY(kvdiff.readAllStandardError().contains("\"Original\" directory path"));
    }
};

QTEST_GUILESS_MAIN(TestDocumentSession)
#include "tst_documentsession.moc"

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

private slots:
    void initTestCase() { KVNUseIsolatedDefaults(settings_); }

    void savedSessionReadsBackAndRunsInKvdiff()
    {
        KVNTestTree left, right, files;
        KVNFillTrees(left, right, {"~a.o", "=kept"});
        auto saved = KVNDirCompDocument::make();
        saved->setOriginalURL(left.root(), right.root());
        saved->setExclusionPredicate(KVNPredicate::orPredicateWithSubpredicates(
            {saved->exclusionPredicate(), KVNPredicate::predicateWithFormat("spotlightItemFSName ENDSWITH[c] '.O'")}));
        const QByteArray data = saved->dataOfType();

        auto read = KVNDirCompDocument::make();
        QVERIFY(read->readFromData(data, nullptr));
        QCOMPARE(read->originalURL(), left.root());
        // The exclusion's observation comes after reading: the session then stands as edited.
        QVERIFY(!read->isDocumentEdited());
        QTRY_VERIFY(read->isDocumentEdited());

        // kvdiff reads it the same way: roots and exclusion come back, and the only difference is excluded.
        files.file("session.kvsession", data);
        QProcess kvdiff;
        kvdiff.start(QStringLiteral(KVDIFF_BINARY),
                     {"--session", QFile::decodeName(files.path("session.kvsession")), "--filter=all"});
        QVERIFY(kvdiff.waitForFinished(60000));
        QCOMPARE(kvdiff.exitCode(), 0);
        const QByteArray out = kvdiff.readAllStandardOutput();
        QVERIFY(out.contains("kept are identical") && !out.contains("a.o"));
    }

    void refusalsSayWhy()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        const QString doc = QStringLiteral("KVNDirCompDocument"),
                      mismatch = QStringLiteral("DocumentVersionMismatch 0: This document's version is not compatible "
                                                "with this version of the application.");
        const QByteArray root = tree.root(), gone = tree.path("gone"), plain = tree.path("plain");
        const QString missing = doc + QStringLiteral(" 0: The \"%1\" directory path (%2) could not be found.");
        // What a fresh document says of the data: "read", or why it refuses it.
        const auto verdict = [](const QByteArray &data) {
            KVNDocumentError e;
            return KVNDirCompDocument::make()->readFromData(data, &e)
                       ? QStringLiteral("read")
                       : QStringLiteral("%1 %2: %3").arg(e.domain).arg(e.code).arg(e.recoverySuggestion);
        };
        const auto session = [&](const QByteArray &original, const QByteArray &modified, double version = 0.1f,
                                 const QString &documentClass = QStringLiteral("KVNDirCompDocument")) {
            KVNSessionContents contents;
            contents.documentClass = documentClass;
            contents.documentVersion = version;
            contents.originalURL = original;
            contents.modifiedURL = modified;
            return contents;
        };
        const std::pair<KVNSessionContents, QString> cases[] = {
            {session(root, root), "read"},
            {session(root, root, 0.1000001), mismatch}, // the double 0.1 is not the float
            {session(root, root, 0.1f, "KVNTextDocument"), mismatch},
            {session(gone, root), missing.arg("Original", QFile::decodeName(gone))},
            // A root that became a file counts as missing; with both gone the right one is told.
            {session(gone, plain), missing.arg("Modified", QFile::decodeName(plain))},
        };
        for (const auto &[contents, why] : cases)
            QCOMPARE(verdict(KVNSessionArchive::archive(contents)), why);
        // A damaged file is refused with a reason.
        const QByteArray good = KVNSessionArchive::archive(session(root, root));
        for (const QByteArray &bad : {QByteArray(), QByteArray("not a session"), good.left(good.size() / 2)})
            QVERIFY(verdict(bad).startsWith(doc + " 0: The session file could not be read: "));
    }
};

QTEST_GUILESS_MAIN(TestDocumentSession)
#include "tst_documentsession.moc"

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
        QVERIFY(data.startsWith("bplist00"));

        auto read = KVNDirCompDocument::make();
        QVERIFY(read->readFromData(data, nullptr));
        QCOMPARE(read->originalURL(), left.root());
        QCOMPARE(read->modifiedURL(), right.root());
        QVERIFY(KVNPredicatesEqual(read->exclusionPredicate(), saved->exclusionPredicate()));
        // The filter is not saved: a read session has none selected until its window sets one up.
        QCOMPARE(read->selectedFilterAction(), KVNFilterAction::None);
        // The exclusion's observation comes after reading: the session then stands as edited.
        QVERIFY(!read->isDocumentEdited());
        QTRY_VERIFY(read->isDocumentEdited());

        files.file("session.kvsession", data);
        QProcess kvdiff;
        const auto run = [&](const QStringList &more) {
            kvdiff.start(QStringLiteral(KVDIFF_BINARY),
                         QStringList{"--session", QFile::decodeName(files.path("session.kvsession"))} + more);
            return kvdiff.waitForFinished(60000) ? kvdiff.exitCode() : -1;
        };
        QCOMPARE(run({"--filter=all"}), 0); // the only difference is excluded by the session
        const QByteArray out = kvdiff.readAllStandardOutput();
        QVERIFY(out.contains("kept are identical"));
        QVERIFY(!out.contains("a.o"));
        // The same session with a root gone is trouble, with the reason.
        left.remove("");
        QCOMPARE(run({}), 2);
        QVERIFY(kvdiff.readAllStandardError().contains("\"Original\" directory path"));
    }

    void refusalsSayWhy()
    {
        KVNTestTree tree;
        tree.file("plain", "x");
        const QString doc = QStringLiteral("KVNDirCompDocument"),
                      mismatch = QStringLiteral("DocumentVersionMismatch 0: This document's version is not compatible "
                                                "with this version of the application.");
        const QByteArray root = tree.root(), gone = tree.path("gone"), plain = tree.path("plain");
        const auto missing = [&](const char *side, const QByteArray &path) {
            return doc + QStringLiteral(" 0: The \"%1\" directory path (%2) could not be found.")
                             .arg(side, QFile::decodeName(path));
        };
        const std::pair<KVNSessionContents, QString> cases[] = {
            {{doc, 0.2, root, root}, mismatch},
            {{doc, 0.1000001, root, root}, mismatch}, // the double 0.1 is not the float
            {{"KVNTextDocument", double(0.1f), root, root}, mismatch},
            {{doc, double(0.1f), gone, root}, missing("Original", gone)},
            // A root that became a file counts as missing; with both gone the right one is told.
            {{doc, double(0.1f), gone, plain}, missing("Modified", plain)},
        };
        // What a fresh document says of the data: "read", or why it refuses it.
        const auto verdict = [](const QByteArray &data) {
            KVNDocumentError e;
            return KVNDirCompDocument::make()->readFromData(data, &e)
                       ? QStringLiteral("read")
                       : QStringLiteral("%1 %2: %3").arg(e.domain).arg(e.code).arg(e.recoverySuggestion);
        };
        for (const auto &[contents, why] : cases)
            QCOMPARE(verdict(KVNSessionArchive::archive(contents)), why);
        // A damaged file is refused with a reason.
        const QByteArray good = KVNSessionArchive::archive({doc, double(0.1f), root, root});
        QCOMPARE(verdict(good), QStringLiteral("read"));
        for (const QByteArray &bad : {QByteArray(), QByteArray("not a session"), good.left(good.size() / 2)})
            QVERIFY(verdict(bad).startsWith(doc + " 0: The session file could not be read: "));
    }
};

QTEST_GUILESS_MAIN(TestDocumentSession)
#include "tst_documentsession.moc"

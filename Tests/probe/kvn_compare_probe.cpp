// Runs one comparison through a headless document and prints every row, so
// that tests can run a comparison in a process of its own (for example as an
// unprivileged user). Line format, tab-separated:
//   path  left-result|-  right-result|-  row-result  direction
#include "KVNDiffResult.h"
#include "KVNDirCompDocument.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: kvn_compare_probe ORIGINAL MODIFIED\n");
        return 2;
    }
    auto document = KVNDirCompDocument::make();
    document->setWatchesFileSystem(false);
    document->setOriginalURL(QByteArray(argv[1]), QByteArray(argv[2]));
    document->setExclusionPredicate(nullptr);
    document->setRunCompletedHandler([] { QCoreApplication::quit(); });
    document->performInitialTablePopulate();
    app.exec();
    for (const auto &row : document->sourceArrayController()->arrangedObjects()) {
        auto left = row->leftNode();
        auto right = row->rightNode();
        const QByteArray line = row->displayRelativePath().toUtf8() + '\t' +
                                (left ? QByteArray::number(left->diffResult()) : QByteArray("-")) + '\t' +
                                (right ? QByteArray::number(right->diffResult()) : QByteArray("-")) + '\t' +
                                QByteArray::number(row->diffResult()) + '\t' +
                                QByteArray::number(row->mergeDirection());
        std::puts(line.constData());
    }
    return 0;
}

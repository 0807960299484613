// kvdiff: compares two directories from the command line.
#include "KVNComparisonDriver.h"
#include "KVNDiffResult.h"
#include "KVNPathBytes.h"
#include "KVNURLAdditions.h"

#include <QCoreApplication>

#include <cstdio>
#include <sys/stat.h>

namespace {

void printLine(const QString &line)
{
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fputc('\n', stdout);
}

void printUsage()
{
    printLine(QStringLiteral("usage: kvdiff [--version] [--help] ORIGINAL MODIFIED"));
    printLine(QStringLiteral("Compares two directory trees and lists what differs, like diff -rq."));
    printLine(QStringLiteral("Exit status: 0 when nothing differs, 1 when something does, 2 on trouble."));
}

// One line per row that is different or on one side only; a directory on one
// side stands for everything below it.
bool printReport(const KVNComparisonDriver &driver, const QString &original, const QString &modified)
{
    bool anyDifference = false;
    for (const auto &row : driver.sourceArrayController()->arrangedObjects()) {
        auto parent = row->parentElement();
        if (parent && (!parent->leftNode() || !parent->rightNode()))
            continue;
        auto left = row->leftNode();
        auto right = row->rightNode();
        const QString relative = row->displayRelativePath().mid(2);
        const int32_t result = row->diffResult();
        if (!left || !right) {
            const QString root = left ? original : modified;
            const qsizetype slash = relative.lastIndexOf(QLatin1Char('/'));
            const QString directory = slash < 0 ? root : root + QLatin1Char('/') + relative.left(slash);
            printLine(QStringLiteral("Only in %1: %2").arg(directory, relative.mid(slash + 1)));
            anyDifference = true;
        } else if (!row->isDirectory() && result != KVNDiffResultSame) {
            printLine(QStringLiteral("Files %1/%2 and %3/%4 differ").arg(original, relative, modified,
                                                                           KVNPathBytes::displayString(right->relativePath()).mid(2)));
            anyDifference = true;
        } else if (row->isDirectory() && left->isDirectory() != right->isDirectory()) {
            printLine(QStringLiteral("File %1/%2 is a %3 while file %4/%2 is a %5")
                          .arg(original, relative, left->isDirectory() ? QStringLiteral("directory") : QStringLiteral("regular file"),
                               modified, right->isDirectory() ? QStringLiteral("directory") : QStringLiteral("regular file")));
            anyDifference = true;
        }
    }
    return anyDifference;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QList<QByteArray> paths;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        if (argument == QLatin1String("--version")) {
            printLine(QStringLiteral(KORVANE_VERSION));
            return 0;
        }
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            printUsage();
            return 0;
        }
        QByteArray path = argument;
        while (path.size() > 1 && path.endsWith('/'))
            path.chop(1);
        paths << path;
    }
    if (paths.size() != 2) {
        std::fprintf(stderr, "kvdiff: expected two directories; see kvdiff --help\n");
        return 2;
    }
    QByteArray roots[2];
    for (int i = 0; i < 2; ++i) {
        // Paths stay bytes: a root whose name is not text must still work.
        roots[i] = KVNURLAdditions::saneFilePath(paths[i]);
        struct stat info;
        if (roots[i].isEmpty() || ::stat(roots[i].constData(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            std::fprintf(stderr, "kvdiff: %s: not a directory\n", paths[i].constData());
            return 2;
        }
        if (roots[i].size() > 1 && roots[i].endsWith('/'))
            roots[i].chop(1);
    }
    auto driver = KVNComparisonDriver::make(roots[0], roots[1]);
    driver->setExclusionPredicate(nullptr);
    driver->performInitialTablePopulate();
    driver->waitUntilIdle();
    const bool differs = printReport(*driver, KVNPathBytes::displayString(paths[0]), KVNPathBytes::displayString(paths[1]));
    std::fflush(stdout);
    return differs ? 1 : 0;
}

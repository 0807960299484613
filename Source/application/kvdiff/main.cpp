// kvdiff: compares two directories, or a saved session, from the command line.
#include "KVNDirCompDocument.h"
#include "KVNLiveReport.h"
#include "KVNPathBytes.h"
#include "KVNReportWriter.h"
#include "KVNRunStatistics.h"
#include "KVNUserDefaults.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <cstdio>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void writeOut(const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

int fail(const QString &message)
{
    std::fprintf(stderr, "kvdiff: %s\n", message.toLocal8Bit().constData());
    return 2;
}

const char *kUsage = "usage: kvdiff [--report[=text|json]] [--filter=default|changed|single|same|all] [--stats]\n"
                     "              [--exclude=PREDICATE]... ORIGINAL MODIFIED\n"
                     "       kvdiff --watch[=text|json] [--until-eof] [options] ORIGINAL MODIFIED\n"
                     "       kvdiff [options] --session FILE\n"
                     "       kvdiff --version | --help\n"
                     "\n"
                     "Compares two directory trees and prints every row the comparison shows, in\n"
                     "outline order, expanded: as text in the style of diff -rq, or as JSON.\n"
                     "\n"
                     "  --report[=FORMAT]   text (the default) or json\n"
                     "  --filter=NAME       which rows to print: default (single and changed), changed,\n"
                     "                      single, same or all; it does not change the exit status\n"
                     "  --exclude=PRED      leave out what the predicate matches, e.g.\n"
                     "                      'spotlightItemFSName LIKE[c] \"*.o\"'; widens the exclusion in\n"
                     "                      force (the default, or the session's) and may be repeated\n"
                     "  --session FILE      compare what a saved session names, under its exclusion\n"
                     "  --watch[=FORMAT]    print the report, then keep watching both trees and print\n"
                     "                      it again after every change: JSON Lines, or for text the\n"
                     "                      lines that changed, prefixed + and -; ends on Ctrl-C\n"
                     "  --until-eof         with --watch, also end when standard input ends\n"
                     "  --stats             print per-stage times and counts of the comparison on\n"
                     "                      standard error\n"
                     "\n"
                     "Exit status: 0 when nothing differs or stands on one side, 1 when something\n"
                     "does, 2 on trouble.\n";

struct Options {
    bool json = false;
    bool watch = false;
    bool untilEndOfInput = false;
    bool stats = false;
    KVNFilterAction filter = KVNFilterAction::ShowDefault;
    QStringList excludes;
    QByteArray session;
    QList<QByteArray> paths;
};

std::optional<KVNFilterAction> filterNamed(const QByteArray &name)
{
    if (name == "default")
        return KVNFilterAction::ShowDefault;
    if (name == "changed")
        return KVNFilterAction::ShowDifferent;
    if (name == "single")
        return KVNFilterAction::ShowSingle;
    if (name == "same")
        return KVNFilterAction::ShowSame;
    if (name == "all")
        return KVNFilterAction::ShowAll;
    return std::nullopt;
}

bool isDirectory(const QByteArray &path)
{
    struct stat info;
    return ::stat(path.constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Runs the event loop until the document has finished its run, showing
// progress on a terminal.
void runToCompletion(KVNDirCompDocument &document)
{
    QEventLoop loop;
    document.setRunCompletedHandler([&loop] { loop.quit(); });
    QTimer progress;
    const bool terminal = ::isatty(STDERR_FILENO);
    if (terminal) {
        QObject::connect(&progress, &QTimer::timeout, [&document] {
            std::fprintf(stderr, "\r\033[KComparing: %zu rows",
                         document.sourceArrayController()->arrangedObjectsCount());
        });
        progress.start(200);
    }
    document.awakeFromNib();
    loop.exec();
    if (terminal)
        std::fputs("\r\033[K", stderr);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    KVNRegisterApplicationDefaults();
    Options options;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        if (argument == "--version") {
            writeOut(QByteArrayLiteral(KORVANE_VERSION "\n"));
            return 0;
        }
        if (argument == "--help" || argument == "-h") {
            writeOut(kUsage);
            return 0;
        }
        if (argument == "--watch" || argument == "--watch=text" || argument == "--watch=json") {
            options.watch = true;
            options.json = argument == "--watch=json";
        } else if (argument == "--stats") {
            options.stats = true;
        } else if (argument == "--until-eof") {
            options.untilEndOfInput = true;
        } else if (argument == "--report" || argument == "--report=text") {
            options.json = false;
        } else if (argument == "--report=json") {
            options.json = true;
        } else if (argument.startsWith("--report=")) {
            return fail(QStringLiteral("unknown report format '%1' (text or json)")
                            .arg(QString::fromLocal8Bit(argument.mid(9))));
        } else if (argument.startsWith("--filter=")) {
            auto filter = filterNamed(argument.mid(9));
            if (!filter)
                return fail(QStringLiteral("unknown filter '%1' (default, changed, single, same or all)")
                                .arg(QString::fromLocal8Bit(argument.mid(9))));
            options.filter = *filter;
        } else if (argument.startsWith("--exclude=")) {
            options.excludes << QString::fromLocal8Bit(argument.mid(10));
        } else if (argument == "--exclude" && i + 1 < argc) {
            options.excludes << QString::fromLocal8Bit(argv[++i]);
        } else if (argument == "--session" && i + 1 < argc) {
            options.session = argv[++i];
        } else if (argument.startsWith("--session=")) {
            options.session = argument.mid(10);
        } else if (argument.startsWith("--") && argument != "--") {
            return fail(QStringLiteral("unknown option '%1'; see kvdiff --help").arg(QString::fromLocal8Bit(argument)));
        } else {
            QByteArray path = argument;
            while (path.size() > 1 && path.endsWith('/'))
                path.chop(1);
            options.paths << path;
        }
    }

    std::vector<KVNPredicatePtr> excludes;
    for (const QString &text : options.excludes) {
        const auto parsed = KVNPredicate::parse(text);
        if (!parsed.ok())
            return fail(QStringLiteral("bad --exclude predicate at %1: %2")
                            .arg(parsed.error->position)
                            .arg(parsed.error->message));
        excludes.push_back(parsed.predicate);
    }

    auto document = KVNDirCompDocument::make();
    document->setWatchesFileSystem(options.watch);
    if (!options.session.isEmpty()) {
        if (!options.paths.isEmpty())
            return fail(QStringLiteral("--session takes no directories"));
        QFile file(QString::fromLocal8Bit(options.session));
        if (!file.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("%1: %2").arg(QString::fromLocal8Bit(options.session), file.errorString()));
        KVNDocumentError error;
        if (!document->readFromData(file.readAll(), &error))
            return fail(
                QStringLiteral("%1: %2").arg(QString::fromLocal8Bit(options.session), error.recoverySuggestion));
    } else {
        if (options.paths.size() != 2)
            return fail(QStringLiteral("expected two directories; see kvdiff --help"));
        for (const auto &path : options.paths)
            if (!isDirectory(path))
                return fail(QStringLiteral("%1: not a directory").arg(KVNPathBytes::displayString(path)));
        document->setOriginalURL(options.paths[0], options.paths[1]);
    }
    // Each rule widens the exclusion in force, as the context menu's actions do.
    for (const auto &rule : excludes) {
        const auto current = document->exclusionPredicate();
        document->setExclusionPredicate(current ? KVNPredicate::orPredicateWithSubpredicates({current, rule}) : rule);
    }
    QCoreApplication::processEvents(); // let the document see its exclusion before the run

    {
        std::optional<KVNRunStatistics> statistics;
        if (options.stats)
            statistics.emplace(*document);
        runToCompletion(*document);
        if (statistics)
            statistics->print();
    }

    // Text names the roots as the user did, as diff does; JSON gives them whole.
    const bool asTyped = !options.json && options.paths.size() == 2;
    KVNReportWriter writer(asTyped ? options.paths[0] : document->originalURL(),
                           asTyped ? options.paths[1] : document->modifiedURL());
    KVNLiveReport report(document, writer, options.json, options.filter);
    report.printReport();
    if (options.watch) {
        document->setRunCompletedHandler([&report] { report.printReport(); });
        KVNRunUntilInterrupted(options.untilEndOfInput);
        document->setRunCompletedHandler(nullptr);
    }
    const bool differs = report.lastReportDiffers();
    document->goodByeKiss();
    // Work still queued holds the document; let it end before the process does.
    document->refreshOperationQueue().cancelAllOperations();
    document->refreshOperationQueue().waitUntilAllOperationsAreFinished();
    return differs ? 1 : 0;
}

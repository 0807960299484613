// Predicates as the table uses them: parsed once, then evaluated for every row
// (or node) of a small real comparison.
#include "KVNDirCompDocument.h"
#include "KVNUserDefaults.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void writeFile(const QByteArray &path, const QByteArray &contents)
{
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, contents.constData(), size_t(contents.size())) != contents.size()) {
        std::perror(path.constData());
        std::exit(2);
    }
    ::close(fd);
}

// A few hundred items per side, with the names the default exclusion is about,
// one name that is not UTF-8, and some files that differ or stand alone.
void makeTree(const QByteArray &root, bool modified)
{
    ::mkdir(root.constData(), 0755);
    for (int d = 0; d < 12; ++d) {
        const QByteArray dir = root + "/dir" + QByteArray::number(d);
        ::mkdir(dir.constData(), 0755);
        ::mkdir((dir + "/.git").constData(), 0755);
        writeFile(dir + "/.git/HEAD", "ref: refs/heads/main\n");
        writeFile(dir + "/.DS_Store", QByteArray(64, '\0'));
        writeFile(dir + "/caf\xe9.txt", "latin-1 name");
        for (int f = 0; f < 20; ++f) {
            const bool changed = modified && f % 7 == 0;
            const bool alone = (modified && f == 19) || (!modified && f == 18);
            if (!alone)
                writeFile(dir + "/file" + QByteArray::number(f) + ".c",
                          QByteArray(512 + f * 64, char('a' + f)) + (changed ? "!" : ""));
        }
    }
}

struct Fixture {
    std::shared_ptr<KVNDirCompDocument> document;
    std::vector<KVNDirDiffTableElementPtr> rows;
    std::vector<KVNFileNodePtr> nodes;
};

Fixture compare(const QByteArray &original, const QByteArray &modified)
{
    Fixture fixture;
    fixture.document = KVNDirCompDocument::make();
    fixture.document->setWatchesFileSystem(false);
    fixture.document->setOriginalURL(original, modified);
    fixture.document->setExclusionPredicate(nullptr); // every row is in the table
    QCoreApplication::processEvents();
    fixture.document->performInitialTablePopulate();
    while (fixture.document->completedRuns() < 1)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    fixture.rows = fixture.document->sourceArrayController()->arrangedObjects();
    for (const auto &row : fixture.rows)
        fixture.nodes.push_back(row->leftNode() ? row->leftNode() : row->rightNode());
    return fixture;
}

template <typename Items>
void evaluateAll(benchmark::State &state, const KVNPredicatePtr &predicate, const Items &items)
{
    int64_t matches = 0;
    for (auto _ : state) {
        matches = 0;
        for (const auto &item : items)
            matches += predicate->evaluateWithObject(*item);
        benchmark::DoNotOptimize(matches);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(items.size()));
    state.counters["rows"] = double(items.size());
    state.counters["matching"] = double(matches);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    KVNRegisterApplicationDefaults();
    QTemporaryDir temporary;
    const QByteArray base = QFile::encodeName(temporary.path());
    makeTree(base + "/original", false);
    makeTree(base + "/modified", true);
    const Fixture fixture = compare(base + "/original", base + "/modified");

    const QString exclusionText = KVNDefaultExclusionPredicateFormat();
    const auto exclusion = KVNPredicate::predicateWithFormat(exclusionText);
    const auto changed = KVNDirCompDocument::filterPredicateForAction(KVNFilterAction::ShowDefault);
    // What the table applies to its top level: depth, not excluded, the filter.
    const auto table = KVNPredicate::andPredicateWithSubpredicates(
        {KVNPredicate::predicateWithFormat(QStringLiteral("depthHint == 1")),
         KVNPredicate::notPredicateWithSubpredicate(exclusion), changed});

    benchmark::RegisterBenchmark("predicate/parse/default-exclusion", [&](benchmark::State &state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(KVNPredicate::parse(exclusionText));
    });
    benchmark::RegisterBenchmark("predicate/default-exclusion/rows",
                                 [&](benchmark::State &state) { evaluateAll(state, exclusion, fixture.rows); });
    benchmark::RegisterBenchmark("predicate/default-exclusion/nodes",
                                 [&](benchmark::State &state) { evaluateAll(state, exclusion, fixture.nodes); });
    benchmark::RegisterBenchmark("predicate/diffResult-filter/rows",
                                 [&](benchmark::State &state) { evaluateAll(state, changed, fixture.rows); });
    benchmark::RegisterBenchmark("predicate/table-filter/rows",
                                 [&](benchmark::State &state) { evaluateAll(state, table, fixture.rows); });

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // By bytes: QTemporaryDir cannot remove a name that is not UTF-8.
    nftw(
        base.constData(), [](const char *path, const struct stat *, int, FTW *) { return ::remove(path); }, 16,
        FTW_DEPTH | FTW_PHYS);
    return 0;
}

// kvn_bench_tree: writes a pair of directory trees for the benchmarks, the
// same pair for the same seed and options. ORIGINAL is generated; MODIFIED is
// a copy of it (by reflink or in-kernel copy where the file system allows)
// with a share of its items changed, added, removed and renamed in case.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void die(const std::string &what)
{
    std::fprintf(stderr, "kvn_bench_tree: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(2);
}

[[noreturn]] void usage(const char *problem)
{
    if (problem)
        std::fprintf(stderr, "kvn_bench_tree: %s\n", problem);
    std::fputs("usage: kvn_bench_tree [options] ORIGINAL MODIFIED\n"
               "  --seed=N            the pair for this seed (default 1)\n"
               "  --files=N           regular files in ORIGINAL (default 100000)\n"
               "  --dirs=N            directories below the root (default 10000)\n"
               "  --total-bytes=SIZE  about this much file data, K/M/G binary suffixes (default 2G)\n"
               "  --empty             every file empty: metadata only\n"
               "  --identical         MODIFIED is an exact copy\n"
               "  --change-share=F    share of items per kind of change (default 0.005)\n",
               stderr);
    std::exit(problem ? 2 : 0);
}

// xoshiro256** seeded by splitmix64: the same stream on every platform.
class Random {
public:
    explicit Random(uint64_t seed)
    {
        for (auto &word : s_) {
            seed += 0x9E3779B97F4A7C15ull;
            uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            word = z ^ (z >> 31);
        }
    }
    uint64_t next()
    {
        const uint64_t result = rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = rotl(s_[3], 45);
        return result;
    }
    uint64_t below(uint64_t n) { return n ? next() % n : 0; }
    double unit() { return double(next() >> 11) * 0x1.0p-53; }
    bool chance(double p) { return unit() < p; }
    double normal()
    {
        const double u = 1.0 - unit();
        return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * unit());
    }

private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
};

struct Options {
    uint64_t seed = 1;
    uint64_t files = 100000;
    uint64_t dirs = 10000;
    uint64_t totalBytes = 2ull << 30;
    bool empty = false;
    bool identical = false;
    double changeShare = 0.005;
    std::string original, modified;
};

enum class Change { None, Flip, Resize, Remove, Rename };

struct Dir {
    uint32_t parent = 0;
    uint32_t depth = 0;
    std::string name;
    uint32_t subdirs = 0;
    bool removed = false; // only leaves go, so no descendant is left behind
    bool renamed = false;
    bool added = false;
    std::string originalPath, modifiedPath; // relative, "" for the root
};

struct File {
    uint32_t dir = 0;
    std::string name;
    uint64_t size = 0;
    uint64_t poolOffset = 0;
    int64_t mtime = 0;
    bool symlink = false;
    bool pinned = false; // a symbolic link points here
    bool added = false;
    std::string target;
    Change change = Change::None;
};

constexpr uint32_t kMaxDepth = 8;
constexpr uint64_t kMaxFileSize = 8ull << 20;
constexpr std::size_t kPoolSize = 32u << 20;

const char *const kDirWords[] = {"src",  "lib",    "docs",  "test",   "assets", "build", "include", "data",
                                 "img",  "util",   "core",  "app",    "config", "tools", "vendor",  "res",
                                 "l10n", "backup", "notes", "photos", "Media",  "Work",  "Projects"};
const char *const kFileWords[] = {"main",  "index", "readme", "Report", "photo", "notes", "data",   "Makefile",
                                  "utils", "test",  "config", "draft",  "IMG",   "scan",  "module", "page"};
const char *const kExtensions[] = {".txt", ".c",   ".h",    ".cpp", ".json", ".md",  ".png", ".jpg", ".o",
                                   ".log", ".xml", ".html", ".js",  ".dat",  ".pdf", ".zip", ""};
// Names as they turn up: accents in UTF-8, Latin-1 bytes that are not UTF-8, spaces.
const char *const kOddPrefixes[] = {"r\xc3\xa9sum\xc3\xa9 ",     "caf\xe9_", "\xff\xfe", "na\xefve_",
                                    "\xe6\x97\xa5\xe6\x9c\xac_", "copy of "};

template <typename T, std::size_t N> const char *pick(Random &random, const T (&words)[N])
{
    return words[random.below(N)];
}

std::string base36(uint64_t value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[value % 36]);
        value /= 36;
    } while (value);
    return digits;
}

bool isNotUtf8(std::string_view name)
{
    for (std::size_t i = 0; i < name.size(); ++i) {
        const unsigned char c = name[i];
        const int extra = c < 0x80 ? 0 : (c & 0xE0) == 0xC0 ? 1 : (c & 0xF0) == 0xE0 ? 2 : (c & 0xF8) == 0xF0 ? 3 : -1;
        if (extra < 0 || i + extra >= name.size())
            return true;
        for (int k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(name[i + k]) & 0xC0) != 0x80)
                return true;
        i += extra;
    }
    return false;
}

// The index keeps every name unique, also without regard to case.
std::string makeName(Random &random, const char *word, uint64_t index, const char *extension)
{
    std::string name;
    if (random.chance(0.004))
        name += pick(random, kOddPrefixes);
    name += word;
    name += '_' + base36(index) + extension;
    if (random.chance(0.05))
        for (char &c : name)
            c = char(std::toupper(static_cast<unsigned char>(c)));
    return name;
}

// "Foo_1a.txt" -> "fOO_1A.TXT": every ASCII letter changes case.
std::string swapCase(std::string name)
{
    for (char &c : name) {
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
        else if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    }
    return name;
}

uint64_t parseSize(const char *text)
{
    char *end = nullptr;
    const double value = std::strtod(text, &end);
    uint64_t scale = 1;
    switch (*end) {
    case 'K':
    case 'k':
        scale = 1ull << 10;
        ++end;
        break;
    case 'M':
    case 'm':
        scale = 1ull << 20;
        ++end;
        break;
    case 'G':
    case 'g':
        scale = 1ull << 30;
        ++end;
        break;
    case 'T':
    case 't':
        scale = 1ull << 40;
        ++end;
        break;
    }
    if (end == text || *end || value < 0)
        usage("bad size");
    return uint64_t(value * double(scale));
}

uint64_t parseCount(const char *text)
{
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end)
        usage("bad number");
    return value;
}

Options parseOptions(int argc, char **argv)
{
    Options options;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        auto value = [&](std::string_view name) -> const char * {
            if (argument.substr(0, name.size()) != name)
                return nullptr;
            if (argument.size() > name.size() && argument[name.size()] == '=')
                return argv[i] + name.size() + 1;
            if (argument.size() == name.size() && i + 1 < argc)
                return argv[++i];
            return nullptr;
        };
        if (argument == "--empty")
            options.empty = true;
        else if (argument == "--identical")
            options.identical = true;
        else if (argument == "--help" || argument == "-h")
            usage(nullptr);
        else if (const char *v = value("--seed"))
            options.seed = parseCount(v);
        else if (const char *v = value("--files"))
            options.files = parseCount(v);
        else if (const char *v = value("--dirs"))
            options.dirs = parseCount(v);
        else if (const char *v = value("--total-bytes"))
            options.totalBytes = parseSize(v);
        else if (const char *v = value("--change-share")) {
            options.changeShare = std::strtod(v, nullptr);
            if (!(options.changeShare >= 0 && options.changeShare <= 0.2))
                usage("--change-share takes a share from 0 to 0.2");
        } else if (argument.size() > 1 && argument[0] == '-')
            usage("unknown option");
        else
            paths.emplace_back(argument);
    }
    if (paths.size() != 2)
        usage("expected ORIGINAL and MODIFIED");
    options.original = paths[0];
    options.modified = paths[1];
    return options;
}

struct Model {
    std::vector<Dir> dirs;
    std::vector<File> files;
    uint64_t nextIndex = 0;
};

void buildDirectories(Model &model, const Options &options, Random &random)
{
    // Most folders sit three to six levels down; a few at the top, a few at the bottom.
    static const double kDepthWeights[kMaxDepth] = {0.005, 0.06, 0.15, 0.22, 0.22, 0.16, 0.11, 0.075};
    std::vector<std::vector<uint32_t>> byDepth(kMaxDepth + 1);
    byDepth[0].push_back(0);
    model.dirs.resize(options.dirs + 1); // [0] is the root
    for (uint32_t i = 1; i < model.dirs.size(); ++i) {
        uint32_t depth = 1;
        for (double u = random.unit(); depth < kMaxDepth && u >= kDepthWeights[depth - 1]; ++depth)
            u -= kDepthWeights[depth - 1];
        while (byDepth[depth - 1].empty())
            --depth;
        // Skewed towards the early folders of a level, which so become the wide ones.
        const auto &candidates = byDepth[depth - 1];
        const uint32_t parent = candidates[std::size_t(double(candidates.size()) * std::pow(random.unit(), 2.0))];
        Dir &dir = model.dirs[i];
        dir.parent = parent;
        dir.depth = depth;
        dir.name = makeName(random, pick(random, kDirWords), model.nextIndex++, "");
        ++model.dirs[parent].subdirs;
        byDepth[depth].push_back(i);
    }
}

void buildFiles(Model &model, const Options &options, Random &random)
{
    const uint64_t dirCount = model.dirs.size();
    model.files.resize(options.files);
    // Log-normal sizes around a median of 4 KiB: many small files, a few large.
    double sum = 0;
    for (auto &file : model.files) {
        // Half anywhere, half crowded into a few busy folders below the root.
        file.dir = uint32_t(dirCount == 1 || random.chance(0.5)
                                ? random.below(dirCount)
                                : 1 + uint64_t(double(dirCount - 1) * std::pow(random.unit(), 3.0)));
        file.name = makeName(random, pick(random, kFileWords), model.nextIndex++, pick(random, kExtensions));
        file.mtime = 1500000000 + int64_t(random.below(250000000));
        const bool isEmpty = random.chance(0.03);
        const double size = isEmpty ? 0 : std::exp(std::log(4096.0) + 2.0 * random.normal());
        file.size = uint64_t(size);
        sum += size;
        file.poolOffset = random.next();
    }
    // Scale to the total asked for; sizes held at the cap leave the rest to grow.
    for (int round = 0; round < 4 && sum > 0; ++round) {
        const double scale = double(options.totalBytes) / sum;
        sum = 0;
        for (auto &file : model.files) {
            file.size = std::min<uint64_t>(kMaxFileSize, uint64_t(double(file.size) * scale + 0.5));
            sum += double(file.size);
        }
    }
    if (options.empty)
        for (auto &file : model.files)
            file.size = 0;
    // A few symbolic links, each to a regular file beside it.
    const uint64_t links = options.files >= 50 ? std::max<uint64_t>(3, options.files / 2000) : 0;
    for (uint64_t i = 0; i < links; ++i) {
        File &target = model.files[random.below(options.files)];
        target.pinned = true;
        File link;
        link.dir = target.dir;
        link.symlink = true;
        link.target = target.name;
        link.name = "link_" + base36(model.nextIndex++);
        link.mtime = 1500000000 + int64_t(random.below(250000000));
        model.files.push_back(link);
    }
}

struct ChangeCounts {
    uint64_t flipped = 0, resized = 0, addedFiles = 0, removedFiles = 0, renamedFiles = 0;
    uint64_t addedDirs = 0, removedDirs = 0, filesInRemovedDirs = 0, renamedDirs = 0;
};

ChangeCounts planChanges(Model &model, const Options &options, Random &random)
{
    ChangeCounts counts;
    const auto share = [&](uint64_t of) { return uint64_t(std::llround(double(of) * options.changeShare)); };

    // Whole folders gone: leaves, so that each takes a handful of files with it.
    std::vector<uint32_t> leaves;
    for (uint32_t i = 1; i < model.dirs.size(); ++i)
        if (model.dirs[i].subdirs == 0)
            leaves.push_back(i);
    for (uint64_t n = share(model.dirs.size() - 1); n > 0 && !leaves.empty(); --n) {
        const std::size_t at = random.below(leaves.size());
        model.dirs[leaves[at]].removed = true;
        leaves[at] = leaves.back();
        leaves.pop_back();
        ++counts.removedDirs;
    }
    for (uint64_t n = share(model.dirs.size() - 1); n > 0; --n) {
        Dir &dir = model.dirs[1 + random.below(model.dirs.size() - 1)];
        if (!dir.removed && !dir.renamed) {
            dir.renamed = true;
            ++counts.renamedDirs;
        }
    }
    // Each file takes at most one change; a quarter of the changed ones change size.
    const uint64_t regular = options.files;
    std::vector<uint32_t> order(regular);
    for (uint32_t i = 0; i < regular; ++i)
        order[i] = i;
    for (std::size_t i = order.size(); i > 1; --i)
        std::swap(order[i - 1], order[random.below(i)]);
    std::size_t next = 0;
    auto assign = [&](uint64_t count, Change change) {
        for (uint64_t n = 0; n < count && next < order.size(); ++next) {
            File &file = model.files[order[next]];
            if (file.pinned || model.dirs[file.dir].removed)
                continue;
            file.change = change == Change::Flip && (file.size == 0 || random.chance(0.25)) ? Change::Resize : change;
            ++n;
        }
    };
    assign(share(regular), Change::Flip);
    assign(share(regular), Change::Remove);
    assign(share(regular), Change::Rename);
    for (const auto &file : model.files) {
        if (model.dirs[file.dir].removed)
            ++counts.filesInRemovedDirs;
        counts.flipped += file.change == Change::Flip;
        counts.resized += file.change == Change::Resize;
        counts.removedFiles += file.change == Change::Remove;
        counts.renamedFiles += file.change == Change::Rename;
    }

    // New folders with a file or three each, and new files in existing folders.
    auto liveDir = [&] {
        uint32_t at;
        do
            at = uint32_t(random.below(model.dirs.size()));
        while (model.dirs[at].removed);
        return at;
    };
    const uint64_t mean = options.files ? std::max<uint64_t>(1, options.totalBytes / options.files) : 0;
    auto addFile = [&](uint32_t dir) {
        File file;
        file.dir = dir;
        file.added = true;
        file.name = makeName(random, pick(random, kFileWords), model.nextIndex++, pick(random, kExtensions));
        file.size = options.empty ? 0 : std::min<uint64_t>(kMaxFileSize, random.below(2 * mean + 1));
        file.poolOffset = random.next();
        file.mtime = 1760000000 + int64_t(random.below(1000000));
        model.files.push_back(file);
    };
    for (uint64_t n = share(model.dirs.size() - 1); n > 0; --n) {
        const uint32_t parent = liveDir();
        if (model.dirs[parent].depth >= kMaxDepth)
            continue;
        Dir dir;
        dir.parent = parent;
        dir.depth = model.dirs[parent].depth + 1;
        dir.added = true;
        dir.name = makeName(random, pick(random, kDirWords), model.nextIndex++, "");
        model.dirs.push_back(dir);
        ++counts.addedDirs;
        for (uint64_t k = 1 + random.below(3); k > 0; --k)
            addFile(uint32_t(model.dirs.size() - 1));
    }
    const uint64_t inNewDirs = model.files.size();
    for (uint64_t n = share(regular); n > 0; --n)
        addFile(liveDir());
    counts.addedFiles = model.files.size() - inNewDirs;
    return counts;
}

void computePaths(Model &model)
{
    for (auto &dir : model.dirs) {
        if (&dir == &model.dirs[0])
            continue;
        const Dir &parent = model.dirs[dir.parent];
        const std::string modifiedName = dir.renamed ? swapCase(dir.name) : dir.name;
        dir.originalPath = parent.originalPath.empty() ? dir.name : parent.originalPath + '/' + dir.name;
        dir.modifiedPath = parent.modifiedPath.empty() ? modifiedName : parent.modifiedPath + '/' + modifiedName;
    }
}

std::string join(const std::string &root, const std::string &relative, const std::string &name = {})
{
    std::string path = root;
    if (!relative.empty())
        path += '/' + relative;
    if (!name.empty())
        path += '/' + name;
    return path;
}

// A root may exist already (empty); anything below must be new.
void makeDirectory(const std::string &path, bool isRoot)
{
    if (::mkdir(path.c_str(), 0755) != 0 && !(isRoot && errno == EEXIST))
        die("mkdir " + path);
}

void setTimes(const std::string &path, int64_t seconds, bool noFollow = false)
{
    const timespec times[2] = {{seconds, long(seconds % 1000) * 1000000}, {seconds, long(seconds % 1000) * 1000000}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, noFollow ? AT_SYMLINK_NOFOLLOW : 0) != 0)
        die("utimensat " + path);
}

void writeAll(int fd, const char *data, uint64_t size, const std::string &path)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, std::min<uint64_t>(size, 1u << 30));
        if (n <= 0)
            die("write " + path);
        data += n;
        size -= uint64_t(n);
    }
}

// Contents: a slice of a random pool, headed by the file's own name so that
// no two files are alike.
void writeFile(const std::string &path, const File &file, const std::vector<char> &pool)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        die("create " + path);
    if (file.size > 0) {
        const uint64_t head = std::min<uint64_t>(file.size, file.name.size());
        writeAll(fd, file.name.data(), head, path);
        const uint64_t rest = file.size - head;
        writeAll(fd, pool.data() + file.poolOffset % (pool.size() - rest + 1), rest, path);
    }
    ::close(fd);
}

// Independent contents: a clone where the file system shares extents copy-on-write,
// else an in-kernel copy, else read and write.
void copyFile(const std::string &from, const std::string &to, uint64_t size)
{
    static bool tryClone = true;
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        die("open " + from);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (out < 0)
        die("create " + to);
    if (size > 0 && !(tryClone && ::ioctl(out, FICLONE, in) == 0)) {
        tryClone = false;
        uint64_t left = size;
        while (left > 0) {
            const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, left, 0);
            if (n > 0) {
                left -= uint64_t(n);
                continue;
            }
            if (n == 0 || (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP))
                die("copy " + to);
            std::vector<char> buffer(1 << 20);
            ssize_t got;
            while ((got = ::read(in, buffer.data(), buffer.size())) > 0)
                writeAll(out, buffer.data(), uint64_t(got), to);
            if (got < 0)
                die("read " + from);
            break;
        }
    }
    ::close(in);
    ::close(out);
}

void changeFile(const std::string &path, File &file, Random &random)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        die("open " + path);
    if (file.change == Change::Flip) {
        const off_t at = off_t(random.below(file.size));
        unsigned char byte = 0;
        if (::pread(fd, &byte, 1, at) != 1)
            die("read " + path);
        byte = ~byte;
        if (::pwrite(fd, &byte, 1, at) != 1)
            die("write " + path);
    } else if (file.size > 1 && random.chance(0.5)) {
        file.size -= 1 + random.below(std::min<uint64_t>(file.size - 1, 4096));
        if (::ftruncate(fd, off_t(file.size)) != 0)
            die("truncate " + path);
    } else {
        const std::string more(1 + random.below(4096), 'x');
        if (::pwrite(fd, more.data(), more.size(), off_t(file.size)) != ssize_t(more.size()))
            die("write " + path);
        file.size += more.size();
    }
    ::close(fd);
}

void finishDirectoryTimes(const Model &model, const std::string &root, bool modified)
{
    for (std::size_t i = model.dirs.size(); i-- > 0;) {
        const Dir &dir = model.dirs[i];
        if (modified ? dir.removed : dir.added)
            continue;
        setTimes(join(root, modified ? dir.modifiedPath : dir.originalPath), 1600000000 + int64_t(i));
    }
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = parseOptions(argc, argv);
    Random structure(options.seed);
    Random changes(options.seed ^ 0x6368616E676573ull);
    Model model;
    buildDirectories(model, options, structure);
    buildFiles(model, options, structure);
    ChangeCounts counts;
    if (!options.identical)
        counts = planChanges(model, options, changes);
    computePaths(model);

    std::vector<char> pool(options.empty ? 1 : kPoolSize);
    if (!options.empty) {
        Random content(options.seed ^ 0x636F6E74656E74ull);
        for (std::size_t i = 0; i + 8 <= pool.size(); i += 8) {
            const uint64_t word = content.next();
            std::memcpy(pool.data() + i, &word, 8);
        }
    }

    // ORIGINAL.
    uint64_t bytes = 0, links = 0, oddNames = 0, maxDepth = 0;
    for (const auto &dir : model.dirs) {
        if (dir.added)
            continue;
        makeDirectory(join(options.original, dir.originalPath), &dir == &model.dirs[0]);
        oddNames += isNotUtf8(dir.name);
        maxDepth = std::max<uint64_t>(maxDepth, dir.depth);
    }
    for (const auto &file : model.files) {
        if (file.added)
            continue;
        const std::string path = join(options.original, model.dirs[file.dir].originalPath, file.name);
        oddNames += isNotUtf8(file.name);
        if (file.symlink) {
            if (::symlink(file.target.c_str(), path.c_str()) != 0)
                die("symlink " + path);
            setTimes(path, file.mtime, true);
            ++links;
        } else {
            writeFile(path, file, pool);
            setTimes(path, file.mtime);
            bytes += file.size;
        }
    }
    finishDirectoryTimes(model, options.original, false);

    // MODIFIED.
    uint64_t modifiedBytes = 0;
    for (const auto &dir : model.dirs)
        if (!dir.removed)
            makeDirectory(join(options.modified, dir.modifiedPath), &dir == &model.dirs[0]);
    for (auto &file : model.files) {
        const Dir &dir = model.dirs[file.dir];
        if (dir.removed || file.change == Change::Remove)
            continue;
        const std::string name = file.change == Change::Rename ? swapCase(file.name) : file.name;
        const std::string path = join(options.modified, dir.modifiedPath, name);
        if (file.symlink) {
            if (::symlink(file.target.c_str(), path.c_str()) != 0)
                die("symlink " + path);
            setTimes(path, file.mtime, true);
            continue;
        }
        if (file.added) {
            writeFile(path, file, pool);
        } else {
            copyFile(join(options.original, dir.originalPath, file.name), path, file.size);
            if (file.change == Change::Flip || file.change == Change::Resize) {
                changeFile(path, file, changes);
                file.mtime += 86400; // an edit is later than the original
            }
        }
        setTimes(path, file.mtime);
        modifiedBytes += file.size;
    }
    finishDirectoryTimes(model, options.modified, true);

    std::printf("seed %llu%s%s\n", (unsigned long long)options.seed, options.empty ? ", empty files" : "",
                options.identical ? ", identical copy" : "");
    std::printf("original: %llu files, %llu dirs, %llu symlinks, %llu bytes (%.1f MiB), depth up to %llu, "
                "%llu names not UTF-8\n",
                (unsigned long long)options.files, (unsigned long long)options.dirs, (unsigned long long)links,
                (unsigned long long)bytes, double(bytes) / (1 << 20), (unsigned long long)maxDepth,
                (unsigned long long)oddNames);
    std::printf("modified: %llu bytes (%.1f MiB)\n", (unsigned long long)modifiedBytes,
                double(modifiedBytes) / (1 << 20));
    if (!options.identical)
        std::printf("changes: %llu files with a byte flipped, %llu changed in size, %llu added, %llu removed, "
                    "%llu renamed in case; %llu dirs added, %llu removed (with %llu files), %llu renamed in case\n",
                    (unsigned long long)counts.flipped, (unsigned long long)counts.resized,
                    (unsigned long long)counts.addedFiles, (unsigned long long)counts.removedFiles,
                    (unsigned long long)counts.renamedFiles, (unsigned long long)counts.addedDirs,
                    (unsigned long long)counts.removedDirs, (unsigned long long)counts.filesInRemovedDirs,
                    (unsigned long long)counts.renamedDirs);
    return 0;
}

#include "KVNTestTree.h"

#include "KVNPredicate.h"
#include "KVNUserDefaults.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

KVNTestTree::KVNTestTree() : dir_(std::make_unique<QTemporaryDir>())
{
    QVERIFY2(dir_->isValid(), "temporary directory");
}

KVNTestTree::KVNTestTree(const QString &parentDirectory)
    : dir_(std::make_unique<QTemporaryDir>(parentDirectory + QStringLiteral("/korvane-XXXXXX")))
{
    QVERIFY2(dir_->isValid(), "temporary directory");
}

static void removeTree(const QByteArray &path)
{
    struct stat info;
    if (::lstat(path.constData(), &info) != 0)
        return;
    if (S_ISDIR(info.st_mode)) {
        ::chmod(path.constData(), 0700);
        if (DIR *dir = ::opendir(path.constData())) {
            while (dirent *entry = ::readdir(dir)) {
                const QByteArray name(entry->d_name);
                if (name != "." && name != "..")
                    removeTree(path + '/' + name);
            }
            ::closedir(dir);
        }
        ::rmdir(path.constData());
    } else {
        ::unlink(path.constData());
    }
}

KVNTestTree::~KVNTestTree()
{
    removeTree(root());
}

QByteArray KVNTestTree::root() const
{
    return QFile::encodeName(QDir(dir_->path()).canonicalPath());
}

QByteArray KVNTestTree::path(const QByteArray &relative) const
{
    return relative.isEmpty() ? root() : root() + '/' + relative;
}

void KVNTestTree::makeParents(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    if (slash <= 0)
        return;
    const QByteArray parent = path.left(slash);
    if (madeDirectories_.contains(parent))
        return;
    // Byte by byte: names need not be text.
    for (qsizetype at = root().size() + 1; at <= parent.size(); ++at)
        if (at == parent.size() || parent[at] == '/')
            ::mkdir(parent.left(at).constData(), 0755);
    madeDirectories_.insert(parent);
}

void KVNTestTree::file(const QByteArray &relative, const QByteArray &contents, int64_t mtimeSeconds)
{
    const QByteArray full = path(relative);
    makeParents(full);
    const int fd = ::open(full.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    QVERIFY2(fd >= 0, full.constData());
    qsizetype written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd, contents.constData() + written, size_t(contents.size() - written));
        QVERIFY(n > 0);
        written += n;
    }
    ::close(fd);
    if (mtimeSeconds >= 0)
        setMtime(relative, mtimeSeconds);
}

void KVNTestTree::dir(const QByteArray &relative)
{
    makeParents(path(relative) + "/x");
}

void KVNTestTree::symlink(const QByteArray &relative, const QByteArray &target, int64_t mtimeSeconds)
{
    const QByteArray full = path(relative);
    makeParents(full);
    QVERIFY(::symlink(target.constData(), full.constData()) == 0);
    if (mtimeSeconds >= 0) {
        struct timespec times[2] = {{mtimeSeconds, 0}, {mtimeSeconds, 0}};
        QVERIFY(::utimensat(AT_FDCWD, full.constData(), times, AT_SYMLINK_NOFOLLOW) == 0);
    }
}

void KVNTestTree::setMtime(const QByteArray &relative, int64_t seconds, uint32_t nanoseconds)
{
    struct timespec times[2] = {{seconds, long(nanoseconds)}, {seconds, long(nanoseconds)}};
    QVERIFY(::utimensat(AT_FDCWD, path(relative).constData(), times, AT_SYMLINK_NOFOLLOW) == 0);
}

void KVNTestTree::remove(const QByteArray &relative)
{
    const QByteArray full = path(relative);
    struct stat info;
    QVERIFY(::lstat(full.constData(), &info) == 0);
    if (S_ISDIR(info.st_mode))
        QVERIFY(QDir(QFile::decodeName(full)).removeRecursively());
    else
        QVERIFY(::unlink(full.constData()) == 0);
}

void KVNTestTree::rename(const QByteArray &from, const QByteArray &to)
{
    QVERIFY(::rename(path(from).constData(), path(to).constData()) == 0);
}

void KVNFillTrees(KVNTestTree &left, KVNTestTree &right, std::initializer_list<QByteArray> entries)
{
    for (const QByteArray &entry : entries) {
        const char where = entry.front();
        const QByteArray path = entry.mid(1);
        for (KVNTestTree *tree : {&left, &right}) {
            if ((where == '<' && tree == &right) || (where == '>' && tree == &left))
                continue;
            if (path.endsWith('/'))
                tree->dir(path.chopped(1));
            else
                tree->file(path, where != '~' ? "same" : tree == &left ? "left" : "rite");
        }
    }
}

KVNTestComparison KVNTestComparison::run(const KVNTestTree &left, const KVNTestTree &right, const QString &exclusion)
{
    KVNTestComparison comparison;
    comparison.document = KVNDirCompDocument::make();
    comparison.document->setWatchesFileSystem(false);
    comparison.document->setOriginalURL(left.root(), right.root());
    comparison.document->setExclusionPredicate(exclusion.isEmpty() ? nullptr
                                                                   : KVNPredicate::predicateWithFormat(exclusion));
    KVNWaitUntilIdle(*comparison.document); // the exclusion is seen before the run starts
    comparison.document->performInitialTablePopulate();
    KVNWaitUntilIdle(*comparison.document);
    comparison.reread();
    return comparison;
}

void KVNTestComparison::update()
{
    document->performTableUpdate();
    KVNWaitUntilIdle(*document);
    reread();
}

void KVNTestComparison::reread()
{
    rows = document->sourceArrayController()->arrangedObjects();
    byPath.clear();
    for (const auto &row : rows)
        byPath[row->displayRelativePath()] = row;
}

KVNDirDiffTableElementPtr KVNTestComparison::row(const QString &path) const
{
    auto it = byPath.find(path);
    return it == byPath.end() ? nullptr : it->second;
}

QStringList KVNTestComparison::paths() const
{
    QStringList list;
    for (const auto &row : rows)
        list << row->displayRelativePath();
    return list;
}

void KVNWaitUntilIdle(KVNDirCompDocument &document)
{
    QCoreApplication::processEvents();
    while (document.isBusy())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::processEvents();
}

int KVNRunUnprivileged(const std::function<int()> &fn)
{
    const pid_t pid = ::fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        if (::getuid() == 0) {
            if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
                ::setresuid(65534, 65534, 65534) != 0)
                ::_exit(250);
        }
        ::_exit(fn());
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    const int code = WEXITSTATUS(status);
    return code == 250 ? -1 : code;
}

void KVNOpenUpForUnprivileged(const QByteArray &path)
{
    // Every ancestor needs search permission for the other user.
    QByteArray current = path;
    while (!current.isEmpty() && current != "/") {
        struct stat info;
        if (::stat(current.constData(), &info) == 0 && S_ISDIR(info.st_mode))
            ::chmod(current.constData(), info.st_mode | S_IXOTH | S_IROTH);
        current = current.left(current.lastIndexOf('/'));
    }
}

void KVNUseIsolatedDefaults(const QTemporaryDir &dir)
{
    QVERIFY(dir.isValid());
    KVNUserDefaults::standardUserDefaults().setStoragePath(dir.filePath(QStringLiteral("defaults.ini")));
    KVNRegisterApplicationDefaults();
}

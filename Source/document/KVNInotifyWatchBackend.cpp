#include "KVNInotifyWatchBackend.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What makes a directory "changed": anything done to an entry in it. Reads
// and closes are left out; a write shows as IN_MODIFY.
constexpr uint32_t kTreeMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                               IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// A root's parent only tells when the root itself comes, goes or is renamed;
// its other traffic (the parent may be a busy /tmp) is not asked for.
// IN_MASK_ADD keeps a tree watch on the same directory intact.
constexpr uint32_t kParentMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::size_t kListingSize = 32 * 1024;
// Bounds one call of readEvents, so that a flood cannot hold the event loop.
constexpr int kReadsPerCall = 16;

QByteArray join(const QByteArray &directory, const QByteArray &name)
{
    QByteArray path;
    path.reserve(directory.size() + 1 + name.size());
    path += directory;
    if (!path.endsWith('/'))
        path += '/';
    path += name;
    return path;
}

bool isBelowOrSame(const QByteArray &path, const QByteArray &top)
{
    if (!path.startsWith(top))
        return false;
    return path.size() == top.size() || top.endsWith('/') || path.at(top.size()) == '/';
}

QByteArray normalizedRoot(QByteArray path)
{
    if (path.isEmpty() || path.contains('\0'))
        return QByteArray(); // no such path; a NUL would cut it short and watch another one
    if (!path.startsWith('/')) {
        char cwd[PATH_MAX];
        if (!::getcwd(cwd, sizeof cwd))
            return QByteArray();
        path = join(QByteArray(cwd), path);
    }
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    return path;
}

// Appends the subdirectories of path to out; answers whether the directory
// has any entry at all. Symbolic links are not followed. getdents64 straight
// into a reused buffer: no DIR, no stat per entry (d_type says enough on every
// common file system).
bool listSubdirectories(const QByteArray &path, bool followTop, std::vector<char> &buffer, std::vector<QByteArray> &out)
{
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followTop ? 0 : O_NOFOLLOW);
    const int fd = ::open(path.constData(), flags);
    if (fd < 0)
        return false;
    bool any = false;
    for (;;) {
        const ssize_t length = ::getdents64(fd, buffer.data(), buffer.size());
        if (length <= 0)
            break;
        for (ssize_t offset = 0; offset < length;) {
            const auto *entry = reinterpret_cast<const dirent64 *>(buffer.data() + offset);
            offset += entry->d_reclen;
            const char *name = entry->d_name;
            if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
                continue;
            any = true;
            bool isDirectory = entry->d_type == DT_DIR;
            if (entry->d_type == DT_UNKNOWN) {
                struct stat attributes;
                isDirectory = ::fstatat(fd, name, &attributes, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(attributes.st_mode);
            }
            if (isDirectory)
                out.push_back(join(path, QByteArray(name)));
        }
    }
    ::close(fd);
    return any;
}

} // namespace

KVNInotifyWatchBackend::KVNInotifyWatchBackend() = default;

KVNInotifyWatchBackend::~KVNInotifyWatchBackend()
{
    close();
}

void KVNInotifyWatchBackend::setWatchLimitHandler(std::function<void(const QByteArray &)> handler)
{
    limitHandler_ = std::move(handler);
}

KVNInotifyWatchBackend::OpenResult KVNInotifyWatchBackend::open(const QList<QByteArray> &roots)
{
    close();
    ++generation_;
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0)
        return errno == EMFILE ? OpenResult::InstanceLimit : OpenResult::Failed;
    for (const QByteArray &given : roots) {
        Root root;
        root.path = normalizedRoot(given);
        if (root.path.isEmpty())
            continue;
        root.name = root.path.mid(root.path.lastIndexOf('/') + 1);
        roots_.push_back(std::move(root));
    }
    for (Root &root : roots_)
        watchRoot(root, nullptr);
    return OpenResult::Ok;
}

void KVNInotifyWatchBackend::close()
{
    // Closing the instance drops every watch at once, without queueing an
    // IN_IGNORED per watch.
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    roots_.clear();
    watches_.clear();
    pathIndex_.clear();
    movedAway_.clear();
    movedWithin_.clear();
}

int KVNInotifyWatchBackend::addWatch(const QByteArray &path, uint32_t mask, bool &isNew)
{
    isNew = false;
    const int wd = ::inotify_add_watch(fd_, path.constData(), mask);
    if (wd < 0)
        return -1;
    auto [it, inserted] = watches_.try_emplace(wd);
    if (inserted) {
        if (testLimit_ >= 0 && watches_.size() > std::size_t(testLimit_)) {
            watches_.erase(it);
            ::inotify_rm_watch(fd_, wd);
            errno = ENOSPC;
            return -1;
        }
        it->second.path = path;
        pathIndex_.insert(path, wd);
    }
    isNew = inserted;
    return wd;
}

void KVNInotifyWatchBackend::watchRoot(Root &root, std::vector<QByteArray> *changed)
{
    if (root.parentWd < 0 && root.path != "/") {
        const QByteArray parent = root.path.left(std::max<qsizetype>(root.path.lastIndexOf('/'), 1));
        bool isNew;
        const int wd = addWatch(parent, kParentMask, isNew);
        if (wd >= 0) {
            watches_[wd].rootParent = true;
            root.parentWd = wd;
        } else if (errno == ENOSPC && limitHandler_) {
            limitHandler_(root.path);
        }
    }
    root.wd = addTree(root.path, true, changed);
}

int KVNInotifyWatchBackend::addTree(const QByteArray &top, bool followTop, std::vector<QByteArray> *changed)
{
    std::vector<QByteArray> pending{top};
    int topWd = -1;
    bool isTop = true;
    while (!pending.empty()) {
        const QByteArray path = std::move(pending.back());
        pending.pop_back();
        const bool follow = isTop && followTop;
        const bool wasTop = isTop;
        isTop = false;
        bool isNew;
        const int wd = addWatch(path, kTreeMask | (follow ? 0 : IN_DONT_FOLLOW), isNew);
        if (wd < 0) {
            // Anything but the limit (gone already, not readable) only means
            // there is nothing to watch there.
            if (errno == ENOSPC) {
                if (limitHandler_)
                    limitHandler_(path);
                return topWd;
            }
            continue;
        }
        if (wasTop)
            topWd = wd;
        if (!isNew && adoptMoved(wd, path))
            continue;
        Watch &watch = watches_[wd];
        if (watch.tree)
            continue; // the same directory through another root, or seen twice in a race
        watch.tree = true;
        if (listing_.empty())
            listing_.resize(kListingSize);
        const bool hasEntries = listSubdirectories(path, follow, listing_, pending);
        // A directory that is new to us already holds what was made in it
        // before its watch existed.
        if (changed && hasEntries)
            changed->push_back(path);
    }
    return topWd;
}

bool KVNInotifyWatchBackend::adoptMoved(int wd, const QByteArray &newPath)
{
    auto away = std::find(movedAway_.begin(), movedAway_.end(), wd);
    if (away == movedAway_.end())
        return false;
    movedAway_.erase(away);
    renameSubtree(watches_[wd].path, newPath);
    movedWithin_.push_back(wd);
    return true;
}

void KVNInotifyWatchBackend::renameSubtree(const QByteArray &from, const QByteArray &to)
{
    for (auto &[wd, watch] : watches_) {
        if (!watch.tree || !isBelowOrSame(watch.path, from))
            continue;
        auto index = pathIndex_.find(watch.path);
        if (index != pathIndex_.end() && index.value() == wd)
            pathIndex_.erase(index);
        watch.path = to + watch.path.mid(from.size());
        pathIndex_.insert(watch.path, wd);
    }
}

void KVNInotifyWatchBackend::forget(int wd)
{
    auto it = watches_.find(wd);
    if (it == watches_.end())
        return;
    auto index = pathIndex_.find(it->second.path);
    if (index != pathIndex_.end() && index.value() == wd)
        pathIndex_.erase(index);
    watches_.erase(it);
    for (Root &root : roots_) {
        if (root.wd == wd)
            root.wd = -1;
        if (root.parentWd == wd)
            root.parentWd = -1;
    }
    std::erase(movedAway_, wd);
    std::erase(movedWithin_, wd);
}

void KVNInotifyWatchBackend::releaseSubtree(const QByteArray &path)
{
    std::vector<int> released;
    for (auto &[wd, watch] : watches_) {
        if (!watch.tree || !isBelowOrSame(watch.path, path))
            continue;
        if (watch.rootParent) {
            watch.tree = false; // still the parent of a root
            continue;
        }
        released.push_back(wd);
    }
    for (int wd : released) {
        ::inotify_rm_watch(fd_, wd);
        forget(wd); // its IN_IGNORED finds nothing left
    }
}

void KVNInotifyWatchBackend::resync(std::vector<QByteArray> &changed)
{
    QList<QByteArray> roots;
    for (const Root &root : roots_) {
        changed.push_back(root.path);
        roots.append(root.path);
    }
    // Creations were lost with the queue, so the set of watches may have
    // holes: start over with a fresh instance rather than patch it.
    open(roots);
}

void KVNInotifyWatchBackend::handle(int wd, uint32_t mask, const QByteArray &name, std::vector<QByteArray> &changed)
{
    auto it = watches_.find(wd);
    if (it == watches_.end())
        return; // released by us already
    if (mask & IN_IGNORED) {
        forget(wd);
        return;
    }
    const QByteArray directory = it->second.path;
    const bool tree = it->second.tree;
    const bool rootParent = it->second.rootParent;

    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        for (Root &root : roots_) {
            if (root.wd == wd)
                changed.push_back(root.path);
            if (root.parentWd == wd && (mask & IN_MOVE_SELF))
                changed.push_back(root.path); // moved along with its parent
        }
        if (mask & IN_UNMOUNT)
            changed.push_back(directory);
        if (!(mask & IN_MOVE_SELF))
            return; // IN_IGNORED follows and releases the watch
        for (Root &root : roots_) {
            if (root.wd == wd)
                root.wd = -1; // the directory lives on elsewhere, no longer as the root
        }
        auto within = std::find(movedWithin_.begin(), movedWithin_.end(), wd);
        if (within != movedWithin_.end()) {
            movedWithin_.erase(within); // already renamed in place
            return;
        }
        // Moved out of every watched tree: its watches describe nothing of ours.
        std::erase(movedAway_, wd);
        if (tree)
            releaseSubtree(directory);
        if (rootParent) {
            // The roots below moved too; their paths now name something else.
            for (Root &root : roots_) {
                if (root.parentWd == wd && root.wd >= 0)
                    releaseSubtree(root.path);
            }
            ::inotify_rm_watch(fd_, wd);
            forget(wd);
        }
        return;
    }

    if (tree) {
        changed.push_back(directory);
        if ((mask & IN_ISDIR) && !name.isEmpty()) {
            const QByteArray child = join(directory, name);
            if (mask & IN_MOVED_FROM) {
                auto index = pathIndex_.find(child);
                if (index != pathIndex_.end())
                    movedAway_.push_back(index.value());
            } else if (mask & (IN_CREATE | IN_MOVED_TO)) {
                addTree(child, false, &changed);
            }
        }
    }
    if (rootParent && !name.isEmpty()) {
        for (Root &root : roots_) {
            if (root.parentWd != wd || root.name != name)
                continue;
            changed.push_back(root.path);
            if ((mask & IN_ISDIR) && (mask & (IN_CREATE | IN_MOVED_TO)) && root.wd < 0)
                root.wd = addTree(root.path, true, &changed);
        }
    }
}

void KVNInotifyWatchBackend::readEvents(std::vector<QByteArray> &changed)
{
    if (fd_ < 0)
        return;
    if (buffer_.empty())
        buffer_.resize(kBufferSize);
    const int fd = fd_;
    for (int round = 0; round < kReadsPerCall; ++round) {
        const ssize_t length = ::read(fd, buffer_.data(), buffer_.size());
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return; // EAGAIN: all read
        std::size_t offset = 0;
        while (offset + sizeof(inotify_event) <= std::size_t(length)) {
            inotify_event header;
            std::memcpy(&header, buffer_.data() + offset, sizeof header);
            const char *nameBytes = buffer_.data() + offset + sizeof header;
            offset += sizeof header + header.len;
            // The name is padded with NULs; the bytes up to the first one are the name.
            const QByteArray name = header.len ? QByteArray(nameBytes, qstrnlen(nameBytes, header.len)) : QByteArray();
            if (header.mask & IN_Q_OVERFLOW) {
                resync(changed);
                return; // the rest belongs to the instance just closed
            }
            handle(header.wd, header.mask, name, changed);
        }
    }
}

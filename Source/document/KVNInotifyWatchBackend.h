#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

// The Linux side of directory watching: one inotify instance, one watch per
// directory below each root, and the translation of raw inotify records into
// "this directory changed". Coalescing, ids and delivery live in
// KVNFileSystemWatcher; another platform replaces only this class.
//
// Not thread-safe: one thread opens, reads and closes.
class KVNInotifyWatchBackend {
public:
    enum class OpenResult { Ok, InstanceLimit, Failed };

    KVNInotifyWatchBackend();
    ~KVNInotifyWatchBackend();
    KVNInotifyWatchBackend(const KVNInotifyWatchBackend &) = delete;
    KVNInotifyWatchBackend &operator=(const KVNInotifyWatchBackend &) = delete;

    // Creates the inotify instance (non-blocking) and watches every directory
    // below each root. A root that does not exist yet is watched through its
    // parent and picked up when it appears.
    OpenResult open(const QList<QByteArray> &roots);
    // Releases every watch and the descriptor; harmless when closed.
    void close();
    bool isOpen() const { return fd_ >= 0; }
    int descriptor() const { return fd_; }
    // Rises each time the instance is created anew, as after a queue overflow
    // (the descriptor number itself may come back the same).
    unsigned generation() const { return generation_; }

    // Reads what is waiting (never blocks) and appends the directories that
    // changed, oldest first; a directory can appear more than once.
    void readEvents(std::vector<QByteArray> &changed);

    // Called with the first directory left unwatched each time the system's
    // watch limit refuses a watch.
    void setWatchLimitHandler(std::function<void(const QByteArray &path)> handler);
    // Refuses watches beyond this many with ENOSPC, like an exhausted system
    // limit; negative lifts it.
    void setWatchLimitForTesting(int limit) { testLimit_ = limit; }

    std::size_t watchCount() const { return watches_.size(); }

private:
    // A watched directory. Its path lives here once; pathIndex_ shares the bytes.
    struct Watch {
        QByteArray path;
        bool tree = false;       // inside a root: its changes are reported
        bool rootParent = false; // the parent of a root: only the root's own name counts
    };
    struct Root {
        QByteArray path;
        QByteArray name; // last component, matched in the parent's events
        int wd = -1;
        int parentWd = -1;
    };

    int addWatch(const QByteArray &path, uint32_t mask, bool &isNew);
    // Watches top and every directory below it; with changed set, reports the
    // ones that already hold entries. Answers top's watch, or -1.
    int addTree(const QByteArray &top, bool followTop, std::vector<QByteArray> *changed);
    void watchRoot(Root &root, std::vector<QByteArray> *changed);
    bool adoptMoved(int wd, const QByteArray &newPath);
    void forget(int wd);
    void releaseSubtree(const QByteArray &path);
    void renameSubtree(const QByteArray &from, const QByteArray &to);
    void handle(int wd, uint32_t mask, const QByteArray &name, std::vector<QByteArray> &changed);
    void resync(std::vector<QByteArray> &changed);

    int fd_ = -1;
    unsigned generation_ = 0;
    int testLimit_ = -1;
    std::vector<Root> roots_;
    std::unordered_map<int, Watch> watches_;
    QHash<QByteArray, int> pathIndex_;
    // Directories renamed away from a watched parent, until their new place
    // (if it is watched) or their IN_MOVE_SELF tells where they went.
    std::vector<int> movedAway_;
    // Watches already renamed in place, waiting for their IN_MOVE_SELF.
    std::vector<int> movedWithin_;
    std::function<void(const QByteArray &)> limitHandler_;
    std::vector<char> buffer_;  // inotify records
    std::vector<char> listing_; // directory entries; separate, as a listing runs while records are handled
};

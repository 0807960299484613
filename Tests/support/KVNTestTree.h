#pragma once

#include "KVNDirCompDocument.h"
#include "KVNDirDiffTableElement.h"

#include <QByteArray>
#include <QSet>
#include <QTemporaryDir>

#include <initializer_list>
#include <map>
#include <memory>

// Builds real directory trees in a temporary folder for tests.
class KVNTestTree {
public:
    KVNTestTree();
    // In a folder of the caller's choice, for example memory-backed for a large tree.
    explicit KVNTestTree(const QString &parentDirectory);
    ~KVNTestTree();          // removes the tree byte by byte: names need not be text
    QByteArray root() const; // absolute path, as bytes
    QByteArray path(const QByteArray &relative) const;

    // Creates parent directories as needed. mtimeSeconds < 0 leaves the time as it is.
    void file(const QByteArray &relative, const QByteArray &contents = QByteArray(), int64_t mtimeSeconds = 1700000000);
    void dir(const QByteArray &relative);
    void symlink(const QByteArray &relative, const QByteArray &target, int64_t mtimeSeconds = 1700000000);
    void setMtime(const QByteArray &relative, int64_t seconds, uint32_t nanoseconds = 0);
    void remove(const QByteArray &relative); // file, link or whole directory
    void rename(const QByteArray &from, const QByteArray &to);

private:
    void makeParents(const QByteArray &fullPath);

    std::unique_ptr<QTemporaryDir> dir_;
    QSet<QByteArray> madeDirectories_;
};

// Fills two trees; the first character of each entry says where it goes:
// '=' the same file on both sides, '~' on both sides with contents that differ
// at the same size and date, '<' left only, '>' right only. An entry that ends
// in '/' is a directory.
void KVNFillTrees(KVNTestTree &left, KVNTestTree &right, std::initializer_list<QByteArray> entries);

// A finished comparison, with the rows by their display path ("./a/b").
struct KVNTestComparison {
    std::shared_ptr<KVNDirCompDocument> document;
    std::vector<KVNDirDiffTableElementPtr> rows;
    std::map<QString, KVNDirDiffTableElementPtr> byPath;

    // Runs a full comparison (and its status refresh) of two trees.
    static KVNTestComparison run(const KVNTestTree &left, const KVNTestTree &right,
                                 const QString &exclusion = QString());
    // Runs the update path after the disk changed, and re-reads the rows.
    void update();
    void reread();
    KVNDirDiffTableElementPtr row(const QString &path) const; // null when absent
    QStringList paths() const;                                // rows in table order
};

// Runs the event loop until the document has no run pending and an empty queue.
void KVNWaitUntilIdle(KVNDirCompDocument &document);

// Runs fn in a child process with the privileges of an unprivileged user, so
// that permissions apply even when the tests run as root. Returns the child's
// exit code, or -1 when privileges cannot be dropped (the caller skips).
int KVNRunUnprivileged(const std::function<int()> &fn);
// Makes a path reachable for the unprivileged user (a temporary folder under
// root's private /tmp may not be).
void KVNOpenUpForUnprivileged(const QByteArray &path);

// Points this process's defaults at a fresh file in dir and registers the
// application's defaults there, so that no test reads or writes the user's.
void KVNUseIsolatedDefaults(const QTemporaryDir &dir);

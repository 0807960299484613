#pragma once

#include "KVNValue.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <vector>

enum class KVNFileType : uint8_t {
    Regular = 0,
    Directory = 1,
    SymbolicLink = 2,
    Other = 3
}; // Other: device, socket, pipe

struct KVNDirectoryEntry {
    QByteArray name; // raw bytes of the name, never decoded
    KVNFileType type = KVNFileType::Other;
    uint64_t size = 0; // st_size; 0 for directories (callers ignore it there)
    KVNDate modified;  // mtime with nanoseconds
};

enum class KVNScanStatus { Ok = 0, AccessDenied, Error };

// Lists one directory and the attributes of its entries with as few system
// calls as Linux allows: one open, getdents64 into a large reused buffer, one
// statx per entry relative to the directory, batched through io_uring where
// that is the faster path. A reader keeps per-thread state (buffers, a ring):
// give each worker its own and never share one between threads.
class KVNDirectoryReader {
public:
    // How entries are stat'ed. Automatic takes the measured default, which
    // KORVANE_SCAN_IO_URING=0/1 in the environment overrides for benchmarks.
    // IoUring still falls back to plain statx when the kernel refuses a ring.
    enum class StatMethod { Automatic, Plain, IoUring };

    KVNDirectoryReader();
    explicit KVNDirectoryReader(StatMethod method);
    ~KVNDirectoryReader();
    KVNDirectoryReader(const KVNDirectoryReader &) = delete;
    KVNDirectoryReader &operator=(const KVNDirectoryReader &) = delete;

    // Reads every entry of the directory at absolutePath ("." and ".." skipped), in the order the
    // file system returns them (not sorted), appending to out (out is cleared first).
    // Never follows symbolic links: a link is an entry of type SymbolicLink with the link's own size and mtime.
    // The final component of absolutePath is not followed either (a link there is an Error, ENOTDIR);
    // links in the components above it are.
    // AccessDenied: the directory cannot be opened or read for lack of permission (EACCES/EPERM), also when it
    // can be listed but its entries cannot be stat'ed for lack of search permission; out is then empty.
    // Error: any other failure (with errorNumber() set); out holds nothing.
    // An entry that vanishes between listing and stat (ENOENT) is silently left out.
    KVNScanStatus readDirectory(const QByteArray &absolutePath, std::vector<KVNDirectoryEntry> &out);
    // The errno of the last failed readDirectory (also set for AccessDenied), 0 after success.
    int errorNumber() const;
    bool usesIoUring() const;

    // Attributes of one path without following a final link (for one-off nodes); false if it cannot be read.
    // out.name is the final component of the path.
    static bool attributesOfItem(const QByteArray &absolutePath, KVNDirectoryEntry &out);

private:
    struct Ring; // io_uring state; null when entries are stat'ed one call at a time

    KVNScanStatus listNames(int directoryFd, std::vector<KVNDirectoryEntry> &out);
    KVNScanStatus statNames(int directoryFd, std::vector<KVNDirectoryEntry> &out);
    KVNScanStatus fail(int error, std::vector<KVNDirectoryEntry> &out);
    void dropRing();

    std::unique_ptr<char[]> records_; // getdents64 buffer, reused across calls
    std::unique_ptr<Ring> ring_;
    int errorNumber_ = 0;
};

#pragma once

#include "KVNDirectoryReader.h"
#include "KVNValue.h"

#include <cstdint>

// What a scan reads of an item: its type, its size (not on a directory) and its
// modification time. Plain fields, since there is one per item on each side.
struct KVNFileAttributes {
    KVNFileType fileType = KVNFileType::Regular;
    bool hasSize = false;
    uint64_t fileSize = 0;
    KVNDate modificationDate;

    static KVNFileAttributes fromEntry(const KVNDirectoryEntry &entry)
    {
        KVNFileAttributes attrs;
        attrs.fileType = entry.type;
        attrs.hasSize = entry.type != KVNFileType::Directory;
        attrs.fileSize = attrs.hasSize ? entry.size : 0;
        attrs.modificationDate = entry.modified;
        return attrs;
    }
    bool operator==(const KVNFileAttributes &) const = default;
};

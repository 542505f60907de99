/// Files that a scan has met already, under whatever name.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <unordered_map>

#include "tavo_f2fs_io.h"

namespace rux {

/// Remembers by device, inode, size and both times the digests that one request has computed, so
/// that the other names of a file (hard links, symbolic links, overlapping starting paths) need no
/// second reading. Remembers the last ones only, so its memory is bounded.
class KnownFiles {
  public:
    /// Whether the digest of such a file is known or promised.
    bool isExpected(const struct stat& status);

    /// Says that the digest of such a file is being computed.
    void promise(const struct stat& status);

    /// Keeps the promise, or takes it back when the digest could not be computed.
    void settle(const struct stat& status, const FileMD5Result& result);

    /// Fills `result` with the digest. False when it is not known.
    bool find(const struct stat& status, FileMD5Result* result);

  private:
    struct Key {
        dev_t device;
        ino_t inode;
        off_t size;
        int64_t mtime[2];  // seconds and nanoseconds
        int64_t ctime[2];
        bool operator==(const Key&) const = default;
    };
    struct Hash {
        size_t operator()(const Key& key) const;
    };
    using Digests = std::unordered_map<Key, std::string, Hash>;  // an empty text is a promise

    static Key keyOf(const struct stat& status);
    std::string* find(const Key& key);

    // Two generations: when the newer is full, the older goes.
    Digests mNewer;
    Digests mOlder;
};

}  // namespace rux

/// Files that a scan has met already, under whatever name.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>

#include "tavo_f2fs_io.h"

namespace rux {

/// Remembers by device, inode, size and both times the digests that one request has computed, so
/// that the other names of a file (hard links, symbolic links, overlapping starting paths) need no
/// second reading. Holds a fixed number of files; a newer one takes the place of an older.
class KnownFiles {
  public:
    KnownFiles();

    /// Whether the digest of such a file is known, or has been promised.
    bool isExpected(const struct stat& status) const;

    /// Says that the digest of such a file is being computed.
    void promise(const struct stat& status);

    /// Keeps the promise, or takes it back when the digest could not be computed.
    void settle(const struct stat& status, const FileMD5Result& result);

    /// Fills `result` with the digest. False when it is not known.
    bool find(const struct stat& status, FileMD5Result* result) const;

  private:
    struct File {
        dev_t device;
        ino_t inode;
        off_t size;
        timespec mtime;
        timespec ctime;
        bool isPromised;
        bool isShared;  // it has several names
        char digest[sizeof(FileMD5Result::md5)];
    };

    File& placeOf(const struct stat& status) const;
    static bool isSame(const File& file, const struct stat& status);

    std::unique_ptr<File[]> mFiles;  // each in the one place that its inode gives it
};

}  // namespace rux

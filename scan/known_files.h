/// Files that a scan has met already, under whatever name.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "tavo_f2fs_io.h"

namespace rux {

/// Remembers by device, inode, size and both times the digests that one request has computed, so
/// that the other names of a file (hard links, symbolic links, overlapping starting paths) need no
/// second reading. Holds a fixed number of files; a newer one takes the place of an older.
///
/// All functions may be called from many threads at once.
class KnownFiles {
  public:
    KnownFiles();

    enum class Claim : uint8_t {
        Others,   // somebody has computed the digest of such a file, or is at it: the caller is to
                  // `take` it
        Ours,     // the caller is to compute it, and to `settle` the claim
        OnceOnly  // the caller is to compute it for itself: nobody could rely on it later
    };
    Claim claim(const struct stat& status);

    /// Gives the digest of a file that was claimed, or says that there is none.
    void settle(const struct stat& status, const FileMD5Result& result);

    enum class Answer : uint8_t { Known, Claimed, Unknown };
    /// What there is of a file that is another's; fills `result` when that is `Known`.
    Answer take(const struct stat& status, FileMD5Result* result);

  private:
    struct File {
        uint64_t key;  // of what it is told by; 0 for none
        char digest[sizeof(FileMD5Result::md5)];
    };
    struct Free {
        void operator()(File* files) const { free(files); }
    };

    /// Holds the lock of a place as long as it is at hand.
    struct Place {
        std::unique_lock<std::mutex> lock;
        File& file;
        uint64_t key;  // of the file that is looked for
    };
    Place lockPlace(const struct stat& status);

    // Each in the one place that its key gives it. Zeros that the system supplies as they are
    // touched: most scans know few files.
    std::unique_ptr<File[], Free> mFiles;
    // For every so many places one: the workers seldom meet, as a wait costs more than all the
    // rest.
    std::array<std::mutex, 64> mMutexes;
};

}  // namespace rux

/// The digests that one request has computed.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "tavo_f2fs_io.h"

namespace rux {

/// The digest of a file. Until it is computed its code is ECANCELED.
using SharedDigest = std::shared_ptr<FileMD5Result>;
SharedDigest notComputed();
/// One that is known; null for a text that cannot be one.
SharedDigest digestOf(const std::string& text);

/// Finds the digest of a file that has been met under another name (hard links, symbolic links,
/// overlapping starting paths), by its device, inode, size and both times.
class DigestCache {
  public:
    /// The digest of the file with that status, which is `own` when no other name of it has brought
    /// one, or when its times would not tell if it were changed now.
    SharedDigest findOrAdd(const struct stat& status, const SharedDigest& own);
    void remove(const struct stat& status);

  private:
    std::unordered_map<uint64_t, SharedDigest> mDigests;  // by what tells the file from others
};

}  // namespace rux

/// Files that have a digest and are about to enter the groups of DB2.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "db/known_paths.h"
#include "scan/digest_cache.h"

namespace rux {

/// Collects them and enters many at a time, in the order of their digests: one by one each would
/// have to be looked for in another corner of a large image. Within a group they stand in the order
/// in which they came.
class PendingMembers {
  public:
    /// `known` is given when the space is to be brought up to date: then what DB3 has under the
    /// same digest enters the group before them. So they are linked to that file, and what DB3 gets
    /// in its place covers both.
    explicit PendingMembers(KnownPaths* known = nullptr) : mKnown(known) {}

    /// Takes up a file, whose record says by now that it has a digest.
    void add(const SharedDigest& digest, int64_t fileBytes, const std::string& path);

    /// Enters all that have been added.
    void enter();

  private:
    static constexpr size_t kMost = 16384;  // files between two entries
    struct File {
        uint64_t beginning;  // of the digest, as a number that sorts as the digests do
        SharedDigest digest;
        int64_t bytes;
        Json::Value path;
    };

    void join(std::span<File* const> files);

    KnownPaths* mKnown;
    std::vector<File> mFiles;
};

}  // namespace rux

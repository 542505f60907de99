/// Files that have a digest and are about to enter the groups of DB2.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tavo_f2fs_io.h"

namespace rux {

/// Collects them and enters many at a time, in the order of their digests: one by one each would
/// have to be looked for in another corner of a large image. Within a group they stand in the order
/// in which they came.
class PendingMembers {
  public:
    /// Takes up a file, whose record says by now that it has a digest. `result` is a success.
    void add(const FileMD5Result& result, int64_t fileBytes, const std::string& path);

    /// Enters all that have been added.
    void enter();

  private:
    struct File {
        FileMD5Result result;
        int64_t bytes;
        Json::Value path;
    };

    static void join(const std::vector<File*>& files);

    std::vector<File> mFiles;
};

}  // namespace rux

/// Where a path leads, and whose symbolic links have decided that.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "android-base/unique_fd.h"

namespace android::host {

/// The users who made the symbolic links on a way.
class LinkMakers {
  public:
    void add(uid_t maker);

    /// Whether a file of `owner` may be changed at the end of that way: everybody may lead to their
    /// own files, root and this process's user to all.
    bool mayLeadTo(uid_t owner) const;

  private:
    std::vector<uid_t> mOthers;  // than root and this process's user
};

/// Opens what `path` leads to, of whatever kind, as a place alone (O_PATH in open(2)). Symbolic
/// links are followed, the last one too, and their makers noted.
///
/// 0 or an errno; ELOOP after 40 links, as path_resolution(7) has it.
int resolve(const std::string& path, base::unique_fd* place, LinkMakers* makers);

/// The path under which the process itself finds an open file.
std::string ownPathOf(int file);

/// Where an open file or directory lies now, as proc(5) has it; empty when that cannot be told.
std::string placeOf(int file);

}  // namespace android::host

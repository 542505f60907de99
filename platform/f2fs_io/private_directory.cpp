#include "f2fs_io/private_directory.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace android::host {
namespace {

using Clock = std::chrono::steady_clock;

bool hasAccessList(int directory) {
    return getxattr(ownPathOf(directory).c_str(), "system.posix_acl_access", nullptr, 0) >= 0 ||
           (errno != ENODATA && errno != ENOTSUP);
}

}  // namespace

int findPrivateDirectory(const Entry& entry, FileId* found) {
    static std::mutex mutex;
    static std::map<FileId, FileId> known;  // by directory
    static Clock::time_point since;
    const std::lock_guard lock(mutex);
    if (const Clock::time_point now = Clock::now(); now - since > std::chrono::seconds(1)) {
        known.clear();
        since = now;
    }
    std::vector<FileId> way;
    base::unique_fd parent;
    FileId id = entry.directoryId;
    for (*found = {}; way.empty() || way.back() != id;) {  // the root is its own parent
        if (const auto one = known.find(id); one != known.end()) {
            *found = one->second;
            break;
        }
        const int directory = parent.ok() ? parent.get() : entry.directory.get();
        struct stat st = {};
        way.push_back(id);
        if (fstat(directory, &st) != 0) return errno;
        if ((st.st_mode & S_IXOTH) == 0 || hasAccessList(directory)) {
            *found = id;
            break;
        }
        parent.reset(openat(directory, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!parent.ok() || fstat(parent.get(), &st) != 0) return errno;
        id = idOf(st);
    }
    for (const FileId& one : way) known[one] = *found;
    return 0;
}

}  // namespace android::host

#include "f2fs_io/directory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace android::host {
namespace {

using Clock = std::chrono::steady_clock;

bool hasAccessList(int directory) {
    return getxattr(ownPathOf(directory).c_str(), "system.posix_acl_access", nullptr, 0) >= 0 ||
           (errno != ENODATA && errno != ENOTSUP);
}

constexpr char kMounts[] = "/proc/self/mountinfo";  // see proc(5)

/// A field of the table, in which blanks, line feeds and backslashes stand as "\ooo".
std::string unescaped(const std::string& field) {
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        const bool isEscape = field[i] == '\\' && i + 3 < field.size();
        text += isEscape ? static_cast<char>(strtol(field.substr(i + 1, 3).c_str(), nullptr, 8))
                         : field[i];
        if (isEscape) i += 3;
    }
    return text;
}

/// The upper directories of the overlays that are mounted. The table is read when it has changed,
/// which it tells those who poll it.
std::vector<std::string> upperDirectories() {
    static std::mutex mutex;
    static base::unique_fd polled;
    static std::vector<std::string> paths;
    const std::lock_guard lock(mutex);
    pollfd change = {polled.get(), POLLPRI, 0};
    if (polled.ok() && poll(&change, 1, 0) == 0) return paths;
    if (!polled.ok()) polled.reset(open(kMounts, O_RDONLY | O_CLOEXEC));
    paths.clear();
    std::ifstream table(kMounts);
    for (std::string line; std::getline(table, line);) {
        constexpr std::string_view kOption = ",upperdir=";
        const size_t type = line.find(" - overlay ");
        const size_t option = type == std::string::npos ? type : line.find(kOption, type);
        if (option == std::string::npos) continue;
        const size_t start = option + kOption.size();
        paths.push_back(unescaped(line.substr(start, line.find_first_of(", ", start) - start)));
    }
    return paths;
}

}  // namespace

int refuseOverlay(const base::unique_fd& directory) {
    // Asked every time: a device number may be another file system's by now.
    struct statfs fs = {};
    if (fstatfs(directory.get(), &fs) != 0) return errno;
    if (fs.f_type == OVERLAYFS_SUPER_MAGIC) return EOPNOTSUPP;
    const std::vector<std::string> uppers = upperDirectories();
    if (uppers.empty()) return 0;
    const std::string path = placeOf(directory.get()) + "/";
    const auto holds = [&path](const std::string& upper) { return path.starts_with(upper + "/"); };
    return std::any_of(uppers.begin(), uppers.end(), holds) ? EOPNOTSUPP : 0;
}

int findPrivateDirectory(const Entry& entry, FileId* found) {
    static std::mutex mutex;
    static std::map<FileId, FileId> known;  // by directory
    static Clock::time_point since;
    const std::lock_guard lock(mutex);
    if (const Clock::time_point now = Clock::now(); now - since > std::chrono::seconds(1)) {
        known.clear();
        since = now;
    }
    if (const auto one = known.find(entry.directoryId); one != known.end()) {
        *found = one->second;
        return 0;
    }
    *found = {};
    base::unique_fd parent;
    FileId below;
    FileId id = entry.directoryId;
    for (int directory = entry.directory.get(); id != below; directory = parent.get()) {
        struct stat st = {};
        if (fstat(directory, &st) != 0) return errno;
        if ((st.st_mode & S_IXOTH) == 0 || hasAccessList(directory)) {
            *found = id;
            break;
        }
        parent.reset(openat(directory, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!parent.ok() || fstat(parent.get(), &st) != 0) return errno;
        below = std::exchange(id, idOf(st));  // the root is its own parent
    }
    known[entry.directoryId] = *found;
    return 0;
}

}  // namespace android::host

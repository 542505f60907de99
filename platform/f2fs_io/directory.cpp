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
#include <memory>
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

/// Whether a directory lies in the upper directory of an overlay that is mounted. The table is read
/// when it has changed, which it tells those who poll it.
bool isBelowUpper(int directory) {
    static std::mutex mutex;
    static base::unique_fd polled;
    static std::shared_ptr<const std::vector<std::string>> known;
    std::unique_lock lock(mutex);
    pollfd change = {polled.get(), POLLPRI, 0};
    if (!polled.ok() || poll(&change, 1, 0) != 0) {
        if (!polled.ok()) polled.reset(open(kMounts, O_RDONLY | O_CLOEXEC));
        std::vector<std::string> uppers;
        std::ifstream table(kMounts);
        for (std::string line; std::getline(table, line);) {
            constexpr std::string_view kOption = ",upperdir=";
            const size_t type = line.find(" - overlay ");
            const size_t start = type == std::string::npos ? type : line.find(kOption, type);
            if (start == std::string::npos) continue;
            line.erase(0, start + kOption.size());
            uppers.push_back(unescaped(line.substr(0, line.find_first_of(", "))) + "/");
        }
        known = std::make_shared<const std::vector<std::string>>(std::move(uppers));
    }
    const auto uppers = known;
    lock.unlock();
    const std::string path = uppers->empty() ? "" : placeOf(directory) + "/";
    return std::any_of(uppers->begin(), uppers->end(),
                       [&path](const std::string& upper) { return path.starts_with(upper); });
}

}  // namespace

int refuseFileSystem(const base::unique_fd& directory) {
    // Asked every time: a device number may be another file system's by now.
    struct statfs fs = {};
    if (fstatfs(directory.get(), &fs) != 0) return errno;
    const bool isRefused = fs.f_type == OVERLAYFS_SUPER_MAGIC || fs.f_type == FUSE_SUPER_MAGIC ||
                           isBelowUpper(directory.get());
    return isRefused ? EOPNOTSUPP : 0;
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
    *found = {};
    std::vector<FileId> way;
    base::unique_fd parent;
    struct stat st = entry.directoryStatus;
    for (int directory = entry.directory.get(); way.empty() || way.back() != idOf(st);) {
        if (const auto one = known.find(idOf(st)); one != known.end()) {
            *found = one->second;
            break;
        }
        way.push_back(idOf(st));
        if ((st.st_mode & S_IXOTH) == 0 || hasAccessList(directory)) {
            *found = idOf(st);
            break;
        }
        parent.reset(openat(directory, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        directory = parent.get();
        if (!parent.ok() || fstat(directory, &st) != 0) return errno;  // ".." of "/" is "/"
    }
    for (const FileId& one : way) known[one] = *found;
    return 0;
}

}  // namespace android::host

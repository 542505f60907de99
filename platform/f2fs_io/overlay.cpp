#include "f2fs_io/overlay.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "f2fs_io/resolve.h"

namespace android::host {
namespace {

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

/// The upper directories of the overlays that are mounted.
class UpperDirectories {
  public:
    /// Whether `directory` lies in one of them.
    bool hold(const base::unique_fd& directory) {
        const std::lock_guard lock(mMutex);
        refresh();
        if (mPaths.empty()) return false;
        const std::string path = placeOf(directory.get()) + "/";
        return std::any_of(mPaths.begin(), mPaths.end(), [&path](const std::string& upper) {
            return path.starts_with(upper + "/");
        });
    }

  private:
    /// Reads the table when it has changed, which it tells those who poll it.
    void refresh() {
        pollfd change = {mTable.get(), POLLPRI, 0};
        if (mTable.ok() && poll(&change, 1, 0) == 0) return;
        if (!mTable.ok()) mTable.reset(open(kMounts, O_RDONLY | O_CLOEXEC));
        mPaths.clear();
        std::ifstream table(kMounts);
        for (std::string line; std::getline(table, line);) {
            constexpr std::string_view kOption = ",upperdir=";
            const size_t type = line.find(" - overlay ");
            const size_t option = type == std::string::npos ? type : line.find(kOption, type);
            if (option == std::string::npos) continue;
            const size_t start = option + kOption.size();
            mPaths.push_back(
                    unescaped(line.substr(start, line.find_first_of(", ", start) - start)));
        }
    }

    std::mutex mMutex;
    base::unique_fd mTable;
    std::vector<std::string> mPaths;
};

}  // namespace

int refuseOverlay(const base::unique_fd& directory) {
    static UpperDirectories upperDirectories;
    // Asked every time: a device number may be another file system's by now.
    struct statfs fs = {};
    if (fstatfs(directory.get(), &fs) != 0) return errno;
    const bool isRefused = fs.f_type == OVERLAYFS_SUPER_MAGIC || upperDirectories.hold(directory);
    return isRefused ? EOPNOTSUPP : 0;
}

}  // namespace android::host

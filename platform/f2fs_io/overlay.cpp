#include "f2fs_io/overlay.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "f2fs_io/entry.h"
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
    bool hold(const UniqueFd& directory) {
        const std::lock_guard lock(mMutex);
        refresh();
        if (mPaths.empty()) return false;
        const std::string path = placeOf(directory.get()) + "/";
        return std::any_of(mPaths.begin(), mPaths.end(), [&path](const std::string& upper) {
            return path.starts_with(upper + "/");
        });
    }

  private:
    /// Reads the table when it has changed, which it tells those who poll it: ten times a second.
    void refresh() {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        const int64_t tenth = now.tv_sec * 10 + now.tv_nsec / 100'000'000;
        if (std::exchange(mPolledAt, tenth) == tenth) return;
        pollfd change = {mTable.get(), POLLPRI, 0};
        if (mTable.valid() && poll(&change, 1, 0) == 0) return;
        if (!mTable.valid()) mTable.reset(open(kMounts, O_RDONLY | O_CLOEXEC));
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
    UniqueFd mTable;
    int64_t mPolledAt = -1;  // in tenths of a second
    std::vector<std::string> mPaths;
};

}  // namespace

int refuseOverlay(const UniqueFd& directory, dev_t device) {
    static UpperDirectories upperDirectories;
    long type = 0;
    if (const int error = fileSystemOf(directory.get(), device, &type); error != 0) return error;
    const bool isRefused = type == OVERLAYFS_SUPER_MAGIC || upperDirectories.hold(directory);
    return isRefused ? EOPNOTSUPP : 0;
}

}  // namespace android::host

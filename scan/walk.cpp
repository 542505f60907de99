#include "scan/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "control/log.h"
#include "control/properties.h"
#include "scan/fingerprint.h"

namespace rux {
namespace {

struct CloseStream {
    void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

/// A directory on the path from the start to the entry under examination.
struct Level {
    Stream stream;
    dev_t device;
    ino_t inode;
    size_t pathLength;  // of its own path, to which the entries' names are added
};

/// Reads the status of an entry; its whole path decides whether the system could reach it at all.
bool readStatus(const Level& level, const char* name, const std::string& path, struct stat* st) {
    return path.size() < PATH_MAX && fstatat(dirfd(level.stream.get()), name, st, 0) == 0;
}

Stream openBelow(const Level& level, const char* name) {
    const int directory =
            openat(dirfd(level.stream.get()), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) return nullptr;
    Stream stream(fdopendir(directory));
    if (stream == nullptr) close(directory);
    return stream;
}

/// Whether a directory is being walked already: a symbolic link leads back up.
bool isOnPath(const std::vector<Level>& levels, const struct stat& st) {
    return std::any_of(levels.begin(), levels.end(), [&st](const Level& level) {
        return level.device == st.st_dev && level.inode == st.st_ino;
    });
}

bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

/// Opens `start` as the first level. False, with nothing opened, when it is no readable directory.
bool openStart(const std::string& start, std::vector<Level>& levels) {
    struct stat st = {};
    Stream stream(opendir(start.c_str()));
    if (stream == nullptr || fstat(dirfd(stream.get()), &st) != 0) return false;
    levels.push_back({std::move(stream), st.st_dev, st.st_ino, start.size()});
    return true;
}

}  // namespace

int scanSpaceID(const std::string& path, const PatternList& regs, const PatternList& blackList) {
    struct stat st = {};
    std::vector<Level> levels;
    const bool nameable = path.find('\0') == std::string::npos;
    if (!nameable || !openStart(path, levels)) {
        if (!nameable || stat(path.c_str(), &st) != 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
            return -1;
        }
        if (S_ISDIR(st.st_mode) || st.st_size == 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
            return -1;
        }
        calculateFileMD5(path, "", st, regs, blackList);
        return 0;
    }

    std::string child = path;
    while (!levels.empty()) {
        const Level& level = levels.back();
        const dirent* entry = readdir(level.stream.get());
        if (entry == nullptr) {
            levels.pop_back();
            continue;
        }
        if (getStopProp(kStopScan)) {
            RUX_LOGD("stop.");
            levels.pop_back();  // the level above reads its next entry and stops there in its turn
            continue;
        }
        const char* const name = entry->d_name;
        if (isDotName(name)) continue;
        child.resize(level.pathLength);
        child.append("/").append(name);
        if (!readStatus(level, name, child, &st)) {
            RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
            continue;
        }
        if (S_ISDIR(st.st_mode) && !isOnPath(levels, st)) {
            if (Stream stream = openBelow(level, name); stream != nullptr) {
                levels.push_back({std::move(stream), st.st_dev, st.st_ino, child.size()});
                continue;
            }
            if (errno == ENOENT) {  // removed since its status was read
                RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
                continue;
            }
        }
        if (S_ISDIR(st.st_mode) || st.st_size == 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
            continue;
        }
        calculateFileMD5(child, name, st, regs, blackList);
    }
    return 0;
}

}  // namespace rux

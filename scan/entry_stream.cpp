#include "scan/entry_stream.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace rux {
namespace {

constexpr int kMostEntries = 16;  // into a directory behind links

bool isLink(int directory, const dirent& entry) {
    struct stat status = {};
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_LNK;
    return fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

}  // namespace

int openQuietly(int above, const char* name, int flags) {
    const int file = openat(above, name, O_RDONLY | O_CLOEXEC | O_NOATIME | flags);
    if (file >= 0 || errno != EPERM) return file;
    return openat(above, name, O_RDONLY | O_CLOEXEC | flags);
}

std::string realPathOf(const std::string& path) {
    std::error_code failure;
    std::filesystem::path way;
    for (const auto& component : std::filesystem::path(path)) {
        way /= component;
        if (std::filesystem::is_symlink(way, failure))
            return std::filesystem::canonical(path, failure);
    }
    return {};
}

Entry::Kind kindOf(const struct stat& status, const Reach& reach) {
    if (S_ISDIR(status.st_mode)) return Entry::Kind::ClosedDirectory;
    const auto bytes = static_cast<uint64_t>(status.st_size);
    const bool isExcluded =
            reach.excluded != nullptr && reach.excluded->contains({status.st_dev, status.st_ino});
    const bool isInReach = bytes >= reach.minBytes && bytes <= reach.maxBytes && !isExcluded;
    if (bytes != 0) return isInReach ? Entry::Kind::File : Entry::Kind::Skipped;
    return S_ISREG(status.st_mode) ? Entry::Kind::Empty : Entry::Kind::Device;
}

EntryStream::EntryStream(const std::string& start, const Reach& reach, bool wantsRealPaths)
      : mPath(start), mReach(reach), mWantsRealPaths(wantsRealPaths) {
    if (start.find('\0') != std::string::npos) return;
    enter(AT_FDCWD, start.c_str(), false, wantsRealPaths ? realPathOf(start) : "");
}

std::optional<Entry> EntryStream::next() {
    if (!mAhead.empty()) {
        Entry entry = std::move(mAhead.front());
        mAhead.pop_front();
        return entry;
    }
    while (!mLevels.empty()) {
        const dirent* const found = readdir(mLevels.back().stream.get());
        if (found != nullptr) return entryOf(*found);
        mLevels.pop_back();
    }
    return std::nullopt;
}

void EntryStream::leaveDirectory(size_t depth, std::deque<Entry> ahead) {
    ahead.insert(ahead.end(), mAhead.begin(), mAhead.end());
    while (!ahead.empty() && ahead.front().depth >= depth) ahead.pop_front();
    mAhead = std::move(ahead);
    for (Entry& entry : mAhead) {  // its status may be another when its turn comes
        if (!entry.path.empty()) entry.kind = Entry::Kind::NoDirectory;
    }
    while (mAhead.empty() && mLevels.size() >= depth) mLevels.pop_back();
}

/// An entry of the innermost directory. Only what decides where the walk goes is looked at.
Entry EntryStream::entryOf(const dirent& found) {
    const Level& level = mLevels.back();
    const int directory = dirfd(level.stream.get());
    const char* const name = found.d_name;
    Entry entry;
    entry.depth = mLevels.size();
    const bool byLink = isLink(directory, found);
    const bool isDot = strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
    if (isDot || (byLink && !mReach.followsLinks)) {
        entry.kind = Entry::Kind::Skipped;
        return entry;
    }
    mPath.resize(level.pathLength);
    mPath.append("/").append(name);
    // The whole path decides whether the system could reach the entry at all.
    if (mPath.size() >= PATH_MAX) {
        entry.kind = Entry::Kind::Unreadable;
        return entry;
    }
    const bool mayBeDirectory =
            found.d_type == DT_DIR || found.d_type == DT_LNK || found.d_type == DT_UNKNOWN;
    if (byLink && mWantsRealPaths) {
        entry.realPath = realPathOf(mPath);
    } else if (!level.realPath.empty()) {
        entry.realPath = level.realPath + "/" + name;
    }
    if (mayBeDirectory)
        entry.kind = enter(directory, name, byLink || level.isBehindLink, entry.realPath);
    if (found.d_type == DT_REG) entry.kind = Entry::Kind::Regular;
    if (entry.needsStatus()) entry.path = mPath;
    return entry;
}

/// Goes down into a directory and says what came of it; `NoDirectory` for what is none.
Entry::Kind EntryStream::enter(int above, const char* name, bool isBehindLink,
                               const std::string& realPath) {
    struct stat status = {};
    const int directory = openQuietly(above, name, O_DIRECTORY);
    if (directory < 0) {
        if (errno == ENOTDIR) return Entry::Kind::NoDirectory;
        if (fstatat(above, name, &status, 0) != 0) return Entry::Kind::Unreadable;
        return S_ISDIR(status.st_mode) ? Entry::Kind::ClosedDirectory : Entry::Kind::NoDirectory;
    }
    Stream stream(nullptr, closedir);
    const bool hasStatus = fstat(directory, &status) == 0;
    const bool isFar =
            mReach.staysOnFileSystem && !mLevels.empty() && status.st_dev != mLevels[0].device;
    // A directory on the path already is not entered: a symbolic link leads back up to it.
    const bool mayEnter =
            hasStatus && !isFar && !isOnPath(status) &&
            (!isBehindLink || mEntered[{status.st_dev, status.st_ino}]++ < kMostEntries);
    if (mayEnter) stream.reset(fdopendir(directory));
    if (stream == nullptr) {
        close(directory);
        return isFar ? Entry::Kind::Skipped : Entry::Kind::ClosedDirectory;
    }
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, mPath.size(), isBehindLink,
                       realPath});
    return Entry::Kind::Directory;
}

bool EntryStream::isOnPath(const struct stat& status) const {
    return std::any_of(mLevels.begin(), mLevels.end(), [&status](const Level& level) {
        return level.device == status.st_dev && level.inode == status.st_ino;
    });
}

}  // namespace rux

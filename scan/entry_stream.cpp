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

bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

bool isLink(int directory, const dirent& entry) {
    struct stat status = {};
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_LNK;
    return fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

}  // namespace

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

Entry::Kind kindOf(const struct stat& status) {
    const bool hasContent = !S_ISDIR(status.st_mode) && status.st_size != 0;
    return hasContent ? Entry::Kind::File : Entry::Kind::Unopenable;
}

EntryStream::EntryStream(const std::string& start, bool wantsRealPaths)
      : mPath(start), mWantsRealPaths(wantsRealPaths) {
    struct stat status = {};
    Stream stream(opendir(start.c_str()));
    if (stream == nullptr || fstat(dirfd(stream.get()), &status) != 0) return;
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, start.size(), false,
                       wantsRealPaths ? realPathOf(start) : ""});
    mIsOpen = true;
}

bool EntryStream::read(std::deque<Entry>& entries, size_t count) {
    if (mLevels.empty()) return false;
    for (; count > 0 && !mLevels.empty(); --count) entries.push_back(nextEntry());
    return true;
}

void EntryStream::leaveDirectory(size_t depth, std::deque<Entry>& ahead) {
    size_t level = depth;
    while (!ahead.empty() && level >= depth) {
        if (ahead.front().kind == Entry::Kind::Directory) ++level;
        if (ahead.front().kind == Entry::Kind::End) --level;
        ahead.pop_front();
    }
    // The end was not among them: then the walk is still in there itself.
    if (level >= depth) mLevels.resize(depth - 1);
}

/// The next entry of the innermost directory. Only what decides where the walk goes is looked at.
Entry EntryStream::nextEntry() {
    Level& level = mLevels.back();
    const dirent* found = readdir(level.stream.get());
    if (found == nullptr) {
        mLevels.pop_back();
        return {};
    }
    Entry entry;
    const char* const name = found->d_name;
    if (isDotName(name)) {
        entry.kind = Entry::Kind::Dot;
        return entry;
    }
    mPath.resize(level.pathLength);
    mPath.append("/").append(name);
    entry.kind = Entry::Kind::Unknown;
    // The whole path decides whether the system could reach the entry at all.
    if (mPath.size() >= PATH_MAX) {
        entry.kind = Entry::Kind::Unreadable;
        return entry;
    }
    const bool mayBeDirectory =
            found->d_type == DT_DIR || found->d_type == DT_LNK || found->d_type == DT_UNKNOWN;
    entry.isRegular = found->d_type == DT_REG;
    entry.nameStart = level.pathLength + 1;
    const bool byLink = mayBeDirectory && isLink(dirfd(level.stream.get()), *found);
    if (byLink && mWantsRealPaths) {
        entry.realPath = realPathOf(mPath);
    } else if (!level.realPath.empty()) {
        entry.realPath = level.realPath + "/" + name;
    }
    if (mayBeDirectory) entry.kind = enter(name, byLink, entry.realPath);
    if (entry.kind == Entry::Kind::Unknown) entry.path = mPath;
    return entry;
}

/// Goes down into a directory and says what came of it; `Unknown` for what is none.
Entry::Kind EntryStream::enter(const char* name, bool byLink, const std::string& realPath) {
    const bool isBehindLink = byLink || mLevels.back().isBehindLink;
    const int above = dirfd(mLevels.back().stream.get());
    struct stat status = {};
    const int directory = openat(above, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        if (errno == ENOTDIR) return Entry::Kind::Unknown;
        if (fstatat(above, name, &status, 0) != 0) return Entry::Kind::Unreadable;
        return S_ISDIR(status.st_mode) ? Entry::Kind::Unopenable : Entry::Kind::Unknown;
    }
    Stream stream;
    // A directory on the path already is not entered: a symbolic link leads back up to it.
    const bool mayEnter =
            fstat(directory, &status) == 0 && !isOnPath(status) &&
            (!isBehindLink || mEntered[{status.st_dev, status.st_ino}]++ < kMostEntries);
    if (mayEnter) stream.reset(fdopendir(directory));
    if (stream == nullptr) {
        close(directory);
        return Entry::Kind::Unopenable;
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

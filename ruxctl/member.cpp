#include "ruxctl/member.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "android-base/unique_fd.h"

namespace ruxctl {
namespace {

/// The number of the path's file system (see statfs(2)), 0 where it cannot be told.
int64_t fileSystemOf(const std::string& path) {
    struct statfs disk = {};
    return statfs(path.c_str(), &disk) == 0 ? static_cast<int64_t>(disk.f_type) : 0;
}

bool copiesOnWrite(int64_t fileSystem) {
    return fileSystem == BTRFS_SUPER_MAGIC || fileSystem == XFS_SUPER_MAGIC;
}

}  // namespace

const char* nameOf(State state) {
    constexpr const char* kNames[] = {"there", "linked", "changed", "gone"};
    return kNames[static_cast<size_t>(state)];
}

std::string Member::reason() const {
    static const std::map<int, const char*> kReasons =
            {{EBUSY, "open for writing"},
             {EBADE, "of another owner, group, mode or attribute"},
             {EPERM, "a restore could make no copy like it"},
             {EACCES, "one of them lies in a directory that others cannot enter"},
             {EXDEV, "on another file system or mount"},
             {EILSEQ, "of another content by now"},
             {ELOOP, "behind a symbolic link of somebody else's"},
             {EINVAL, "no regular file"},
             {EOPNOTSUPP, "on a file system that cannot link safely"},
             {kKeptChanged, "the file that would be kept has another content by now"},
             {kRefused, "refused by the service, whose log says why"}};
    const auto found = kReasons.find(error);
    return found == kReasons.end() ? strerror(error) : found->second;
}

FileId idOf(const struct stat& st) {
    return {st.st_dev, st.st_ino};
}

FileId Directories::of(std::string_view path) {
    const std::string_view directory = path.substr(0, path.rfind('/') + 1);
    const auto found = mKnown.find(directory);
    if (found != mKnown.end()) return found->second;
    struct stat st = {};
    const std::string name(directory.empty() ? "." : directory);
    stat(name.c_str(), &st);
    return mKnown.emplace(directory, idOf(st)).first->second;
}

struct stat lookAt(Member& member, int64_t fileBytes, Directories& directories) {
    struct stat st = {};
    if (lstat(member.path.c_str(), &st) != 0) return {};
    member.isSymlink = S_ISLNK(st.st_mode);
    if (member.isSymlink && stat(member.path.c_str(), &st) != 0) return {};
    const bool isNewer = member.time && *member.time != st.st_mtime;
    const bool isSame = S_ISREG(st.st_mode) && st.st_size == fileBytes && !isNewer;
    member.state = isSame ? State::There : State::Changed;
    member.file = idOf(st);
    member.directory = directories.of(member.path);
    const uint64_t rights[] = {st.st_uid, st.st_gid, st.st_mode, st.st_dev};
    member.rights =
            std::hash<std::string_view>()({reinterpret_cast<const char*>(rights), sizeof(rights)});
    member.links = static_cast<int64_t>(st.st_nlink);
    return st;
}

bool sharesBlocks(const std::string& path) {
    return copiesOnWrite(fileSystemOf(path));
}

int64_t ownBytes(const std::string& path, const struct stat& st) {
    constexpr uint32_t kExtents = 100;
    const int64_t bytes = int64_t{st.st_blocks} * 512;
    if (!S_ISREG(st.st_mode)) return bytes;
    static thread_local std::pair<dev_t, int64_t> last;  // that was asked, and its file system
    if (last.first != st.st_dev || last.second == 0) last = {st.st_dev, fileSystemOf(path)};
    if (!copiesOnWrite(last.second)) return bytes;
    const android::base::unique_fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    int64_t shared = 0;
    alignas(fiemap) char room[sizeof(fiemap) + kExtents * sizeof(fiemap_extent)];
    auto* const map = new (room) fiemap{};
    do {
        map->fm_length = FIEMAP_MAX_OFFSET - map->fm_start;
        map->fm_extent_count = kExtents;
        if (ioctl(file.get(), FS_IOC_FIEMAP, map) != 0) break;
        for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
            const fiemap_extent& extent = map->fm_extents[i];
            if ((extent.fe_flags & FIEMAP_EXTENT_SHARED) != 0)
                shared += static_cast<int64_t>(extent.fe_length);
            map->fm_start = extent.fe_logical + extent.fe_length;
        }
    } while (map->fm_mapped_extents == kExtents);
    return std::max<int64_t>(0, bytes - shared);
}

}  // namespace ruxctl

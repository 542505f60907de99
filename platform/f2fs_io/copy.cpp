#include "f2fs_io/copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "android-base/file.h"
#include "f2fs_io/compare.h"
#include "f2fs_io/long_file.h"

namespace android::host {
namespace {

constexpr off_t kPiece = 256 << 10;  // bytes a read

/// Copies the bytes from `start` to `end`.
int copyRange(int from, int to, off_t start, off_t end, const std::function<bool()>& interrupted,
              LongFile& longFile) {
    thread_local std::vector<char> piece(kPiece);
    if (lseek(to, start, SEEK_SET) < 0) return errno;
    for (; start < end; start += kPiece) {
        const auto size = static_cast<size_t>(std::min<off_t>(end - start, kPiece));
        errno = 0;
        if (!base::ReadFullyAtOffset(from, piece.data(), size, start))
            return errno == 0 ? ESTALE : errno;  // it is shorter than its status said
        if (!base::WriteFully(to, piece.data(), size)) return errno;
        if (const int error = longFile.count(from, size); error != 0) return error;
        if (interrupted()) return EBUSY;
    }
    return 0;
}

}  // namespace

int copyContent(int from, int to, const struct stat& source,
                const std::function<bool()>& interrupted) {
    if (ioctl(to, FICLONE, from) == 0) return 0;
    // What the file system keeps for root is not for copies of users' files.
    struct statvfs room = {};
    if (fstatvfs(to, &room) == 0 && room.f_blocks > 0 &&
        static_cast<uint64_t>(source.st_blocks) * 512 / room.f_frsize > room.f_bavail) {
        return ENOSPC;
    }
    LongFile longFile;
    for (off_t end = 0; end < source.st_size;) {
        const off_t start = lseek(from, end, SEEK_DATA);
        if (start < 0 && errno == ENXIO) break;  // only a hole is left
        if (start < 0) return errno;
        end = lseek(from, start, SEEK_HOLE);
        if (end < 0) return errno;
        if (const int error = copyRange(from, to, start, end, interrupted, longFile); error != 0)
            return error;
    }
    return ftruncate(to, source.st_size) == 0 ? 0 : errno;
}

int copyMetadata(int from, int to, const struct stat& source) {
    Xattrs attributes;
    if (const int error = readXattrs(from, &attributes); error != 0) return error;
    // In this order: a change of owner clears capabilities and set-user-ID bits, and whatever
    // changes the file at all changes its times.
    struct stat copy = {};
    if (fstat(to, &copy) != 0) return errno;
    const bool sameOwner = copy.st_uid == source.st_uid && copy.st_gid == source.st_gid;
    if (!sameOwner && fchown(to, source.st_uid, source.st_gid) != 0) return errno;
    if (const int error = writeXattrs(to, attributes); error != 0) return error;
    if (const int wanted = flagsOf(from); flagsOf(to) != wanted) {
        int flags = 0;  // with those that tell how the blocks are kept
        if (ioctl(to, FS_IOC_GETFLAGS, &flags) != 0) return errno;
        flags = (flags & ~FS_FL_USER_MODIFIABLE) | (wanted & FS_FL_USER_MODIFIABLE);
        if (ioctl(to, FS_IOC_SETFLAGS, &flags) != 0) return errno;
    }
    if (const uint32_t wanted = projectOf(from); projectOf(to) != wanted) {
        fsxattr quota = {};
        if (ioctl(to, FS_IOC_FSGETXATTR, &quota) != 0) return errno;
        quota.fsx_projid = wanted;
        if (ioctl(to, FS_IOC_FSSETXATTR, &quota) != 0) return errno;
    }
    if (fchmod(to, source.st_mode & 07777) != 0) return errno;
    const timespec times[] = {source.st_atim, source.st_mtim};
    return futimens(to, times) == 0 ? 0 : errno;
}

}  // namespace android::host

#include "f2fs_io/digest/source.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"

namespace android::host {
namespace {

constexpr off_t kFetchAhead = 2 << 20;  // bytes of a file that are asked for before it is read

/// Whether the file only looks like one: /proc/kcore claims more bytes than anybody will ever read.
bool isKernelInterface(int file, const struct stat& st) {
    struct statfs fs = {};
    return st.st_blocks == 0 && fstatfs(file, &fs) == 0 &&
           (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC);
}

}  // namespace

int DigestSource::open(const char* path) {
    if (const int error = openRegular(AT_FDCWD, path, 0, &mFile, &mOpened); error != 0)
        return error;
    if (isKernelInterface(mFile.get(), mOpened)) return EINVAL;
    return 0;
}

ssize_t DigestSource::read(void* bytes, size_t size) {
    ssize_t got = -1;
    do {
        got = ::read(mFile.get(), bytes, size);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return got;
    const int error = mLong.count(mFile.get(), static_cast<size_t>(got));
    if (error == 0) return got;
    errno = error;
    return -1;
}

ssize_t DigestSource::readAtOnce(void* bytes, size_t size) const {
    const iovec piece = {bytes, size};
    const ssize_t got = preadv2(mFile.get(), &piece, 1, -1, RWF_NOWAIT);
    if (got < 0 && errno == EAGAIN) {
        posix_fadvise(mFile.get(), 0, std::min(mOpened.st_size, kFetchAhead), POSIX_FADV_WILLNEED);
    }
    return got;
}

int DigestSource::close() {
    struct stat now = {};
    if (fstat(mFile.get(), &now) != 0) return errno;
    mFile.reset();
    return sameContentStamp(mOpened, now) ? 0 : EAGAIN;
}

}  // namespace android::host

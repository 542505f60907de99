#include "f2fs_io/compare.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kPiece = 128U << 10;  // bytes a read and file

bool sameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Reads `size` bytes at `offset`, fewer only at the end of the file; -1 with errno on failure.
ssize_t readFully(int file, char* bytes, size_t size, off_t offset) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got =
                pread(file, bytes + done, size - done, offset + static_cast<off_t>(done));
        if (got == 0) break;
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(done);
}

}  // namespace

bool sameContentStamp(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && sameTime(before.st_mtim, after.st_mtim);
}

int compareBytes(int first, int second, const std::function<bool()>& interrupted) {
    thread_local std::vector<char> firstPiece(kPiece);
    thread_local std::vector<char> secondPiece(kPiece);
    for (off_t offset = 0;; offset += kPiece) {
        const ssize_t firstSize = readFully(first, firstPiece.data(), kPiece, offset);
        if (firstSize < 0) return errno;
        const ssize_t secondSize = readFully(second, secondPiece.data(), kPiece, offset);
        if (secondSize < 0) return errno;
        if (firstSize != secondSize ||
            memcmp(firstPiece.data(), secondPiece.data(), static_cast<size_t>(firstSize)) != 0) {
            return EILSEQ;
        }
        if (interrupted && interrupted()) return EBUSY;
        if (static_cast<size_t>(firstSize) < kPiece) return 0;
    }
}

int readAttributes(int file, Attributes* attributes) {
    struct stat st = {};
    if (fstat(file, &st) != 0) return errno;
    attributes->uid = st.st_uid;
    attributes->gid = st.st_gid;
    attributes->mode = st.st_mode;
    return readXattrs(file, &attributes->xattrs);
}

}  // namespace android::host

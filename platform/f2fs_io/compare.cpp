#include "f2fs_io/compare.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <future>
#include <system_error>
#include <vector>

namespace android::host {
namespace {

constexpr off_t kPiece = 128 << 10;          // bytes a read and file
constexpr off_t kWorthAThread = 1024 << 10;  // bytes of which a second thread compares half

bool sameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Reads all of `size` bytes at `offset`. 0 or an errno, EILSEQ when the file ends before.
int readFully(int file, char* bytes, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t got = pread(file, bytes, size, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0 ? EILSEQ : errno;
        bytes += got;
        size -= static_cast<size_t>(got);
        offset += got;
    }
    return 0;
}

int compareRange(int first, int second, off_t begin, off_t end,
                 const std::function<bool()>& interrupted) {
    thread_local std::vector<char> firstPiece(kPiece);
    thread_local std::vector<char> secondPiece(kPiece);
    while (begin < end) {
        const auto size = static_cast<size_t>(std::min<off_t>(end - begin, kPiece));
        if (const int error = readFully(first, firstPiece.data(), size, begin); error != 0)
            return error;
        if (const int error = readFully(second, secondPiece.data(), size, begin); error != 0)
            return error;
        if (memcmp(firstPiece.data(), secondPiece.data(), size) != 0) return EILSEQ;
        if (interrupted && interrupted()) return EBUSY;
        begin += static_cast<off_t>(size);
    }
    return 0;
}

}  // namespace

bool sameContentStamp(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && sameTime(before.st_mtim, after.st_mtim);
}

int compareBytes(int first, int second, off_t size, const std::function<bool()>& interrupted) {
    const off_t half = size / 2;
    if (size < kWorthAThread) return compareRange(first, second, 0, size, interrupted);
    std::future<int> rest;
    try {
        rest = std::async(std::launch::async, compareRange, first, second, half, size, interrupted);
    } catch (const std::system_error&) {
        return compareRange(first, second, 0, size, interrupted);
    }
    const int error = compareRange(first, second, 0, half, interrupted);
    const int restError = rest.get();
    return error != 0 ? error : restError;
}

int readAttributes(int file, const struct stat& st, Attributes* attributes) {
    attributes->uid = st.st_uid;
    attributes->gid = st.st_gid;
    attributes->mode = st.st_mode;
    return readXattrs(file, &attributes->xattrs);
}

}  // namespace android::host

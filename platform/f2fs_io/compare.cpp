#include "f2fs_io/compare.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <system_error>

namespace android::host {
namespace {

constexpr off_t kPiece = 128 << 10;          // bytes a read and file
constexpr off_t kWorthAThread = 8192 << 10;  // bytes of which a second thread compares half

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

/// Room for a piece of each of two files.
struct Pieces {
    char first[kPiece];
    char second[kPiece];
};

int compareRange(int first, int second, off_t begin, off_t end, Pieces& pieces,
                 const std::function<bool()>& interrupted) {
    while (begin < end) {
        const auto size = static_cast<size_t>(std::min<off_t>(end - begin, kPiece));
        if (const int error = readFully(first, pieces.first, size, begin); error != 0) return error;
        if (const int error = readFully(second, pieces.second, size, begin); error != 0)
            return error;
        if (memcmp(pieces.first, pieces.second, size) != 0) return EILSEQ;
        begin += static_cast<off_t>(size);
        if (begin < end && interrupted && interrupted()) return EBUSY;
    }
    return 0;
}

}  // namespace

bool sameContentStamp(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && sameTime(before.st_mtim, after.st_mtim);
}

int compareBytes(int first, int second, off_t size, const std::function<bool()>& interrupted) {
    // Kept for the next files, and for the second thread, to which fresh memory would come dear.
    thread_local const auto pieces = std::make_unique<Pieces[]>(2);
    const off_t half = size < kWorthAThread ? size : size / 2;
    std::future<int> rest;
    try {
        if (half < size) {
            rest = std::async(std::launch::async, compareRange, first, second, half, size,
                              std::ref(pieces[1]), interrupted);
        }
    } catch (const std::system_error&) {
        return compareRange(first, second, 0, size, pieces[0], interrupted);
    }
    const int error = compareRange(first, second, 0, half, pieces[0], interrupted);
    const int restError = rest.valid() ? rest.get() : 0;
    return error != 0 ? error : restError;
}

int readAttributes(int file, const struct stat& st, Attributes* attributes) {
    attributes->uid = st.st_uid;
    attributes->gid = st.st_gid;
    attributes->mode = st.st_mode;
    return readXattrs(file, &attributes->xattrs);
}

}  // namespace android::host

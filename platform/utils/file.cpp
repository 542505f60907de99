#include "android-base/file.h"

#include <unistd.h>

#include <cerrno>

namespace android::base {

bool ReadFullyAtOffset(int fd, void* data, size_t byte_count, off_t offset) {
    auto* rest = static_cast<char*>(data);
    while (byte_count > 0) {
        const ssize_t got = TEMP_FAILURE_RETRY(pread(fd, rest, byte_count, offset));
        if (got <= 0) return false;
        rest += got;
        offset += got;
        byte_count -= static_cast<size_t>(got);
    }
    return true;
}

bool WriteFully(int fd, const void* data, size_t byte_count) {
    const auto* rest = static_cast<const char*>(data);
    while (byte_count > 0) {
        const ssize_t written = TEMP_FAILURE_RETRY(write(fd, rest, byte_count));
        if (written < 0) return false;
        rest += written;
        byte_count -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace android::base

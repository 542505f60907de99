#include "scan/digest_cache.h"

#include <cerrno>
#include <ctime>
#include <string_view>

namespace rux {
namespace {

constexpr size_t kMost = 1 << 16;  // digests; then it starts again with none

/// A number for what tells a file from others, and from itself before it was changed. Should chance
/// give two the same, one would be grouped by the other's digest: only what is equal byte by byte
/// is linked.
uint64_t keyOf(const struct stat& status) {
    const struct {
        uint64_t device, inode, bytes;
        timespec modified, changed;
    } parts = {status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size), status.st_mtim,
               status.st_ctim};
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(&parts), sizeof(parts)});
}

/// Whether the file's times would tell if it were changed from now on. The clock of a file system
/// stands still for some milliseconds, and two changes within them leave the same times.
bool timesWouldTell(const struct stat& status) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const auto nanoseconds = static_cast<double>(now.tv_nsec - status.st_ctim.tv_nsec);
    return difftime(now.tv_sec, status.st_ctim.tv_sec) + 1e-9 * nanoseconds > 0.1;
}

}  // namespace

SharedDigest notComputed() {
    return std::make_shared<FileMD5Result>(FileMD5Result{.code = ECANCELED, .md5 = ""});
}

SharedDigest digestOf(const std::string& text) {
    FileMD5Result known = {};
    const bool fits = !text.empty() && text.size() < sizeof(known.md5) &&
                      text.find('\0') == std::string::npos;
    if (!fits) return nullptr;
    text.copy(known.md5, text.size());
    return std::make_shared<FileMD5Result>(known);
}

SharedDigest DigestCache::findOrAdd(const struct stat& status, const SharedDigest& own) {
    if (!timesWouldTell(status)) return own;
    if (mDigests.size() == kMost) mDigests.clear();
    return mDigests.try_emplace(keyOf(status), own).first->second;
}

void DigestCache::remove(const struct stat& status) {
    mDigests.erase(keyOf(status));
}

}  // namespace rux

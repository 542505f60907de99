#include "scan/known_files.h"

#include <cstring>
#include <ctime>
#include <new>

namespace rux {
namespace {

constexpr size_t kPlaces = 1 << 16;         // for files; a power of two
constexpr int64_t kSettled = 100'000'000;   // nanoseconds
constexpr int64_t kSecond = 1'000'000'000;  // nanoseconds

bool isSameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Whether the file's times would tell if it were changed from now on. The clock of a file system
/// stands still for some milliseconds, and two changes within them leave the same times.
bool isSettled(const struct stat& status) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const int64_t seconds = now.tv_sec - status.st_ctim.tv_sec;
    return seconds > 1 || seconds * kSecond + now.tv_nsec - status.st_ctim.tv_nsec > kSettled;
}

}  // namespace

KnownFiles::KnownFiles() : mFiles(static_cast<File*>(calloc(kPlaces, sizeof(File)))) {
    if (mFiles == nullptr) throw std::bad_alloc();
}

KnownFiles::Place KnownFiles::lockPlace(const struct stat& status) {
    const size_t place = (status.st_ino ^ status.st_dev * 0x9e3779b1U) % kPlaces;
    return {std::unique_lock(mMutexes[place % mMutexes.size()]), mFiles[place]};
}

bool KnownFiles::holds(const File& file, const struct stat& status) {
    return file.isClaimed && file.inode == status.st_ino && file.device == status.st_dev &&
           file.size == status.st_size && isSameTime(file.mtime, status.st_mtim) &&
           isSameTime(file.ctime, status.st_ctim);
}

KnownFiles::Claim KnownFiles::claim(const struct stat& status) {
    const bool isShared = status.st_nlink > 1;
    const bool mayBeKept = isSettled(status);
    const auto [lock, file] = lockPlace(status);
    if (holds(file, status)) {
        ++file.awaited;
        return Claim::Others;
    }
    // A file with other names will be met again; one with a single name perhaps, by way of a link.
    const bool isNeeded = file.isClaimed && (file.awaited > 0 || (file.isShared && !isShared));
    if (isNeeded || !mayBeKept) return Claim::OnceOnly;
    file = {.device = status.st_dev,
            .inode = status.st_ino,
            .size = status.st_size,
            .mtime = status.st_mtim,
            .ctime = status.st_ctim,
            .isClaimed = true,
            .isShared = isShared,
            .awaited = 0,
            .digest = ""};
    return Claim::Ours;
}

void KnownFiles::settle(const struct stat& status, const FileMD5Result& result) {
    const auto [lock, file] = lockPlace(status);
    if (!holds(file, status)) return;
    file.isClaimed = result.code == 0;
    memcpy(file.digest, result.md5, sizeof(file.digest));
}

KnownFiles::Answer KnownFiles::take(const struct stat& status, FileMD5Result* result) {
    const auto [lock, file] = lockPlace(status);
    if (!holds(file, status)) return Answer::Unknown;
    if (file.digest[0] == '\0') return Answer::Claimed;
    if (file.awaited > 0) --file.awaited;
    result->code = 0;
    memcpy(result->md5, file.digest, sizeof(file.digest));
    return Answer::Known;
}

}  // namespace rux

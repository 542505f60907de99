#include "scan/known_files.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>

#include "db/files.h"

namespace rux {
namespace {

constexpr size_t kPlaces = 1 << 16;         // for files; a power of two
constexpr int64_t kSettled = 100'000'000;   // nanoseconds
constexpr int64_t kSecond = 1'000'000'000;  // nanoseconds

/// A number for what tells a file from others, and from itself before it was changed. Should chance
/// give two the same, one would be grouped by the other's digest: only what is equal byte by byte
/// is linked.
uint64_t keyOf(const struct stat& status) {
    const std::array<uint64_t, 7> parts = {status.st_dev,
                                           status.st_ino,
                                           static_cast<uint64_t>(status.st_size),
                                           static_cast<uint64_t>(status.st_mtim.tv_sec),
                                           static_cast<uint64_t>(status.st_mtim.tv_nsec),
                                           static_cast<uint64_t>(status.st_ctim.tv_sec),
                                           static_cast<uint64_t>(status.st_ctim.tv_nsec)};
    TextStamp stamp;
    stamp.add({reinterpret_cast<const char*>(parts.data()), sizeof(parts)});
    return stamp.hash | 1;
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
    const uint64_t key = keyOf(status);
    const size_t place = (key >> 32) % kPlaces;
    return {std::unique_lock(mMutexes[place % mMutexes.size()]), mFiles[place], key};
}

KnownFiles::Claim KnownFiles::claim(const struct stat& status) {
    const bool mayBeKept = isSettled(status);
    const auto [lock, file, key] = lockPlace(status);
    if (file.key == key) return Claim::Others;
    if (!mayBeKept) return Claim::OnceOnly;
    file = {.key = key, .digest = ""};
    return Claim::Ours;
}

void KnownFiles::settle(const struct stat& status, const FileMD5Result& result) {
    const auto [lock, file, key] = lockPlace(status);
    if (file.key != key) return;
    if (result.code != 0) file.key = 0;
    memcpy(file.digest, result.md5, sizeof(file.digest));
}

KnownFiles::Answer KnownFiles::take(const struct stat& status, FileMD5Result* result) {
    const auto [lock, file, key] = lockPlace(status);
    if (file.key != key) return Answer::Unknown;
    if (file.digest[0] == '\0') return Answer::Claimed;
    result->code = 0;
    memcpy(result->md5, file.digest, sizeof(file.digest));
    return Answer::Known;
}

}  // namespace rux

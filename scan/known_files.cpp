#include "scan/known_files.h"

#include <cstring>
#include <ctime>
#include <functional>
#include <utility>

namespace rux {
namespace {

constexpr size_t kMaxGeneration = 32768;    // files
constexpr int64_t kSettled = 100'000'000;   // nanoseconds
constexpr int64_t kSecond = 1'000'000'000;  // nanoseconds

/// Whether the file's times would tell if it were changed from now on. The clock of a file system
/// stands still for some milliseconds, and two changes within them leave the same times.
bool isSettled(const struct stat& status) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const int64_t seconds = now.tv_sec - status.st_ctim.tv_sec;
    return seconds > 1 || seconds * kSecond + now.tv_nsec - status.st_ctim.tv_nsec > kSettled;
}

}  // namespace

size_t KnownFiles::Hash::operator()(const Key& key) const {
    return std::hash<uint64_t>()(key.inode * 0x9e3779b97f4a7c15U ^ key.device);
}

KnownFiles::Key KnownFiles::keyOf(const struct stat& status) {
    return {status.st_dev,
            status.st_ino,
            status.st_size,
            {status.st_mtim.tv_sec, status.st_mtim.tv_nsec},
            {status.st_ctim.tv_sec, status.st_ctim.tv_nsec}};
}

std::string* KnownFiles::find(const Key& key) {
    for (Digests* generation : {&mNewer, &mOlder}) {
        if (auto found = generation->find(key); found != generation->end()) return &found->second;
    }
    return nullptr;
}

bool KnownFiles::isExpected(const struct stat& status) {
    return find(keyOf(status)) != nullptr;
}

void KnownFiles::promise(const struct stat& status) {
    if (!isSettled(status)) return;
    if (mNewer.size() >= kMaxGeneration) {
        mOlder = std::exchange(mNewer, {});
    }
    mNewer.emplace(keyOf(status), std::string());
}

void KnownFiles::settle(const struct stat& status, const FileMD5Result& result) {
    const Key key = keyOf(status);
    if (result.code != 0) {
        mNewer.erase(key);
        mOlder.erase(key);
    } else if (std::string* digest = find(key); digest != nullptr) {
        *digest = result.md5;
    }
}

bool KnownFiles::find(const struct stat& status, FileMD5Result* result) {
    const std::string* digest = find(keyOf(status));
    if (digest == nullptr || digest->empty() || digest->size() >= sizeof(result->md5)) return false;
    result->code = 0;
    memcpy(result->md5, digest->c_str(), digest->size() + 1);
    return true;
}

}  // namespace rux

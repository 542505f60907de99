#include "f2fs_io/long_file.h"

#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

#include "android/log.h"

namespace android::host {
namespace {

using namespace std::chrono_literals;

constexpr off_t kShort = off_t{1} << 20;  // bytes that are not worth a look at the clock

std::atomic<bool (*)()> isUnwanted{nullptr};

}  // namespace

int LongFile::count(int file, size_t bytes) {
    mBytes += static_cast<off_t>(bytes);
    if (mBytes < kShort) return 0;
    const Clock::time_point now = Clock::now();
    if (mStart == Clock::time_point()) mStart = mAsked = now;
    if (!mIsNamed && now - mStart > 10s) {
        mIsNamed = true;
        char path[PATH_MAX] = "";
        const std::string link = "/proc/self/fd/" + std::to_string(file);
        const ssize_t length = readlink(link.c_str(), path, sizeof(path));
        __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io",
                            "%.*s takes long: %lld bytes in 10 s",
                            static_cast<int>(std::max<ssize_t>(0, length)), path,
                            static_cast<long long>(mBytes));
    }
    if (now - mAsked < 100ms) return 0;
    mAsked = now;
    bool (*const ask)() = isUnwanted;
    return ask != nullptr && ask() ? ECANCELED : 0;
}

}  // namespace android::host

void giveUpLongFilesWhen(bool (*unwanted)()) {
    android::host::isUnwanted = unwanted;
}

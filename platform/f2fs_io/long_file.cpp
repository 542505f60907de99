#include "f2fs_io/long_file.h"

#include <atomic>
#include <cerrno>

#include "android/log.h"
#include "f2fs_io/resolve.h"
#include "tavo_f2fs_io_extensions.h"

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
        __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io", "%s takes long: %lld bytes in 10 s",
                            placeOf(file).c_str(), static_cast<long long>(mBytes));
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

/// The digests of many files, which advance beside each other.
#pragma once

#include <sys/stat.h>

#include <functional>

#include "f2fs_io/digest/kernel.h"
#include "tavo_f2fs_io.h"

namespace android::host {

/// What `computeFileMD5Batch` is called with.
struct BatchCaller {
    size_t most;
    const std::function<const char*(void** file)>& next;
    const std::function<bool(void* file, const struct stat& status)>& opened;
    const std::function<void(void* file, const FileMD5Result& result)>& done;
    const std::function<bool()>& isAbandoned;
    bool enableLog;
};

/// Computes the digests of the files that `caller` gives until it gives no more.
void digestInLanes(const Md5Kernels& kernels, const BatchCaller& caller);

}  // namespace android::host

/// The digests of many files, which advance beside each other.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "f2fs_io/digest/kernel.h"
#include "tavo_f2fs_io.h"

namespace android::host {

/// What `computeFileMD5Batch` is called with.
struct BatchCaller {
    void* caller;
    const char* (*next)(void* caller, uint64_t* ticket);
    bool (*opened)(void* caller, uint64_t ticket, const struct stat* status);
    void (*done)(void* caller, uint64_t ticket, const FileMD5Result* result);
    bool (*isAbandoned)(void* caller);
    bool enableLog;
};

/// Computes the digests of the files that `caller` gives until it gives no more.
void digestInLanes(const Md5Kernels& kernels, const BatchCaller& caller);

}  // namespace android::host

#include "f2fs_io/digest/kernel.h"

namespace android::host {

const uint32_t* const kMd5SinesInMemory = kMd5Sines;

const Md5Kernels& md5Kernels() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f")) return kMd5Kernels512;
    if (__builtin_cpu_supports("avx2")) return kMd5Kernels256;
#endif
    return kMd5Kernels128;
}

}  // namespace android::host

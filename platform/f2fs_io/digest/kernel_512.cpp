#include "f2fs_io/digest/vectors.h"

namespace android::host {
namespace {

using Vector = uint32_t __attribute__((vector_size(64)));

constexpr Md5Kernel kKernels[] = {
        {1, Lanes<uint32_t>::run<1>},
        {3, Lanes<uint32_t>::run<3>},
        {16, Lanes<Vector>::run<1>},
        {32, Lanes<Vector>::run<2>},
};

}  // namespace

const Md5Kernels kMd5Kernels512 = {kKernels, sizeof(kKernels) / sizeof(kKernels[0])};

}  // namespace android::host

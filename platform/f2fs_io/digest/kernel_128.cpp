#include "f2fs_io/digest/vectors.h"

namespace android::host {
namespace {

using Vector = uint32_t __attribute__((vector_size(16)));

constexpr Md5Kernel kKernels[] = {
        {1, Lanes<uint32_t>::run<1>},
        {3, Lanes<uint32_t>::run<3>},
        {8, Lanes<Vector>::run<2>},
        {16, Lanes<Vector>::run<4>},
};

}  // namespace

const Md5Kernels kMd5Kernels128 = {kKernels, sizeof(kKernels) / sizeof(kKernels[0])};

}  // namespace android::host

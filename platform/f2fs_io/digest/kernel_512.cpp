#include "f2fs_io/digest/vectors.h"

namespace android::host {
namespace {

using QuarterVector = uint32_t __attribute__((vector_size(16)));
using Vector = uint32_t __attribute__((vector_size(64)));

constexpr Md5Kernel kKernels[] = {
        {1, Lanes<uint32_t>::run<1>},
        {4, Lanes<QuarterVector>::run<1>},
        {16, Lanes<Vector>::run<1>},
        {32, Lanes<Vector>::run<2>},
};

}  // namespace

const Md5Kernels kMd5Kernels512 = {kKernels, sizeof(kKernels) / sizeof(kKernels[0])};

}  // namespace android::host

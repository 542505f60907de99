#include <cerrno>
#include <cstring>
#include <string>

#include "f2fs_io/digest/kernel.h"
#include "f2fs_io/digest/lanes.h"
#include "f2fs_io/digest/md5.h"
#include "f2fs_io/digest/source.h"
#include "log/tool_log.h"
#include "tavo_f2fs_io.h"
#include "tavo_f2fs_io_extensions.h"

namespace android::host {
namespace {

int digestOf(const char* path, std::string* digest) {
    DigestSource source;
    if (const int error = source.open(path); error != 0) return error;
    if (const int error = md5Of(source, digest); error != 0) return error;
    return source.close();
}

}  // namespace

const uint32_t kMd5Sines[64] = {0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf,
                                0x4787c62a, 0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af,
                                0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e,
                                0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa,
                                0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6,
                                0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
                                0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
                                0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
                                0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039,
                                0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244, 0x432aff97,
                                0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d,
                                0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
                                0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

const Md5Kernels& md5Kernels() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f")) return kMd5Kernels512;
    if (__builtin_cpu_supports("avx2")) return kMd5Kernels256;
#endif
    return kMd5Kernels128;
}

}  // namespace android::host

FileMD5Result computeFileMD5(const char* path, bool enableLog) {
    FileMD5Result result = {};
    std::string digest;
    result.code = android::host::digestOf(path, &digest);
    if (result.code == 0) memcpy(result.md5, digest.c_str(), digest.size() + 1);
    android::host::logTool(enableLog, "computeFileMD5", path, result.code);
    return result;
}

// In one object file with the other form: a caller's weak reference alone would not bring it in.
void computeFileMD5Batch(size_t most, const std::function<const char*(void** file)>& next,
                         const std::function<bool(void* file, const struct stat& status)>& opened,
                         const std::function<void(void* file, const FileMD5Result& result)>& done,
                         const std::function<bool()>& isAbandoned, bool enableLog) {
    android::host::digestInLanes(android::host::md5Kernels(),
                                 {most, next, opened, done, isAbandoned, enableLog});
}

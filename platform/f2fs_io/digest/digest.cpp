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

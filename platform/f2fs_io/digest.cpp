#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/md5.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Whether the file only looks like one: /proc/kcore claims more bytes than anybody will ever read.
bool isKernelInterface(int file) {
    struct statfs fs = {};
    return fstatfs(file, &fs) == 0 && (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC);
}

int digestOf(const char* path, std::string* digest) {
    UniqueFd file;
    struct stat before = {};
    if (const int error = openRegular(AT_FDCWD, path, 0, &file, &before); error != 0) return error;
    if (isKernelInterface(file.get())) return EINVAL;
    posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (const int error = md5OfFile(file.get(), digest); error != 0) return error;
    struct stat after = {};
    if (fstat(file.get(), &after) != 0) return errno;
    return sameContentStamp(before, after) ? 0 : EAGAIN;
}

}  // namespace
}  // namespace android::host

FileMD5Result computeFileMD5(const char* path, bool enableLog) {
    FileMD5Result result = {};
    std::string digest;
    result.code = android::host::digestOf(path, &digest);
    if (result.code == 0) memcpy(result.md5, digest.c_str(), digest.size() + 1);
    android::host::logTool(enableLog, "computeFileMD5", path, result.code);
    return result;
}

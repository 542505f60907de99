#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/lease.h"
#include "f2fs_io/settle.h"
#include "f2fs_io/swap.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Opens the file that `path` leads to, symbolic links followed. 0 or an errno.
int openKept(const char* path, UniqueFd* file, struct stat* st) {
    if (const int error = openToRead(AT_FDCWD, path, 0, file); error != 0) return error;
    if (fstat(file->get(), st) != 0) return errno;
    return S_ISREG(st->st_mode) ? 0 : EINVAL;
}

/// Makes `name` in the entry's directory one more name of the open file `kept`: of exactly that
/// file, whatever its path leads to by now.
int linkOpenFile(int kept, const Entry& entry, const std::string& name) {
    // Not every kernel lets every process link a bare descriptor, but then there is its name in
    // /proc.
    if (linkat(kept, "", entry.directory.get(), name.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT && errno != EPERM) return errno;
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", kept);
    return linkat(AT_FDCWD, path, entry.directory.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0
                   ? 0
                   : errno;
}

int unchanged(int file, const struct stat& before) {
    struct stat now = {};
    if (fstat(file, &now) != 0) return errno;
    return sameContentStamp(before, now) ? 0 : ESTALE;
}

int linkDuplicate(const char* keptPath, const char* duplicatePath) {
    Entry duplicate;
    if (const int error = duplicate.open(duplicatePath); error != 0) return error;
    UniqueFd keptFile;
    UniqueFd duplicateFile;
    struct stat kept = {};
    struct stat old = {};
    if (const int error = duplicate.openFile(&duplicateFile, &old); error != 0) return error;
    if (const int error = openKept(keptPath, &keptFile, &kept); error != 0) return error;
    if (const int error = duplicate.removeLeftovers(); error != 0) return error;
    if (idOf(kept) == idOf(old)) return 0;
    if (kept.st_dev != old.st_dev) return EXDEV;
    if (kept.st_size != old.st_size) return EILSEQ;

    ReadLease keptLease;
    ReadLease oldLease;
    if (const int error = keptLease.take(keptFile.get()); error != 0) return error;
    if (const int error = oldLease.take(duplicateFile.get()); error != 0) return error;
    const auto disturbed = [&] { return !keptLease.held() || !oldLease.held(); };
    if (const int error = compareAttributes(keptFile.get(), duplicateFile.get()); error != 0) {
        return error;
    }
    if (const int error = compareBytes(keptFile.get(), duplicateFile.get(), disturbed);
        error != 0) {
        return error;
    }
    if (const int error = linkOpenFile(keptFile.get(), duplicate, duplicate.swapName());
        error != 0) {
        return error;
    }
    return exchange(duplicate, idOf(kept), idOf(old), [&] {
        if (const int error = unchanged(keptFile.get(), kept); error != 0) return error;
        if (const int error = unchanged(duplicateFile.get(), old); error != 0) return error;
        if (const int error = compareAttributes(keptFile.get(), duplicateFile.get()); error != 0) {
            return error == EBADE ? ESTALE : error;
        }
        letInterruptedTasksRun();
        return disturbed() ? EBUSY : 0;  // last: whoever comes later finds the kept file
    });
}

}  // namespace
}  // namespace android::host

int32_t createHardLink(const char* keptPath, const char* duplicatePath, bool enableLog) {
    const int32_t code = android::host::linkDuplicate(keptPath, duplicatePath);
    android::host::logTool(enableLog, "createHardLink", duplicatePath, code);
    return code;
}

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "f2fs_io/compare.h"
#include "f2fs_io/copy.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/lease.h"
#include "f2fs_io/settle.h"
#include "f2fs_io/swap.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Makes the copy, whole and on disk, under the entry's swap name; nothing is left on failure.
int makeCopy(const Entry& entry, int file, const struct stat& source,
             const std::function<bool()>& interrupted, UniqueFd* copy) {
    const int directory = entry.directory.get();
    const std::string part = entry.partName();
    copy->reset(openat(directory, part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       0600));
    if (!copy->valid()) return errno;
    int error = copyContent(file, copy->get(), source, interrupted);
    if (error == 0) error = copyMetadata(file, copy->get(), source);
    if (error == 0 && fsync(copy->get()) != 0) error = errno;
    // From here on the name says that the copy is complete.
    const std::string swap = entry.swapName();
    if (error == 0 &&
        renameat2(directory, part.c_str(), directory, swap.c_str(), RENAME_NOREPLACE) != 0) {
        error = errno;
    }
    if (error != 0) unlinkat(directory, part.c_str(), 0);
    return error;
}

int giveOwnData(const char* path) {
    Entry entry;
    if (const int error = entry.open(path); error != 0) return error;
    UniqueFd file;
    struct stat shared = {};
    if (const int error = entry.openFile(&file, &shared); error != 0) return error;
    if (const int error = entry.removeLeftovers(); error != 0) return error;
    // Read again: the leftover of an interrupted call counted as a link.
    if (fstat(file.get(), &shared) != 0) return errno;
    if (shared.st_nlink == 1) return 0;

    ReadLease lease;
    if (const int error = lease.take(file.get()); error != 0) return error;
    const auto disturbed = [&] { return !lease.held(); };
    if (fstat(file.get(), &shared) != 0) return errno;
    UniqueFd copy;
    if (const int error = makeCopy(entry, file.get(), shared, disturbed, &copy); error != 0) {
        return error;
    }
    struct stat own = {};
    if (fstat(copy.get(), &own) != 0) return errno;
    return exchange(entry, idOf(own), idOf(shared), [&] {
        struct stat now = {};
        if (fstat(file.get(), &now) != 0) return errno;
        if (!sameContentStamp(shared, now)) return ESTALE;
        if (const int error = compareAttributes(file.get(), copy.get()); error != 0) {
            return error == EBADE ? ESTALE : error;
        }
        letInterruptedTasksRun();
        return disturbed() ? EBUSY : 0;
    });
}

}  // namespace
}  // namespace android::host

int32_t restoreLinkFile(const char* path, bool enableLog) {
    const int32_t code = android::host::giveOwnData(path);
    android::host::logTool(enableLog, "restoreLinkFile", path, code);
    return code;
}

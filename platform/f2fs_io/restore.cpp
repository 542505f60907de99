#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "f2fs_io/copy.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/settle.h"
#include "f2fs_io/swap.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Makes the copy, whole and on disk, under the entry's swap name, and opens it anew for reading
/// only, as a lease demands. Nothing is left on failure.
int makeCopy(const Entry& entry, const LeasedFile& source, LeasedFile* copy) {
    const int directory = entry.directory.get();
    const std::string part = entry.partName();
    const std::string swap = entry.swapName();
    const UniqueFd written(openat(directory, part.c_str(),
                                  O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!written.valid()) return errno;
    const int from = source.file.get();
    int error = copyContent(from, written.get(), source.status, [&] { return source.isInUse(); });
    if (error == 0) error = copyMetadata(from, written.get(), source.status);
    if (error == 0 && fsync(written.get()) != 0) error = errno;
    if (error == 0) error = openToRead(directory, part.c_str(), O_NOFOLLOW, &copy->file);
    // Somebody else may use the same names: another service, started on the same files.
    struct stat made = {};
    struct stat opened = {};
    if (error == 0 && (fstat(written.get(), &made) != 0 || fstat(copy->file.get(), &opened) != 0))
        error = errno;
    if (error == 0 && (idOf(made) != idOf(opened) || made.st_size != source.status.st_size))
        return ESTALE;
    // From here on the name says that the copy is complete.
    if (error == 0 &&
        renameat2(directory, part.c_str(), directory, swap.c_str(), RENAME_NOREPLACE) != 0) {
        error = errno;
    }
    if (error != 0) unlinkat(directory, part.c_str(), 0);
    return error;
}

int giveOwnData(const char* path) {
    Entry entry;
    LeasedFile shared;
    LeasedFile copy;
    if (const int error = entry.open(path); error != 0) return error;
    if (const int error = entry.openFile(&shared.file, &shared.status); error != 0) return error;
    if (const int error = entry.removeLeftovers(); error != 0) return error;
    // Read again: the leftover of an interrupted call counted as a link.
    if (fstat(shared.file.get(), &shared.status) != 0) return errno;
    if (shared.status.st_nlink == 1) return 0;

    if (const int error = shared.takeLease(); error != 0) return error;
    if (const int error = makeCopy(entry, shared, &copy); error != 0) return error;
    if (const int error = copy.takeLease(); error != 0) {
        unlinkat(entry.directory.get(), entry.swapName().c_str(), 0);
        return error;
    }
    const auto sharedUndisturbed = [&shared] {
        letInterruptedTasksRun();
        return shared.undisturbed();
    };
    return exchange(entry, copy.id(), shared.id(),
                    {sharedUndisturbed, [&copy] { return copy.isInUse(); }});
}

}  // namespace
}  // namespace android::host

int32_t restoreLinkFile(const char* path, bool enableLog) {
    const int32_t code = android::host::giveOwnData(path);
    android::host::logTool(enableLog, "restoreLinkFile", path, code);
    return code;
}

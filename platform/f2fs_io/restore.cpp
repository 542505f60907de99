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

/// Makes the copy, which gets a name only once it is whole and on disk: the entry's swap name.
/// Opens it anew for reading only, as a lease demands. Nothing is left on failure.
int makeCopy(Entry& entry, const LeasedFile& source, LeasedFile* copy) {
    const UniqueFd written(
            openat(entry.directory.get(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!written.valid()) return errno;
    const int from = source.file.get();
    int error = copyContent(from, written.get(), source.status, [&] { return source.isInUse(); });
    if (error == 0) error = copyMetadata(from, written.get(), source.status);
    if (error == 0 && fsync(written.get()) != 0) error = errno;
    if (error == 0) error = openToRead(AT_FDCWD, ownPathOf(written.get()).c_str(), 0, &copy->file);
    return error == 0 ? entry.linkAsSwap(written) : error;
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

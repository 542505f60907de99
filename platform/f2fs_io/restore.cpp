#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "f2fs_io/copy.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/leftovers.h"
#include "f2fs_io/line.h"
#include "f2fs_io/swap.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Makes the copy, which has no name yet.
int makeCopy(Replacement& replacement) {
    const LeasedFile& shared = replacement.outgoing;
    UniqueFd copy(
            openat(replacement.entry.directory.get(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!copy.valid()) return errno;
    const int from = shared.file.get();
    const auto interrupted = [&shared] { return shared.isInUse(); };
    if (const int error = copyContent(from, copy.get(), shared.status, interrupted); error != 0)
        return error;
    if (const int error = copyMetadata(from, copy.get(), shared.status); error != 0) return error;
    if (fstat(copy.get(), &replacement.incoming) != 0) return errno;
    replacement.copy = std::move(copy);
    replacement.isCopy = true;
    return 0;
}

int giveOwnData(const char* path) {
    auto replacement = std::make_unique<Replacement>();
    Entry& entry = replacement->entry;
    LeasedFile& shared = replacement->outgoing;
    replacement->path = path;
    if (const int error = entry.open(path); error != 0) return error;
    tidyOnce(entry);
    if (isBeingRestored(entry)) return 0;
    if (const int error = entry.openFile(&shared.file, &shared.status); error != 0) return error;
    if (const int error = removeLeftovers(entry); error != 0) return error;
    // Read again: the leftover of an interrupted call counted as a link.
    if (fstat(shared.file.get(), &shared.status) != 0) return errno;
    if (shared.status.st_nlink <= 1 + namesInLine(shared.id())) return 0;

    if (const int error = shared.takeLease(); error != 0) return error;
    if (const int error = makeCopy(*replacement); error != 0) return error;
    standInLine(std::move(replacement));
    return 0;
}

}  // namespace
}  // namespace android::host

int32_t restoreLinkFile(const char* path, bool enableLog) {
    const int32_t code = android::host::giveOwnData(path);
    android::host::logTool(enableLog, "restoreLinkFile", path, code);
    return code;
}

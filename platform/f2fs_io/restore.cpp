#include <fcntl.h>
#include <linux/fs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "f2fs_io/copy.h"
#include "f2fs_io/directory.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/pending.h"
#include "f2fs_io/stale_names.h"
#include "f2fs_io/swap.h"
#include "log/tool_log.h"
#include "tavo_f2fs_io.h"
#include "tavo_f2fs_io_extensions.h"

namespace android::host {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kMostFiles = 256;             // in a batch
constexpr off_t kMostBytes = off_t{64} << 20;  // likewise
constexpr auto kLongest = 1s;                  // for programs that want to write to a file of it

/// Copies that are made durable together and get their names then. While the next ones are made,
/// interrupted programs get a processor; after that the old names go.
struct Batch {
    std::vector<Replacement> copies;
    off_t bytes = 0;
    Clock::time_point since;  // the first one
    std::vector<Replacement> placed;
    Clock::time_point placedAt;
};

/// Makes the copy, which has no name yet.
int makeCopy(Replacement& replacement) {
    const LeasedFile& shared = replacement.outgoing;
    base::unique_fd copy(
            openat(replacement.entry.directory.get(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!copy.ok()) return errno;
    const int from = shared.file.get();
    // The directory decides whether a copy is encrypted, and about what it cannot be given.
    if (((flagsOf(from) ^ flagsOf(copy.get())) & ~FS_FL_USER_MODIFIABLE) != 0) return EPERM;
    const auto interrupted = [&shared] { return shared.isInUse(); };
    if (const int error = copyContent(from, copy.get(), shared.status, interrupted); error != 0)
        return error;
    if (const int error = copyMetadata(from, copy.get(), shared.status); error != 0) return error;
    if (fstat(copy.get(), &replacement.incoming) != 0) return errno;
    replacement.copy = std::move(copy);
    return 0;
}

/// Adds a copy of the file to the batch, unless it has data of its own. `namesLeft` knows how many
/// names files will have when the batch is done with: the last one needs no copy.
int addCopy(const char* path, Batch& batch, std::map<FileId, nlink_t>& namesLeft) {
    Replacement replacement;
    Entry& entry = replacement.entry;
    LeasedFile& shared = replacement.outgoing;
    if (const int error = entry.open(path); error != 0) return error;
    tidyOnce(entry);
    const int kept = removeStaleName(entry);
    struct stat st = {};
    if (entry.status(entry.name, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) return 0;
    if (kept != 0) return kept;
    if (const int error = entry.openFile(&shared.file, &shared.status); error != 0) return error;
    if (const int error = refuseFileSystem(entry.directory); error != 0) return error;
    nlink_t& left = namesLeft.try_emplace(shared.id(), shared.status.st_nlink).first->second;
    if (left <= 1) return 0;

    if (const int error = shared.takeLease(); error != 0) return error;
    if (const int error = makeCopy(replacement); error != 0) return error;
    if (batch.copies.empty()) batch.since = Clock::now();
    batch.bytes += shared.status.st_size;
    batch.copies.push_back(std::move(replacement));
    --left;
    return 0;
}

/// Has all copies put on disk: together, or where that fails one by one, as it may be the failure
/// of another's. The errno of each.
std::vector<int> putOnDisk(const Batch& batch) {
    std::vector<int> errors;
    dev_t synced = 0;
    for (const Replacement& one : batch.copies) {
        const int copy = one.copy.get();
        const dev_t device = one.incoming.st_dev;
        if (batch.copies.size() > 1 && device != synced && syncfs(copy) == 0) synced = device;
        errors.push_back(device == synced || fsync(copy) == 0 ? 0 : errno);
    }
    return errors;
}

/// Gives the copy the file's name.
int putInPlace(Replacement& replacement) {
    const Entry& entry = replacement.entry;
    const int error = entry.linkAsSwap(replacement.copy);
    replacement.copy.reset();  // it is open for writing, which no lease can be had beside
    if (error != 0) return error;
    if (const int failure = exchange(replacement); failure != 0) return failure;
    struct stat st = {};  // with the time of the exchange
    if (entry.status(entry.name, &st) == 0 && idOf(st) == idOf(replacement.incoming))
        replacement.incoming = st;
    return 0;
}

/// Removes the old names of what was placed. The last error.
int concludePlaced(Batch& batch) {
    int last = 0;
    if (!batch.placed.empty()) waitForInterruptedTasks(Clock::now() - batch.placedAt);
    for (Replacement& one : batch.placed) {
        if (const int error = conclude(one); error != 0) last = error;
    }
    batch.placed.clear();
    return last;
}

/// Gives the copies their names, after those before them are done with. The last error.
int placeCopies(Batch& batch) {
    int last = concludePlaced(batch);
    const std::vector<int> errors = putOnDisk(batch);
    for (size_t i = 0; i < errors.size(); ++i) {
        const int error = errors[i] != 0 ? errors[i] : putInPlace(batch.copies[i]);
        if (error == 0) batch.placed.push_back(std::move(batch.copies[i]));
        if (error != 0) last = error;
    }
    batch.placedAt = Clock::now();
    batch.copies.clear();
    batch.bytes = 0;
    return last;
}

int giveOwnData(const char* path) {
    Batch batch;
    std::map<FileId, nlink_t> namesLeft;
    struct stat st = {};
    if (lstat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) return 0;
    noteUnfinished();
    if (const int error = addCopy(path, batch, namesLeft); error != 0) return error;
    const int error = placeCopies(batch);
    return error == 0 ? concludePlaced(batch) : error;
}

}  // namespace
}  // namespace android::host

int32_t restoreLinkFile(const char* path, bool enableLog) {
    const int32_t code = android::host::giveOwnData(path);
    android::host::logTool(enableLog, "restoreLinkFile", path, code);
    return code;
}

void restoreLinkFiles(const std::vector<std::string>& paths) {
    using namespace android::host;
    const size_t most = std::clamp<size_t>(mostPending() / 4, 1, kMostFiles);
    std::map<FileId, nlink_t> namesLeft;
    Batch batch;
    noteUnfinished();
    for (const std::string& path : paths) {
        const bool isOld = !batch.copies.empty() && Clock::now() - batch.since > kLongest;
        if (batch.copies.size() >= most || batch.bytes >= kMostBytes || isOld) placeCopies(batch);
        addCopy(path.c_str(), batch, namesLeft);
    }
    placeCopies(batch);
    concludePlaced(batch);
}

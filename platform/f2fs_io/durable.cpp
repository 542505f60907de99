#include "f2fs_io/durable.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <map>
#include <mutex>

namespace android::host {
namespace {

using std::chrono::nanoseconds;

std::mutex mutex;
std::map<dev_t, nanoseconds> synced;  // since the epoch: file systems, each of before that time

struct {
    FileId id;
    nanoseconds changed;
} latest;  // file that was made durable by itself, or linked

/// The clock by which the kernel says when a file was changed.
nanoseconds now() {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &time);
    return timeOf(time);
}

}  // namespace

int makeDurable(const LeasedFile& file) {
    const std::lock_guard lock(mutex);
    const nanoseconds changed = timeOf(file.status.st_ctim);
    const auto known = synced.find(file.status.st_dev);
    if (known != synced.end() && changed < known->second) return 0;
    if (latest.id == file.id() && latest.changed == changed) return 0;
    const nanoseconds start = now();
    // Where that fails it may be the failure of another file.
    if (known == synced.end() && syncfs(file.file.get()) == 0) {
        synced[file.status.st_dev] = start;
        return 0;
    }
    if (fsync(file.file.get()) != 0) return errno;
    latest = {file.id(), changed};
    return 0;
}

void noteLinked(const LeasedFile& file) {
    const std::lock_guard lock(mutex);
    struct stat status = {};
    if (fstat(file.file.get(), &status) == 0) latest = {idOf(status), timeOf(status.st_ctim)};
}

void forgetDurable() {
    const std::lock_guard lock(mutex);
    synced.clear();
    latest = {};
}

}  // namespace android::host

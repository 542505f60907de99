#include "f2fs_io/leftovers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <system_error>

#include "f2fs_io/compare.h"
#include "f2fs_io/lease.h"
#include "f2fs_io/line.h"

namespace android::host {
namespace {

/// For all names in the directory of `any`.
void tidy(const Entry& any) {
    std::error_code failure;
    std::set<std::string> names;
    for (const auto& found :
         std::filesystem::directory_iterator(ownPathOf(any.directory.get()), failure)) {
        names.insert(found.path().filename());
    }
    const auto first = names.lower_bound(Entry::kSwapPrefix);
    if (first == names.end() || !first->starts_with(Entry::kSwapPrefix)) return;
    for (const std::string& name : names) {
        Entry entry;
        entry.name = name;
        if (names.count(entry.swapName()) == 0) continue;
        entry.directory.reset(fcntl(any.directory.get(), F_DUPFD_CLOEXEC, 0));
        entry.directoryId = any.directoryId;
        entry.parent = any.parent;
        entry.makers = any.makers;
        removeLeftovers(entry);
    }
}

}  // namespace

void tidyOnce(const Entry& entry) {
    static const bool anyLeft = hasLineBeenLeft();
    if (!anyLeft) return;
    static std::mutex mutex;
    static auto& known = *new std::set<std::pair<dev_t, ino_t>>;
    {
        const std::lock_guard lock(mutex);
        if (!known.emplace(entry.directoryId.device, entry.directoryId.inode).second) return;
    }
    tidy(entry);
}

int removeLeftovers(Entry& entry) {
    const std::string swap = entry.swapName();
    struct stat left = {};
    if (entry.status(swap, &left) == 0) waitForLine();  // it may stand there
    struct stat st = {};
    if (const int error = entry.status(swap, &left); error != 0) return error == ENOENT ? 0 : error;
    UniqueFd ours;
    UniqueFd theirs;
    ReadLease lease;
    if (const int error = entry.openFile(&ours, &st); error != 0) return error;
    if (st.st_uid != left.st_uid) {
        std::random_device random;
        for (int i = 0; i < 4; ++i) entry.salt += std::to_string(random());
        return 0;
    }
    // A program may have had the file open all the while, or be about to.
    waitForInterruptedTasks(left.st_ctim);
    if (openRegular(entry.directory.get(), swap.c_str(), O_NOFOLLOW, &theirs, &left) != 0 ||
        lease.take(theirs.get()) != 0) {
        return EEXIST;
    }
    // Does another name hold the content too, be it this entry's or that of another member?
    const bool spare =
            left.st_nlink > 1 ||
            (st.st_size == left.st_size &&
             compareBytes(ours.get(), theirs.get(), st.st_size, nullptr) == 0 && lease.held());
    if (!spare || entry.status(swap, &st) != 0 || idOf(st) != idOf(left)) return EEXIST;
    return unlinkat(entry.directory.get(), swap.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace android::host

void removeLeftovers(const char* directory) {
    android::host::Entry any;
    if (any.open((std::string(directory) + "/any").c_str()) == 0) android::host::tidy(any);
}

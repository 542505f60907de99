#include "f2fs_io/stale_names.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <system_error>

#include "android/log.h"
#include "f2fs_io/compare.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/pending.h"
#include "f2fs_io/swap.h"
#include "tavo_f2fs_io_extensions.h"

namespace android::host {
namespace {

/// Opens the file under a swap name, with writers shut out once nobody can be about to open it.
bool lease(const Entry& entry, const std::string& swap, LeasedFile* file) {
    struct stat st = {};
    if (entry.status(swap, &st) != 0) return false;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    waitForInterruptedTasks(now - timeOf(st.st_ctim));
    return file->openLeased(entry, swap) == 0;
}

/// Removes the swap name of a file that is not needed.
int removeUnneeded(const Entry& entry, const std::string& swap, const LeasedFile& file) {
    const bool isUnneeded = entry.expect(swap, file.id()) == 0 && !file.isInUse();
    return isUnneeded ? removeSwap(entry, swap) : keepSwap(entry, swap, EEXIST);
}

bool isSwapName(std::string_view name) {
    constexpr size_t kPrefix = sizeof(Entry::kSwapPrefix) - 1;
    return name.starts_with(Entry::kSwapPrefix) && name.size() == kPrefix + 32 &&
           name.find_first_not_of("0123456789abcdef", kPrefix) == std::string::npos;
}

/// For all swap names in a directory, whose path ends in a slash or is empty.
void tidy(const std::string& directory) {
    Entry entry;
    if (entry.open((directory + "any").c_str()) != 0) return;
    std::error_code failure;
    std::set<std::string> names;
    std::set<std::string> swaps;
    for (const auto& found :
         std::filesystem::directory_iterator(ownPathOf(entry.directory.get()), failure)) {
        const std::string name = found.path().filename();
        names.insert(name);
        if (isSwapName(name)) swaps.insert(name);
    }
    if (swaps.empty()) return;
    for (const std::string& name : names) {
        entry.name = name;
        entry.swap.clear();
        if (swaps.erase(entry.swapName()) != 0) removeStaleName(entry);
    }
    concludePending();
    entry.name.clear();
    for (const std::string& swap : swaps) {  // whose files have been renamed or removed
        LeasedFile file;
        const bool isUnneeded = lease(entry, swap, &file) && file.status.st_nlink > 1;
        isUnneeded ? removeUnneeded(entry, swap, file) : keepSwap(entry, swap, EEXIST);
    }
}

}  // namespace

void tidyOnce(const Entry& entry) {
    if (!wasLeftUnfinished()) return;
    static std::mutex mutex;
    static auto& known = *new std::set<FileId>;
    // Other threads wait, as it would take their temporary names for stale ones.
    const std::lock_guard lock(mutex);
    if (known.insert(idOf(entry.directoryStatus)).second) tidy(entry.parent);
}

int removeStaleName(Entry& entry) {
    const std::string& swap = entry.swapName();
    struct stat st = {};
    if (entry.status(swap, &st) == ENOENT) return 0;
    concludePending();  // it may be one of these
    if (const int error = entry.status(swap, &st); error != 0) return error == ENOENT ? 0 : error;
    LeasedFile ours;
    LeasedFile left;
    if (const int error = entry.openFile(&ours.file, &ours.status); error != 0) return error;
    if (ours.status.st_uid != st.st_uid) {
        entry.changeSwapName();
        return 0;
    }
    if (!lease(entry, swap, &left)) return keepSwap(entry, swap, EEXIST);
    // Does another name hold the content too, be it this entry's or that of another member?
    if (left.status.st_nlink > 1 ||
        (left.status.st_size == ours.status.st_size &&
         compareBytes(ours.file.get(), left.file.get(), left.status.st_size, nullptr) == 0))
        return removeUnneeded(entry, swap, left);
    // When a process ends so do its leases: whoever had waited for one writes to the file that is
    // under the swap name by now. Of such a file both times are those of the write, while the
    // exchange itself counts as a change of status alone.
    const bool isWritten = timeOf(left.status.st_mtim) == timeOf(left.status.st_ctim);
    if (!isWritten || ours.takeLease() != 0 ||
        timeOf(ours.status.st_mtim) >= timeOf(left.status.st_mtim))
        return keepSwap(entry, swap, EEXIST);
    __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io",
                        "undone %s%s: written to when its call had been killed",
                        entry.parent.c_str(), entry.name.c_str());
    return undo(entry, ours.status, 0);
}

}  // namespace android::host

bool isStaleName(const char* path) {
    const std::string_view whole = path;
    return android::host::isSwapName(whole.substr(whole.rfind('/') + 1));
}

void removeStaleNames(const char* directory) {
    android::host::tidy(std::string(directory) + "/");
}

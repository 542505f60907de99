#include "f2fs_io/pending.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "android/log.h"
#include "f2fs_io/durable.h"
#include "f2fs_io/leased_file.h"
#include "root/run_dir.h"
#include "tavo_f2fs_io_extensions.h"

namespace android::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostPending = 2048;
constexpr size_t kDescriptors = 3;  // that one of them holds
constexpr auto kLongest = std::chrono::seconds(1);

struct Pending {
    Replacement replacement;
    std::vector<std::string> paths;  // that callers gave for it
    Clock::time_point since;         // the exchange
};

std::mutex concluding;                  // held by the one who concludes some; taken first
std::map<std::string, int32_t> undone;  // by path, since the last `settleLinks`

std::mutex adding;
std::vector<Pending> pending;
bool isNoted = false;

std::string unfinishedNote() {
    return runDirectory() + "/unsettled";
}

/// With `adding` held.
void note() {
    if (std::exchange(isNoted, true)) return;
    wasLeftUnfinished();
    const base::unique_fd file(
            open(unfinishedNote().c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
}

/// Closes the outgoing files. With its last descriptor a file gives its blocks back, which can take
/// longer than all that comes before: so two threads share it. A single one, and what would be the
/// share of a thread that the system does not grant, is left to the destructors.
void closeOutgoing(std::vector<Pending>& concluded) {
    if (concluded.size() < 2) return;
    const auto close = [](Pending& one) { one.replacement.outgoing.file.reset(); };
    const auto half = concluded.begin() + static_cast<ptrdiff_t>(concluded.size() / 2);
    const auto other = std::async([&] { std::for_each(half, concluded.end(), close); });
    std::for_each(concluded.begin(), half, close);
}

/// Concludes all, or those that need no waiting. With `concluding` held.
void concludeOldest(bool waits) {
    std::vector<Pending> oldest;
    const auto latest = Clock::now() - (waits ? Clock::duration::zero() : timeWithoutProcessor());
    {
        const std::lock_guard lock(adding);
        const auto isOld = [latest](const Pending& one) { return one.since <= latest; };
        const auto last = std::partition_point(pending.begin(), pending.end(), isOld);
        std::move(pending.begin(), last, std::back_inserter(oldest));
        pending.erase(pending.begin(), last);
    }
    if (waits && !oldest.empty()) waitForInterruptedTasks(latest - oldest.back().since);
    for (Pending& one : oldest) {
        const int error = conclude(one.replacement);
        if (error == 0) continue;
        for (const std::string& path : one.paths) {
            __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io", "undone %s: %d (%s)",
                                path.c_str(), error, strerrordesc_np(error));
            undone[path] = error;
        }
    }
    closeOutgoing(oldest);
}

}  // namespace

size_t mostPending() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return std::clamp(static_cast<size_t>(limit.rlim_cur) / 4 / kDescriptors, size_t{1},
                      kMostPending);
}

void addPending(Replacement replacement, const std::string& path) {
    std::unique_lock lock(adding);
    const Clock::time_point now = Clock::now();
    note();
    pending.push_back({std::move(replacement), {path}, now});
    const bool isFull = pending.size() >= mostPending() || now - pending.front().since > kLongest;
    lock.unlock();
    if (isFull) concludePending();
}

bool joinPending(const Entry& entry, const std::string& path) {
    const std::lock_guard lock(adding);
    const auto found = std::find_if(pending.begin(), pending.end(), [&entry](const Pending& one) {
        const Entry& other = one.replacement.entry;
        return idOf(other.directoryStatus) == idOf(entry.directoryStatus) &&
               other.name == entry.name;
    });
    if (found != pending.end()) found->paths.push_back(path);
    return found != pending.end();
}

void concludePending() {
    const std::lock_guard lock(concluding);
    concludeOldest(true);
}

void noteUnfinished() {
    const std::lock_guard lock(adding);
    note();
}

bool wasLeftUnfinished() {
    static const bool was = access(unfinishedNote().c_str(), F_OK) == 0;
    return was;
}

}  // namespace android::host

std::map<std::string, int32_t> settleLinks(bool waits) {
    using namespace android::host;
    const std::lock_guard lock(concluding);
    concludeOldest(waits);
    const std::lock_guard also(adding);
    // Only when no more links are being made, each of which relies on the note.
    if (waits && pending.empty() && std::exchange(isNoted, false)) unlink(unfinishedNote().c_str());
    if (waits) forgetDurable();
    return std::exchange(undone, {});
}

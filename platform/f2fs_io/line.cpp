#include "f2fs_io/line.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "android/log.h"
#include "root/run_dir.h"

namespace android::host {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// For how long a task is thought to be without a processor: as many turns of others as there are
// tasks for each processor, and some more.
constexpr auto kTurn = 8ms;
constexpr auto kLeast = 50ms;

constexpr size_t kMaxLength = 2048;                 // replacements in the line
constexpr size_t kDescriptors = 3;                  // that one of them holds
constexpr off_t kMaxCopiedBytes = off_t{64} << 20;  // that are not on disk yet

// The thread comes back for more and is not woken: that would take longer than all the rest of what
// the caller does.
constexpr auto kNap = 1ms;
constexpr int kMaxNaps = 40;  // in a row, before it ends

/// How many tasks run or would like to, this one included (proc_loadavg(5)); 0 when that is not
/// known.
long runnableTasks() {
    // Never closed: the line's thread outlives every other object.
    static const auto& loadavg = *new UniqueFd(open("/proc/loadavg", O_RDONLY | O_CLOEXEC));
    char text[128];
    const ssize_t got = pread(loadavg.get(), text, sizeof(text) - 1, 0);
    if (got <= 0) return 0;
    text[got] = '\0';
    const char* field = text;  // the fourth: "0.20 0.18 0.12 1/80 11206"
    for (int i = 0; i < 3 && field != nullptr; ++i) {
        field = strchr(field, ' ');
        if (field != nullptr) ++field;
    }
    return field != nullptr ? strtol(field, nullptr, 10) : 0;
}

/// How long to wait from now on for tasks that have been interrupted.
std::chrono::milliseconds timeWithoutProcessor() {
    static const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    const long runnable = runnableTasks();
    return runnable <= processors ? 0ms : std::max(kLeast, kTurn * runnable / processors);
}

/// A file that is there from the first replacement until all are settled.
std::string unsettledMark() {
    return runDirectory() + "/unsettled";
}

size_t lengthOfLine() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const size_t most = static_cast<size_t>(limit.rlim_cur) / 4 / kDescriptors;
    return std::clamp(most, size_t{1}, kMaxLength);
}

/// A replacement that is in the line.
struct Item {
    std::unique_ptr<Replacement> replacement;
    bool isExchanged = false;
    Clock::time_point since;  // the exchange
    bool isLeaving = false;   // its name may be gone
    int code = 0;
};
using Items = std::vector<std::list<Item>::iterator>;

/// Has copies put on disk, and gives them their place then.
void exchangeCopies(const Items& items) {
    dev_t synced = 0;
    int error = 0;
    for (const auto& item : items) {
        Replacement& replacement = *item->replacement;
        if (replacement.incoming.st_dev != synced) {
            error = syncfs(replacement.copy.get()) == 0 ? 0 : errno;
            synced = replacement.incoming.st_dev;
        }
        item->code = error;
        if (item->code == 0) item->code = replacement.entry.linkAsSwap(replacement.copy);
        replacement.copy.reset();  // it is open for writing, which no lease can be had beside
        if (item->code == 0) item->code = exchange(replacement);
        item->isExchanged = true;
        item->since = Clock::now();
    }
}

class Line {
  public:
    void add(std::unique_ptr<Replacement> replacement) {
        static const size_t most = lengthOfLine();
        std::unique_lock lock(mMutex);
        while (mLength != 0 && (mLength >= most || mCopiedBytes >= kMaxCopiedBytes)) {
            mRequest.notify_one();
            mDeparture.wait(lock);
        }
        if (!std::exchange(mIsMarked, true))
            close(open(mMark.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        ++mLength;
        const bool isCopy = replacement->isCopy;
        if (isCopy) mCopiedBytes += replacement->incoming.st_size;
        mItems.push_back({std::move(replacement), !isCopy, Clock::now()});
        if (!std::exchange(mHasWorker, true)) startWorker(lock);
    }

    /// Returns when it is empty.
    void wait() {
        std::unique_lock lock(mMutex);
        mRequest.notify_one();
        mDeparture.wait(lock, [this] { return mLength == 0; });
    }

    std::map<std::string, int32_t> settle() {
        wait();
        const std::lock_guard lock(mMutex);
        if (mLength == 0 && std::exchange(mIsMarked, false)) unlink(mMark.c_str());
        return std::exchange(mUndone, {});
    }

    bool holds(const Entry& entry, bool asCopy) {
        const std::lock_guard lock(mMutex);
        return std::any_of(mItems.begin(), mItems.end(), [&](const Item& item) {
            return item.replacement->isCopy == asCopy && item.replacement->entry.isSameAs(entry);
        });
    }

    size_t count(const FileId& outgoing) {
        const std::lock_guard lock(mMutex);
        return static_cast<size_t>(
                std::count_if(mItems.begin(), mItems.end(), [&](const Item& item) {
                    return !item.isLeaving && item.replacement->outgoing.id() == outgoing;
                }));
    }

  private:
    void startWorker(std::unique_lock<std::mutex>& lock) {
        try {
            std::thread([this] {
                std::unique_lock own(mMutex);
                work(own, kMaxNaps);
            }).detach();
        } catch (const std::system_error&) {  // no thread to be had: the caller does it
            work(lock, 0);
        }
    }

    /// Until the line has been empty for so many naps. By one thread at a time.
    void work(std::unique_lock<std::mutex>& lock, int maxNaps) {
        for (int naps = 0; !mItems.empty() || naps < maxNaps; ++naps) {
            if (mItems.empty()) {
                mRequest.wait_for(lock, kNap);
                continue;
            }
            const Clock::time_point now = Clock::now();
            lock.unlock();
            const Clock::duration wait = timeWithoutProcessor();
            lock.lock();
            if (workOff(lock, now - wait)) {
                naps = 0;
                continue;
            }
            // Longer and longer naps: whoever wakes up often on a busy machine takes the processor
            // from the caller.
            const auto nap = std::clamp<Clock::duration>(mItems.front().since + wait - now, kNap,
                                                         kNap * (1 << std::min(naps, 6)));
            mRequest.wait_for(lock, nap);
        }
        mHasWorker = false;
    }

    /// Does what there is to do: for copies, and for what was exchanged by `latest`. False when
    /// that is nothing. The lock is given up meanwhile.
    bool workOff(std::unique_lock<std::mutex>& lock, Clock::time_point latest) {
        Items copies;
        Items due;
        for (auto item = mItems.begin(); item != mItems.end(); ++item) {
            if (!item->isExchanged) {
                copies.push_back(item);
            } else if (item->since <= latest) {
                item->isLeaving = true;
                due.push_back(item);
            }
        }
        if (copies.empty() && due.empty()) return false;

        lock.unlock();
        for (const auto& item : due) {
            item->code = conclude(*item->replacement);
            item->replacement->outgoing.lease.giveUp();
        }
        exchangeCopies(copies);
        lock.lock();

        std::list<Item> gone;
        for (const auto& item : copies) {
            mCopiedBytes -= item->replacement->incoming.st_size;
            if (item->code != 0) due.push_back(item);
        }
        for (const auto& item : due) {
            if (item->code != 0) takeNote(*item);
            gone.splice(gone.end(), mItems, item);
        }
        lock.unlock();
        const size_t count = gone.size();
        gone.clear();  // where the blocks are given back, which takes the file system its time
        lock.lock();
        mLength -= count;
        mDeparture.notify_all();
        return true;
    }

    void takeNote(const Item& item) {
        const std::string& path = item.replacement->path;
        __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io", "undone %s: %d (%s)", path.c_str(),
                            item.code, strerrordesc_np(item.code));
        mUndone[path] = item.code;
    }

    std::mutex mMutex;
    std::condition_variable mRequest;    // for the worker to go on at once
    std::condition_variable mDeparture;  // from the line
    const std::string mMark = unsettledMark();
    bool mIsMarked = false;
    bool mHasWorker = false;
    size_t mLength = 0;      // with those that are just being closed
    off_t mCopiedBytes = 0;  // of copies that are not on disk yet
    std::list<Item> mItems;  // only the worker takes one away, or changes one
    std::map<std::string, int32_t> mUndone;
};

Line& line() {
    static auto& instance = *new Line;  // its thread outlives every other object
    return instance;
}

}  // namespace

void standInLine(std::unique_ptr<Replacement> replacement) {
    line().add(std::move(replacement));
}

bool isBeingLinked(const Entry& entry) {
    return line().holds(entry, false);
}

bool isBeingRestored(const Entry& entry) {
    return line().holds(entry, true);
}

size_t namesInLine(const FileId& outgoing) {
    return line().count(outgoing);
}

bool hasLineBeenLeft() {
    return access(unsettledMark().c_str(), F_OK) == 0;
}

void waitForLine() {
    line().wait();
}

void waitForInterruptedTasks(const timespec& when) {
    using namespace std::chrono;
    const auto wait = timeWithoutProcessor();
    const auto since = system_clock::time_point(duration_cast<system_clock::duration>(
            seconds(when.tv_sec) + nanoseconds(when.tv_nsec)));
    const auto left = since + wait - system_clock::now();
    if (left > 0ns) std::this_thread::sleep_for(std::min<nanoseconds>(left, wait));
}

}  // namespace android::host

std::map<std::string, int32_t> settleLinks() {
    return android::host::line().settle();
}

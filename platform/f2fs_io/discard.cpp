#include "f2fs_io/discard.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kMaxWaiting = 128;  // open files, of which a process has a thousand as a rule
constexpr size_t kMaxThreads = 8;    // the file system can wait for its device that often at once

// The threads come back for files and are not woken: that would take longer than all the rest of
// what the caller does here.
constexpr auto kNap = std::chrono::milliseconds(1);
constexpr int kMaxNaps = 40;  // in a row, before a thread ends

/// Closes files on threads of its own. As a rule on one: with more threads ready to run than there
/// are processors every exchange has to wait (settle.h). Where the device is slow, and one falls
/// behind, there are more.
class Closer {
  public:
    Closer() { mWaiting.reserve(kMaxWaiting); }

    /// A file that does not find room is closed by the caller.
    void take(UniqueFd file) {
        const std::lock_guard lock(mMutex);
        const bool isFull = mWaiting.size() >= kMaxWaiting;
        if (mThreads == 0 || isFull) startThread();
        if (mThreads > 0 && !isFull) mWaiting.push_back(std::move(file));
    }

    /// Returns when all files that were taken are closed.
    void finish() {
        while (closeNext()) {
        }
        std::unique_lock lock(mMutex);
        mClosed.wait(lock, [this] { return mUnderWay == 0; });
    }

  private:
    /// With the lock held.
    void startThread() {
        if (mThreads == kMaxThreads) return;
        try {
            std::thread([this] { run(); }).detach();
            ++mThreads;
        } catch (const std::system_error&) {  // those that there are have to do, or the caller
        }
    }

    void run() {
        int naps = 0;
        while (naps < kMaxNaps || !leave()) {
            if (closeNext()) {
                naps = 0;
            } else {
                std::this_thread::sleep_for(kNap);
                ++naps;
            }
        }
    }

    bool closeNext() {
        UniqueFd file;
        {
            const std::lock_guard lock(mMutex);
            if (mWaiting.empty()) return false;
            file = std::move(mWaiting.back());
            mWaiting.pop_back();
            ++mUnderWay;
        }
        file.reset();
        const std::lock_guard lock(mMutex);
        if (--mUnderWay == 0) mClosed.notify_all();
        return true;
    }

    /// False when a file has come meanwhile.
    bool leave() {
        const std::lock_guard lock(mMutex);
        if (!mWaiting.empty()) return false;
        --mThreads;
        return true;
    }

    std::mutex mMutex;
    std::condition_variable mClosed;
    size_t mThreads = 0;
    size_t mUnderWay = 0;  // files that are just being closed
    std::vector<UniqueFd> mWaiting;
};

Closer& closer() {
    static auto& instance = *new Closer;  // its threads outlive every other object
    return instance;
}

}  // namespace

void closeReplaced(UniqueFd file) {
    closer().take(std::move(file));
}

}  // namespace android::host

void finishHardLinks() {
    android::host::closer().finish();
}

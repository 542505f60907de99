#include "f2fs_io/discard.h"

#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kMaxWaiting = 128;  // open files, of which a process has a thousand as a rule

// The thread comes back for files and is not woken: that would take longer than all the rest of
// what the caller does here.
constexpr auto kNap = std::chrono::milliseconds(1);
constexpr int kMaxNaps = 40;  // in a row, before the thread ends

/// Closes files on a thread of its own. On one only, though the file system waits for its device
/// and could do so for several files: more threads than processors would be ready to run, and then
/// every exchange has to wait (settle.h).
class Closer {
  public:
    Closer() { mWaiting.reserve(kMaxWaiting); }

    /// A file that does not find room is closed by the caller.
    void take(UniqueFd file) {
        const std::lock_guard lock(mMutex);
        if (!mIsRunning) startThread();
        if (mIsRunning && mWaiting.size() < kMaxWaiting) mWaiting.push_back(std::move(file));
    }

  private:
    /// With the lock held.
    void startThread() {
        try {
            std::thread([this] { run(); }).detach();
            mIsRunning = true;
        } catch (const std::system_error&) {  // the caller has to do
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
        }
        return true;
    }

    /// False when a file has come meanwhile.
    bool leave() {
        const std::lock_guard lock(mMutex);
        if (!mWaiting.empty()) return false;
        mIsRunning = false;
        return true;
    }

    std::mutex mMutex;
    bool mIsRunning = false;
    std::vector<UniqueFd> mWaiting;
};

}  // namespace

void closeReplaced(UniqueFd file) {
    static auto& closer = *new Closer;  // its thread outlives every other object
    closer.take(std::move(file));
}

}  // namespace android::host

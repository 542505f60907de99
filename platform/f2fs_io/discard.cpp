#include "f2fs_io/discard.h"

#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kMaxWaiting = 32;  // open files, of which a process has a thousand as a rule

class Closer {
  public:
    Closer() {
        try {
            std::thread([this] { run(); }).detach();
            mHasThread = true;
        } catch (const std::system_error&) {  // no thread to be had: each caller closes its own
        }
    }

    void take(UniqueFd file) {
        if (!mHasThread) return;
        bool isFirst = false;
        {
            const std::lock_guard lock(mMutex);
            if (mWaiting.size() >= kMaxWaiting) return;
            isFirst = mWaiting.empty();
            mWaiting.push_back(std::move(file));
        }
        // With others before it, the thread is at work and comes back for all of them.
        if (isFirst) mAnyWaiting.notify_one();
    }

  private:
    [[noreturn]] void run() {
        std::vector<UniqueFd> files;
        files.reserve(kMaxWaiting);
        for (;;) {
            {
                std::unique_lock lock(mMutex);
                mAnyWaiting.wait(lock, [this] { return !mWaiting.empty(); });
                files.swap(mWaiting);
            }
            files.clear();
        }
    }

    bool mHasThread = false;
    std::mutex mMutex;
    std::condition_variable mAnyWaiting;
    std::vector<UniqueFd> mWaiting;
};

}  // namespace

void closeReplaced(UniqueFd file) {
    static auto& closer = *new Closer;  // its thread outlives every other object
    closer.take(std::move(file));
}

}  // namespace android::host

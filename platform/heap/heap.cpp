// The service's allocator on a host, which stands in for the device's own.
//
// The images of a large space are some ten million small pieces, all touched once, in order. With
// memory that comes in small pages every few of them cost a page fault, which took up to a third of
// a first scan's processor time, most of all in virtual machines.

#include <jemalloc/jemalloc.h>

#include <chrono>
#include <exception>
#include <mutex>
#include <thread>
#include <type_traits>

/// Read by jemalloc(3) when the program starts. One arena, because one thread does nearly all of
/// it. What large pieces have left is given out in pieces of any size, before new memory is. What
/// has not been used for a second goes back to the system.
extern "C" {
extern const char* malloc_conf;
const char* malloc_conf =
        "thp:always,narenas:1,lg_extent_max_active_fit:20,"
        "dirty_decay_ms:1000,background_thread:true";
}

namespace {

constexpr auto kIdle = std::chrono::seconds(1);

/// Whether freed memory goes back to the system.
///
/// It does not from the beginning of an operation until there has been none for a while. A scan
/// drops the images of one space and fills the memory with those of the next: what went back in
/// between would come again in small pages only.
class Keeping {
  public:
    void begin() {
        const std::lock_guard lock(mMutex);
        mIsOperating = true;
        if (!mIsWaiting) giveBack(false);
    }

    void end() {
        const std::lock_guard lock(mMutex);
        mIsOperating = false;
        mLastEnd = Clock::now();
        if (mIsWaiting) return;
        try {
            std::thread([this] { waitUntilIdle(); }).detach();
            mIsWaiting = true;
        } catch (const std::exception&) {  // no thread or no memory to be had
            giveBack(true);
        }
    }

  private:
    using Clock = std::chrono::steady_clock;

    /// Also the allocator's own thread, which would be woken for nothing, a thousand times in a
    /// scan.
    static void giveBack(bool enable) {
        ssize_t decay = enable ? 1000 : -1;  // milliseconds; never
        mallctl("arena.0.dirty_decay_ms", nullptr, nullptr, &decay, sizeof(decay));
        mallctl("background_thread", nullptr, nullptr, &enable, sizeof(enable));
    }

    void waitUntilIdle() {
        std::unique_lock lock(mMutex);
        while (mIsOperating || Clock::now() < mLastEnd + kIdle) {
            lock.unlock();
            std::this_thread::sleep_for(kIdle);
            lock.lock();
        }
        mIsWaiting = false;
        giveBack(true);
    }

    std::mutex mMutex;
    bool mIsOperating = false;  // one operation at a time does
    bool mIsWaiting = false;    // a thread, until there is none
    Clock::time_point mLastEnd;
};

constinit Keeping keeping;  // never destroyed, as its thread may outlive other objects
static_assert(std::is_trivially_destructible_v<Keeping>);

}  // namespace

void keepFreedMemory(bool keep) {
    keep ? keeping.begin() : keeping.end();
}

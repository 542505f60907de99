/// Complete requests on their way to a pool thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "binder/IBinder.h"
#include "binder/Parcel.h"
#include "binder/caller.h"

namespace android::host {

struct Job {
    uint64_t connection;  // the id under which the transport knows the sender
    sp<IBinder> target;
    uint32_t code;
    uint32_t flags;
    Caller caller;
    std::unique_ptr<Parcel> request;
};

class JobQueue {
  public:
    void push(Job job) {
        {
            const std::lock_guard lock(mMutex);
            mJobs.push_back(std::move(job));
        }
        mChanged.notify_one();
    }

    /// Waits for a job; nothing once the queue has been closed.
    std::optional<Job> pop() {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [this] { return mClosed || !mJobs.empty(); });
        if (mClosed) return std::nullopt;
        Job job = std::move(mJobs.front());
        mJobs.pop_front();
        return job;
    }

    void close() {
        {
            const std::lock_guard lock(mMutex);
            mClosed = true;
        }
        mChanged.notify_all();
    }

  private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<Job> mJobs;
    bool mClosed = false;
};

}  // namespace android::host

/// Digests that are computed by other threads, ahead of their turn.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "tavo_f2fs_io.h"

namespace rux {

/// One digest that is wanted.
struct DigestJob {
    const char* path = nullptr;  ///< must stay valid until the job is done
    FileMD5Result result = {};   ///< the library's, once `isDone`
    std::atomic<bool> isDone{false};
};

/// The worker threads of one scan. They start with the first job and end with the object.
///
/// All functions are for the scan's own thread. The jobs must live until they are done.
class Digests {
  public:
    /// With 0 workers every digest is computed when it is awaited.
    explicit Digests(unsigned workers);
    ~Digests();
    Digests(const Digests&) = delete;
    Digests& operator=(const Digests&) = delete;

    /// Puts jobs in the queue.
    void start(const std::vector<DigestJob*>& jobs);

    /// Returns when `job` is done, or after a moment in which the scan may have something else to
    /// do.
    void waitFor(DigestJob& job);

    /// Drops the jobs that are not done yet: they end with ECANCELED, those under way as soon as
    /// the library lets go of them.
    void dropAll();

  private:
    class Worker;

    void startThreads();
    bool waitForWork();
    void waitForWork(std::unique_lock<std::mutex>& lock);
    DigestJob* take(size_t inHand, bool mayWait);
    static void finish(DigestJob& job, const FileMD5Result& result);

    const unsigned mWorkers;
    bool mStarted = false;  // whether threads have been asked for
    std::vector<std::thread> mThreads;
    std::mutex mMutex;
    std::condition_variable mWork;      // for the workers: jobs, or the end
    std::condition_variable mProgress;  // for the scan: a worker has run out of jobs
    std::deque<DigestJob*> mQueue;
    std::atomic<size_t> mUnderWay{0};  // jobs that workers have in hand
    std::atomic<bool> mAbandoned{false};
    unsigned mIdle = 0;  // workers that wait for jobs
    bool mEnd = false;
};

}  // namespace rux

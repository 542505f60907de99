/// Status and digest of files, read by other threads ahead of their turn.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "scan/entry_stream.h"
#include "scan/known_files.h"
#include "tavo_f2fs_io.h"

namespace rux {

/// What is to be read of one entry, and what has been.
struct ReadJob {
    const char* path = nullptr;  ///< must stay valid until the job is done
    bool isRegular = false;      ///< the directory says so
    bool wantsDigest = false;    ///< if it is a file with content

    enum class State : uint8_t { Unread, HasStatus, Done };
    std::atomic<State> state{State::Unread};
    bool hasStatus() const { return state.load(std::memory_order_acquire) != State::Unread; }
    bool isDone() const { return state.load(std::memory_order_acquire) == State::Done; }

    // Once it has the status:
    Entry::Kind kind = Entry::Kind::Unknown;
    struct stat status = {};  ///< from before the digest was begun
    KnownFiles::Claim claim = KnownFiles::Claim::OnceOnly;
    bool isBegun = false;  ///< with the digest
    // Once it is done:
    FileMD5Result result = {};  ///< the library's, of a digest that was begun
};

/// The worker threads of one scan. They start with the first job and end with the object.
///
/// All functions are for the scan's own thread, which awaits the jobs in the order in which it
/// started them. The jobs must live until they are done.
class Readers {
  public:
    explicit Readers(KnownFiles& knownFiles) : mKnownFiles(knownFiles) {}
    ~Readers();
    Readers(const Readers&) = delete;
    Readers& operator=(const Readers&) = delete;

    /// Puts jobs in the queue. No further digest is begun while files of 512 MiB or more have been
    /// and are not released.
    void start(const std::vector<ReadJob*>& jobs);

    /// Brings the first job that is not done further, or waits for it, but no longer than a moment:
    /// the scan may have something else to do.
    void advance(ReadJob& job);
    void waitAMoment();

    /// Takes a job that is done out of the account of bytes.
    void release(const ReadJob& job);

    /// Drops the jobs that are not done yet: they end with ECANCELED, those under way as soon as
    /// the library lets go of them.
    void dropAll();

  private:
    class Worker;

    void startThreads();
    bool hasWork() const;
    bool waitForWork();
    ReadJob* take(size_t inHand);
    bool takeStatuses(std::unique_lock<std::mutex>& lock);
    static void look(ReadJob& job);
    bool begin(ReadJob& job);
    void finish(ReadJob& job, const FileMD5Result& result);

    KnownFiles& mKnownFiles;
    std::vector<std::thread> mThreads;
    std::mutex mMutex;
    std::condition_variable mWork;      // for the workers: jobs, or room, or the end
    std::condition_variable mProgress;  // for the scan: a worker has run out of jobs
    std::deque<ReadJob*> mQueue;
    std::atomic<int64_t> mBytes{0};    // of files whose digests were begun, until their release
    std::atomic<size_t> mUnderWay{0};  // jobs that workers have in hand
    std::atomic<bool> mAbandoned{false};
    unsigned mIdle = 0;  // workers that wait for jobs
    bool mEnd = false;
};

}  // namespace rux

#include "scan/digests.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "control/properties.h"

/// The I/O library's digests of many files at once, several times as fast as one by one. An
/// extension: where the library has none, the address is null.
///
/// Asks `next` for files, with `idle` when it has none in hand (null then ends the batch), hands
/// each file's outcome to `done`, and ends early, with ECANCELED for the files in hand, once
/// `isAbandoned`.
[[gnu::weak]] void computeFileMD5Batch(
        void* caller, const char* (*next)(void* caller, bool idle, uint64_t* ticket),
        void (*done)(void* caller, uint64_t ticket, const FileMD5Result* result),
        bool (*isAbandoned)(void* caller), bool enableLog);

namespace rux {
namespace {

/// How long the scan waits for a digest before it looks after the walk again. It is not woken for
/// every digest: of small files there are hundreds in that time.
constexpr auto kMoment = std::chrono::milliseconds(1);

FileMD5Result failure(int error) {
    FileMD5Result result = {};
    result.code = error;
    return result;
}

}  // namespace

/// One thread and the jobs that it has in hand.
class Digests::Worker {
  public:
    explicit Worker(Digests& digests) : mDigests(digests) {}

    void run() {
        bool useBatch = computeFileMD5Batch != nullptr;
        while (mDigests.waitForWork()) {
            try {
                if (useBatch) {
                    computeFileMD5Batch(this, next, done, isAbandoned, toolLogEnabled);
                } else {
                    computeOne();
                }
            } catch (...) {  // no memory: what is in hand fails, and the rest goes on as it can
                useBatch = false;
                while (!mInHand.empty()) finish(*mInHand.back(), failure(ENOMEM));
            }
        }
    }

  private:
    void computeOne() {
        uint64_t ticket = 0;
        const char* path = next(this, false, &ticket);
        if (path == nullptr) return;
        const FileMD5Result result = computeFileMD5(path, toolLogEnabled);
        done(this, ticket, &result);
    }

    static const char* next(void* caller, bool idle, uint64_t* ticket) {
        Worker& worker = *static_cast<Worker*>(caller);
        worker.mInHand.reserve(worker.mInHand.size() + 1);
        DigestJob* const job = worker.mDigests.take(worker.mInHand.size(), idle);
        if (job == nullptr) return nullptr;
        worker.mInHand.push_back(job);
        *ticket = reinterpret_cast<uint64_t>(job);
        return job->path;
    }
    static void done(void* caller, uint64_t ticket, const FileMD5Result* result) {
        static_cast<Worker*>(caller)->finish(*reinterpret_cast<DigestJob*>(ticket), *result);
    }
    static bool isAbandoned(void* caller) {
        return static_cast<Worker*>(caller)->mDigests.mAbandoned.load(std::memory_order_relaxed);
    }

    void finish(DigestJob& job, const FileMD5Result& result) {
        mInHand.erase(std::find(mInHand.begin(), mInHand.end(), &job));
        mDigests.finish(job, result);
        --mDigests.mUnderWay;
    }

    Digests& mDigests;
    std::vector<DigestJob*> mInHand;
};

Digests::Digests(unsigned workers) : mWorkers(workers) {}

Digests::~Digests() {
    dropAll();
    {
        const std::lock_guard lock(mMutex);
        mEnd = true;
    }
    mWork.notify_all();
    for (std::thread& thread : mThreads) thread.join();
}

void Digests::start(const std::vector<DigestJob*>& jobs) {
    if (jobs.empty()) return;
    startThreads();
    if (mThreads.empty()) return;  // each is computed when it is awaited
    bool isAwaited = false;
    {
        const std::lock_guard lock(mMutex);
        mQueue.insert(mQueue.end(), jobs.begin(), jobs.end());
        isAwaited = mIdle > 0;
    }
    if (isAwaited) mWork.notify_all();
}

void Digests::waitFor(DigestJob& job) {
    if (mThreads.empty()) {
        finish(job, computeFileMD5(job.path, toolLogEnabled));
        return;
    }
    std::unique_lock lock(mMutex);
    if (!job.isDone) mProgress.wait_for(lock, kMoment);
}

void Digests::dropAll() {
    std::unique_lock lock(mMutex);
    for (DigestJob* job : std::exchange(mQueue, {})) finish(*job, failure(ECANCELED));
    mAbandoned = true;
    while (mUnderWay > 0) mProgress.wait_for(lock, kMoment);
    mAbandoned = false;
}

/// Once: jobs that found no threads are in no queue, and threads that came later would not know
/// them.
void Digests::startThreads() {
    if (std::exchange(mStarted, true)) return;
    try {
        while (mThreads.size() < mWorkers) {
            mThreads.emplace_back([this] { Worker(*this).run(); });
        }
    } catch (const std::system_error&) {
        // There are as many threads as the system grants; without any the scan's own computes.
    }
}

bool Digests::waitForWork() {
    std::unique_lock lock(mMutex);
    waitForWork(lock);
    return !mEnd;
}

void Digests::waitForWork(std::unique_lock<std::mutex>& lock) {
    ++mIdle;
    mProgress.notify_one();
    mWork.wait(lock, [this] { return !mQueue.empty() || mEnd; });
    --mIdle;
}

DigestJob* Digests::take(size_t inHand, bool mayWait) {
    std::unique_lock lock(mMutex);
    if (mQueue.empty() && mayWait) waitForWork(lock);
    if (mQueue.empty()) return nullptr;
    // Of few files every worker takes its share, and no more.
    const size_t share = (mQueue.size() + mUnderWay + mThreads.size() - 1) / mThreads.size();
    if (inHand > 0 && inHand >= share) return nullptr;
    DigestJob* const job = mQueue.front();
    mQueue.pop_front();
    ++mUnderWay;
    return job;
}

/// The job may be gone when this returns.
void Digests::finish(DigestJob& job, const FileMD5Result& result) {
    job.result = result;
    job.isDone.store(true, std::memory_order_release);
}

}  // namespace rux

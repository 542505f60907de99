#include "scan/readers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <system_error>
#include <utility>

#include "control/properties.h"
#include "platform/include/tavo_f2fs_io_extensions.h"

namespace rux {
namespace {

/// How long the scan waits for a job before it looks after the walk again. It is not woken for
/// every job: of small files there are hundreds in that time.
constexpr auto kMoment = std::chrono::milliseconds(1);

/// What may be in preparation at once; it bounds a scan's memory beyond the images, as the bound on
/// entries in the window does.
constexpr int64_t kMaxBytes = int64_t{512} << 20;  // of files whose digests were begun

constexpr size_t kRun = 32;  // jobs that want but a status and are taken together

FileMD5Result failure(int error) {
    FileMD5Result result = {};
    result.code = error;
    return result;
}

/// Also when the job ends with it: whoever awaits it may then do away with it.
void setState(ReadJob& job, ReadJob::State state) {
    job.state.store(state, std::memory_order_release);
}

}  // namespace

/// One thread and the jobs that it has in hand.
class Readers::Worker {
  public:
    explicit Worker(Readers& readers) : mReaders(readers) {}

    void run() {
        bool useBatch = computeFileMD5Batch != nullptr;
        while (mReaders.waitForWork()) {
            try {
                if (useBatch) {
                    computeFileMD5Batch(this, next, opened, done, isAbandoned, toolLogEnabled);
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
        const char* path = next(this, &ticket);
        if (path == nullptr) return;
        struct stat status = {};
        const int error = stat(path, &status) == 0 ? 0 : errno;
        if (error == 0 && !opened(this, ticket, &status)) return;
        const FileMD5Result result =
                error == 0 ? computeFileMD5(path, toolLogEnabled) : failure(error);
        done(this, ticket, &result);
    }

    static Worker& of(void* caller) { return *static_cast<Worker*>(caller); }
    static ReadJob& jobOf(uint64_t ticket) { return *reinterpret_cast<ReadJob*>(ticket); }

    static const char* next(void* caller, uint64_t* ticket) {
        Worker& worker = of(caller);
        worker.mInHand.reserve(worker.mInHand.size() + 1);
        ReadJob* const job = worker.mReaders.take(worker.mInHand.size());
        if (job == nullptr) return nullptr;
        worker.mInHand.push_back(job);
        *ticket = reinterpret_cast<uint64_t>(job);
        return job->path;
    }
    static bool opened(void* caller, uint64_t ticket, const struct stat* status) {
        ReadJob& job = jobOf(ticket);
        job.status = *status;
        job.kind = kindOf(*status);
        if (of(caller).mReaders.begin(job)) return true;
        of(caller).letGo(job);
        return false;
    }
    static void done(void* caller, uint64_t ticket, const FileMD5Result* result) {
        of(caller).finish(jobOf(ticket), *result);
    }
    static bool isAbandoned(void* caller) {
        return of(caller).mReaders.mAbandoned.load(std::memory_order_relaxed);
    }

    void finish(ReadJob& job, const FileMD5Result& result) {
        mReaders.finish(job, result);
        letGo(job);
    }
    /// The job may be gone already.
    void letGo(const ReadJob& job) {
        mInHand.erase(std::find(mInHand.begin(), mInHand.end(), &job));
        --mReaders.mUnderWay;
    }

    Readers& mReaders;
    std::vector<ReadJob*> mInHand;
};

Readers::~Readers() {
    dropAll();
    {
        const std::lock_guard lock(mMutex);
        mEnd = true;
    }
    mWork.notify_all();
    for (std::thread& thread : mThreads) thread.join();
}

void Readers::start(const std::vector<ReadJob*>& jobs) {
    if (jobs.empty()) return;
    startThreads();
    bool isAwaited = false;
    {
        const std::lock_guard lock(mMutex);
        mQueue.insert(mQueue.end(), jobs.begin(), jobs.end());
        isAwaited = mIdle > 0;
    }
    if (isAwaited) mWork.notify_all();
}

void Readers::advance(ReadJob& job) {
    std::unique_lock lock(mMutex);
    const bool isNext = !mQueue.empty() && mQueue.front() == &job;
    if (isNext && takeStatuses(lock)) return;
    if (!job.isDone()) mProgress.wait_for(lock, kMoment);
}

void Readers::waitAMoment() {
    std::unique_lock lock(mMutex);
    mProgress.wait_for(lock, kMoment);
}

void Readers::release(const ReadJob& job) {
    if (!job.isBegun) return;
    const int64_t before = mBytes.fetch_sub(job.status.st_size);
    if (before < kMaxBytes) return;
    const std::lock_guard lock(mMutex);
    mWork.notify_all();
}

void Readers::dropAll() {
    std::unique_lock lock(mMutex);
    for (ReadJob* job : std::exchange(mQueue, {})) finish(*job, failure(ECANCELED));
    mAbandoned = true;
    while (mUnderWay > 0) mProgress.wait_for(lock, kMoment);
    mAbandoned = false;
    mBytes = 0;
}

/// As many as there are processors, or as the system grants. Throws when that is none.
void Readers::startThreads() {
    if (!mThreads.empty()) return;
    try {
        do {
            mThreads.emplace_back([this] { Worker(*this).run(); });
        } while (mThreads.size() < std::thread::hardware_concurrency());
    } catch (const std::system_error&) {
        if (mThreads.empty()) throw;
    }
}

/// With the lock held.
bool Readers::hasWork() const {
    if (mQueue.empty()) return false;
    return mBytes < kMaxBytes || !mQueue.front()->wantsDigest;
}

/// Out of the batch, whose buffers are not held for nothing. False at the end.
bool Readers::waitForWork() {
    std::unique_lock lock(mMutex);
    ++mIdle;
    mProgress.notify_one();
    mWork.wait(lock, [this] { return hasWork() || mEnd; });
    --mIdle;
    return !mEnd;
}

/// The next file whose digest is wanted. What stands before it in the queue and wants but a status
/// is done on the way.
ReadJob* Readers::take(size_t inHand) {
    std::unique_lock lock(mMutex);
    while (true) {
        if (!hasWork()) return nullptr;
        if (takeStatuses(lock)) continue;
        // Of few files every worker takes its share, and no more.
        const size_t share = (mQueue.size() + mUnderWay + mThreads.size() - 1) / mThreads.size();
        if (inHand > 0 && inHand >= share) return nullptr;
        ReadJob* const job = mQueue.front();
        mQueue.pop_front();
        ++mUnderWay;
        if (job->isRegular) return job;
        // What is no file with content is not opened: that might have an effect.
        lock.unlock();
        look(*job);
        if (job->kind == Entry::Kind::File) return job;
        begin(*job);
        lock.lock();
        --mUnderWay;
    }
}

/// Takes the next few jobs as long as they want but a status. False when the next one wants more.
/// The lock is held before and after.
bool Readers::takeStatuses(std::unique_lock<std::mutex>& lock) {
    std::array<ReadJob*, kRun> run = {};
    size_t count = 0;
    while (count < kRun && !mQueue.empty() && !mQueue.front()->wantsDigest) {
        run[count++] = mQueue.front();
        mQueue.pop_front();
    }
    if (count == 0) return false;
    mUnderWay += count;
    lock.unlock();
    for (size_t i = 0; i < count; ++i) {
        look(*run[i]);
        begin(*run[i]);
    }
    lock.lock();
    mUnderWay -= count;
    return true;
}

void Readers::look(ReadJob& job) {
    const bool isThere = stat(job.path, &job.status) == 0;
    job.kind = isThere ? kindOf(job.status) : Entry::Kind::Unreadable;
}

/// Whether the digest of a job that has its status is to be computed now; otherwise the job is
/// done.
bool Readers::begin(ReadJob& job) {
    if (job.wantsDigest && job.kind == Entry::Kind::File) {
        job.claim = mKnownFiles.claim(job.status);
        job.isBegun = job.claim != KnownFiles::Claim::Others;
    }
    const bool isBegun = job.isBegun;
    if (isBegun) mBytes += job.status.st_size;
    setState(job, isBegun ? ReadJob::State::HasStatus : ReadJob::State::Done);
    return isBegun;
}

/// Takes the outcome of a digest, which may be that the file could not even be opened.
void Readers::finish(ReadJob& job, const FileMD5Result& result) {
    if (!job.hasStatus() && result.code != ECANCELED) look(job);
    job.result = result;
    if (job.claim == KnownFiles::Claim::Ours) mKnownFiles.settle(job.status, result);
    setState(job, ReadJob::State::Done);
}

}  // namespace rux

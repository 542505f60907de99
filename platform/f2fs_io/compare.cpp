#include "f2fs_io/compare.h"

#include <linux/capability.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "f2fs_io/long_file.h"

namespace android::host {
namespace {

constexpr off_t kPiece = 128 << 10;                     // bytes a read and file
constexpr off_t kShare = 256 << 10;                     // bytes that a thread takes at a time
constexpr off_t kWorthHelp = 1024 << 10;                // bytes of files that two threads compare
constexpr auto kIdle = std::chrono::milliseconds(100);  // before the second thread ends

bool hasCapability(unsigned capability) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, sets) == 0 &&
           (sets[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

/// Reads all of `size` bytes at `offset`. 0 or an errno, EILSEQ when the file ends before.
int readFully(int file, char* bytes, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t got = pread(file, bytes, size, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0 ? EILSEQ : errno;
        bytes += got;
        size -= static_cast<size_t>(got);
        offset += got;
    }
    return 0;
}

/// Room for a piece of each of two files.
struct Pieces {
    char first[kPiece];
    char second[kPiece];
};

/// The content of two files, of which two threads may compare one share after another.
class Comparison {
  public:
    Comparison(int first, int second, off_t size, const std::function<bool()>& interrupted)
          : mFirst(first), mSecond(second), mSize(size), mInterrupted(interrupted) {}

    /// Until no share is left, or one is not the same. `longFile` is for one of the threads.
    void work(Pieces& pieces, LongFile* longFile) {
        while (true) {
            const off_t begin = mNext.fetch_add(kShare);
            if (begin >= mSize) return;
            if (mSize >= kWorthHelp && skipHole(begin)) continue;
            int error = compareShare(begin, pieces);
            if (error == 0 && longFile != nullptr) error = longFile->count(mFirst, kShare);
            if (error != 0) fail(begin, error);
        }
    }

    /// The error of the first share that has one; 0 when all are the same. After the work.
    int error() const { return mError; }

  private:
    /// Whether both files have a hole at `begin` that goes beyond the share. What lies in it is not
    /// looked at.
    bool skipHole(off_t begin) {
        off_t data = mSize;
        for (const int file : {mFirst, mSecond}) {
            const off_t found = lseek(file, begin, SEEK_DATA);
            if (found < 0 && errno != ENXIO) return false;
            if (found >= 0) data = std::min(data, found);
        }
        if (data < begin + kShare) return false;
        const off_t next = data / kShare * kShare;
        off_t now = mNext;
        while (now < next && !mNext.compare_exchange_weak(now, next)) {
        }
        return true;
    }

    int compareShare(off_t begin, Pieces& pieces) const {
        const off_t end = std::min(begin + kShare, mSize);
        for (off_t at = begin; at < end; at += kPiece) {
            if (at > 0 && mInterrupted && mInterrupted()) return EBUSY;
            const auto size = static_cast<size_t>(std::min(end - at, kPiece));
            if (const int error = readFully(mFirst, pieces.first, size, at); error != 0)
                return error;
            if (const int error = readFully(mSecond, pieces.second, size, at); error != 0)
                return error;
            if (memcmp(pieces.first, pieces.second, size) != 0) return EILSEQ;
        }
        return 0;
    }

    /// Those before it have been taken, and are compared to their end.
    void fail(off_t begin, int error) {
        mNext = mSize;
        const std::lock_guard lock(mMutex);
        if (mError != 0 && mFailedAt < begin) return;
        mFailedAt = begin;
        mError = error;
    }

    const int mFirst;
    const int mSecond;
    const off_t mSize;
    const std::function<bool()>& mInterrupted;
    std::atomic<off_t> mNext{0};
    std::mutex mMutex;
    off_t mFailedAt = 0;
    int mError = 0;
};

/// The second thread. It stays for a while, as a new one would come too late for most files.
class Helper {
  public:
    /// Has it take part in `comparison` as soon as it comes, unless it is with another one.
    void invite(Comparison& comparison) {
        {
            const std::lock_guard lock(mMutex);
            if (mInvitedTo != nullptr || mIsIn != nullptr) return;
            if (!mIsThere && !start()) return;
            mInvitedTo = &comparison;
        }
        mInvitation.notify_one();
    }

    /// Returns once it is not, and will not be, in `comparison`.
    void dismiss(const Comparison& comparison) {
        std::unique_lock lock(mMutex);
        if (mInvitedTo == &comparison) mInvitedTo = nullptr;
        mDeparture.wait(lock, [&] { return mIsIn != &comparison; });
    }

  private:
    /// With the lock held.
    bool start() {
        try {
            auto pieces = std::make_unique<Pieces>();
            std::thread([this, pieces = std::move(pieces)] { run(*pieces); }).detach();
            mIsThere = true;
        } catch (const std::exception&) {  // no thread or no memory: the caller does it alone
        }
        return mIsThere;
    }

    void run(Pieces& pieces) {
        std::unique_lock lock(mMutex);
        while (mInvitation.wait_for(lock, kIdle, [this] { return mInvitedTo != nullptr; })) {
            mIsIn = std::exchange(mInvitedTo, nullptr);
            lock.unlock();
            mIsIn->work(pieces, nullptr);
            lock.lock();
            mIsIn = nullptr;
            mDeparture.notify_all();
        }
        mIsThere = false;
    }

    std::mutex mMutex;
    std::condition_variable mInvitation;
    std::condition_variable mDeparture;
    bool mIsThere = false;
    Comparison* mInvitedTo = nullptr;
    Comparison* mIsIn = nullptr;
};

}  // namespace

bool sameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool sameContentStamp(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && sameTime(before.st_mtim, after.st_mtim);
}

int compareBytes(int first, int second, off_t size, const std::function<bool()>& interrupted) {
    thread_local const auto pieces = std::make_unique<Pieces>();  // kept for the next files
    static auto& helper = *new Helper;  // its thread outlives every other object
    Comparison comparison(first, second, size, interrupted);
    if (size >= kWorthHelp) helper.invite(comparison);
    LongFile longFile;
    comparison.work(*pieces, &longFile);
    if (size >= kWorthHelp) helper.dismiss(comparison);
    return comparison.error();
}

bool Attributes::canBeGiven() const {
    const bool isOwn = uid == geteuid() && (gid == getegid() || group_member(gid) != 0);
    return (isOwn || hasCapability(CAP_CHOWN)) &&
           (xattrs.count("security.capability") == 0 || hasCapability(CAP_SETFCAP));
}

int flagsOf(int file) {
    int flags = 0;
    return ioctl(file, FS_IOC_GETFLAGS, &flags) == 0 ? flags & FS_FL_USER_MODIFIABLE : 0;
}

int readAttributes(int file, const struct stat& st, Attributes* attributes) {
    attributes->uid = st.st_uid;
    attributes->gid = st.st_gid;
    attributes->mode = st.st_mode;
    return readXattrs(file, &attributes->xattrs);
}

}  // namespace android::host

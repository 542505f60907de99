/// Keeping writers out for a while.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

namespace android::host {

/// A read lease on an open file (fcntl(2), F_SETLEASE). It cannot be had while anybody has the file
/// open for writing; whoever opens or truncates it afterwards waits in the kernel until the lease
/// is given up, and `held` tells that somebody does.
class ReadLease {
  public:
    using Clock = std::chrono::steady_clock;

    /// For how long a lease holds at least after it was seen to: the kernel lets nobody wait for
    /// less than a second (/proc/sys/fs/lease-break-time in proc_sys_fs(5)).
    static constexpr auto kLeast = std::chrono::milliseconds(500);

    ReadLease() = default;
    ReadLease(ReadLease&& other) noexcept : mFile(std::exchange(other.mFile, -1)) {}
    ReadLease& operator=(ReadLease&& other) noexcept {
        giveUp();
        mFile = std::exchange(other.mFile, -1);
        return *this;
    }
    ~ReadLease() { giveUp(); }

    /// 0 or an errno: EBUSY when the file is open for writing. `file` must be open for reading only
    /// and stay open as long as the lease.
    int take(int file) {
        // The lease is polled, so its signal must do no harm: SIGIO would end the process, while
        // the default action of SIGURG is nothing.
        if (fcntl(file, F_SETSIG, SIGURG) != 0) return errno;
        if (fcntl(file, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN ? EBUSY : errno;
        mFile = file;
        return 0;
    }

    void giveUp() {
        if (mFile >= 0) fcntl(mFile, F_SETLEASE, F_UNLCK);
        mFile = -1;
    }

    /// Asks for it once more while it is held, so that nobody can come in between: 0, or EBUSY when
    /// somebody waits for it to be given up, or is just opening the file for writing and has not
    /// come as far as the lease (another program may have a word in that, see fanotify(7)), or
    /// when this thread was held up for so long that nobody knows.
    int confirm() const {
        const auto start = Clock::now();
        if (!held()) return EBUSY;
        if (fcntl(mFile, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN ? EBUSY : errno;
        return Clock::now() - start < kLeast ? 0 : EBUSY;
    }

    bool held() const { return fcntl(mFile, F_GETLEASE) == F_RDLCK; }

  private:
    int mFile = -1;
};

}  // namespace android::host

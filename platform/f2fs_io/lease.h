/// Keeping writers out for a while.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <csignal>

namespace android::host {

/// A read lease on an open file (fcntl(2), F_SETLEASE). It cannot be had while anybody has the file
/// open for writing; whoever opens or truncates it afterwards waits in the kernel until the lease
/// is given up, and `held` tells that somebody does.
class ReadLease {
  public:
    ReadLease() = default;
    ReadLease(const ReadLease&) = delete;
    ReadLease& operator=(const ReadLease&) = delete;
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

    /// Takes it anew: EBUSY also when somebody is just opening the file for writing and has not
    /// come as far as the lease, but may wait for another program's word about it (fanotify(7)).
    int renew() {
        const int file = mFile;
        if (!held()) return EBUSY;
        giveUp();
        return take(file);
    }

    bool held() const { return fcntl(mFile, F_GETLEASE) == F_RDLCK; }

  private:
    int mFile = -1;
};

}  // namespace android::host

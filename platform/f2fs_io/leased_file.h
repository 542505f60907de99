/// A file that the library works on while writers are kept out, and what it was like then.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <string>

#include "android-base/unique_fd.h"
#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"

namespace android::host {

/// The file may be under a read lease (fcntl(2), F_SETLEASE). It cannot be had while anybody has
/// the file open for writing; whoever opens or truncates it afterwards waits in the kernel until
/// the lease goes, with the descriptor, and `isInUse` tells that somebody does.
struct LeasedFile {
    using Clock = std::chrono::steady_clock;

    /// For how long a lease holds at least after it was seen to: the kernel lets nobody wait for
    /// less than a second (/proc/sys/fs/lease-break-time in proc_sys_fs(5)).
    static constexpr auto kLeast = std::chrono::milliseconds(500);

    base::unique_fd file;  ///< open for reading only
    struct stat status = {};
    Attributes attributes;

    FileId id() const { return idOf(status); }

    /// Opens the regular file under a name of the entry's directory, and takes the lease. 0 or an
    /// errno.
    int openLeased(const Entry& entry, const std::string& name);

    /// Takes the lease, then reads status and attributes: so they are what nobody is changing.
    /// 0 or an errno, EBUSY for a file that is open for writing.
    int takeLease();

    /// Asks for the lease once more while it is held, so that nobody can come in between: 0, or
    /// EBUSY when somebody waits for it to go, or is just opening the file for writing and has not
    /// come as far as the lease (another program may have a word in that, see fanotify(7)), or when
    /// this thread was held up for so long that nobody knows.
    int confirmLease() const;

    /// 0 while size, time, owner, mode and attributes are as they were; ESTALE, or an errno.
    int compareWithNow() const;

    /// 0 while that is so and nobody wants to write; ESTALE or EBUSY, or an errno.
    int undisturbed() const;

    /// Whether somebody has opened the file, or waits to, for writing.
    bool isInUse() const;
};

/// A program that opens a file looks its name up first and meets a lease a microsecond later. One
/// that is interrupted in between comes back with the file that the name led to before. For how
/// long such a task may still be without a processor: 0 where there are processors to spare, else
/// 50 milliseconds, or more on a machine with very many runnable tasks.
std::chrono::nanoseconds timeWithoutProcessor();

/// Returns when nobody who was interrupted `elapsed` ago can still be without a processor.
void waitForInterruptedTasks(std::chrono::nanoseconds elapsed);

}  // namespace android::host

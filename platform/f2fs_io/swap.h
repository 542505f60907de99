/// The atomic exchange of one file of a directory for another.
#pragma once

#include <sys/stat.h>

#include <string>

#include "android-base/unique_fd.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/leased_file.h"

namespace android::host {

/// A file that takes another's place. Both have the same attributes.
struct Replacement {
    Entry entry;
    LeasedFile outgoing;        // under lease until its name is gone
    struct stat incoming = {};  // of the other file
    base::unique_fd copy;       // that file, as long as it has no name and is not on disk
};

/// Exchanges the file under `entry.swapName()`, the incoming one, for the outgoing one, which the
/// entry must name, in one step (renameat2(2), RENAME_EXCHANGE). Unless exactly that file came out
/// the exchange is undone.
///
/// 0, or an errno and nothing has changed: ESTALE when the entry named another file, EOPNOTSUPP
/// when the file system has no exchange.
int exchange(const Replacement& replacement);

/// Takes an exchange back that put the incoming file under the entry's name; the file that others
/// have put there meanwhile stays. `error`, or the errno for which that could not be done.
///
/// The swap name is gone at the end, unless a call has failed in such a way, or so much has been
/// done to the two, that its file may be the last name of what somebody writes: then it stays, and
/// a line of the log at ERROR names it.
int undo(const Entry& entry, const struct stat& incoming, int error);

/// Leaves the file under the swap name where it is: it may be the last name of what somebody is
/// writing. A line of the log at ERROR says so; the next call on the entry, and the next scan of
/// its directory, look at it again. Returns `error`.
int keepSwap(const Entry& entry, const std::string& swap, int error);

/// Removes the swap name, whose file is known not to be needed. 0 or an errno.
int removeSwap(const Entry& entry, const std::string& swap);

/// Ends what `exchange` has begun: removes the outgoing file's name, or undoes the exchange, or
/// leaves both names, by what has become of the two files meanwhile (`kCases` in the source).
///
/// 0, or the errno for which the exchange was undone, or for which the swap name is there still:
/// EBUSY or ESTALE for a file that is written to or has changed.
int conclude(Replacement& replacement);

}  // namespace android::host

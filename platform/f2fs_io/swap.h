/// The atomic exchange of one file of a directory for another.
#pragma once

#include <sys/stat.h>

#include <string>

#include "f2fs_io/entry.h"
#include "f2fs_io/leased_file.h"
#include "utils/unique_fd.h"

namespace android::host {

/// A file that takes another's place. Both have the same attributes.
struct Replacement {
    std::string path;  // as the caller gave it
    Entry entry;
    LeasedFile outgoing;        // under lease until its name is gone
    struct stat incoming = {};  // of the other file
    bool isCopy = false;        // whether that is a restore's copy
    UniqueFd copy;              // which is open as long as it has no name and is not on disk
};

/// Exchanges the file under `entry.swapName()`, the incoming one, for the outgoing one, which the
/// entry must name, in one step (renameat2(2), RENAME_EXCHANGE). Unless exactly that file came out
/// the exchange is undone.
///
/// 0, or an errno and nothing has changed: ESTALE when the entry named another file, EOPNOTSUPP
/// when the file system has no exchange.
int exchange(const Replacement& replacement);

/// Ends what `exchange` has begun: removes the outgoing file's name when nobody has taken the file
/// up meanwhile. Otherwise the exchange is undone, and the newest file that others have put under
/// the entry's name meanwhile ends there. When both files have been taken up, the one stays that
/// has no other name.
///
/// The swap name is gone at the end, unless a call has failed in such a way, or so much has been
/// done to the two, that its file may be the last name of what somebody writes: then it stays, and
/// a line of the log at ERROR names it.
///
/// 0, or the errno for which the exchange was undone: EBUSY or ESTALE for a file that is written to
/// or has changed.
int conclude(Replacement& replacement);

}  // namespace android::host

/// The atomic exchange of one file of a directory for another.
#pragma once

#include <functional>

#include "f2fs_io/entry.h"

namespace android::host {

/// What is asked of the two files after the exchange, when the names have changed hands.
struct ExchangeChecks {
    /// 0 while nobody has done anything to the file that goes, or is about to; else an errno.
    std::function<int()> outgoing;
    /// Whether somebody has opened the file that has come, or waits to, for writing.
    std::function<bool()> incomingInUse;
};

/// Puts the file `incoming`, which lies under `entry.swapName()`, in the place of `outgoing`, which
/// the entry must name, and removes `outgoing`'s name.
///
/// The two names are exchanged in one step (renameat2(2), RENAME_EXCHANGE), then what came out is
/// looked at: only when it is `outgoing`, and nobody has taken it up, is it removed. Otherwise the
/// exchange is undone, and the newest file that others have put under the entry's name meanwhile
/// ends there. When both files have been taken up, the one stays that has no other name.
///
/// The swap name is gone at the end, unless a call has failed in such a way that its file may be
/// the last name of what somebody writes: then it stays, and a line of the log at ERROR names it.
///
/// 0 or an errno: ESTALE when the entry named another file, EOPNOTSUPP when the file system has no
/// exchange, that of `checks.outgoing`.
int exchange(const Entry& entry, const FileId& incoming, const FileId& outgoing,
             const ExchangeChecks& checks);

}  // namespace android::host

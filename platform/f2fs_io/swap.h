/// The atomic exchange of one file of a directory for another.
#pragma once

#include <functional>

#include "f2fs_io/entry.h"

namespace android::host {

/// Puts the file `incoming`, which lies under `entry.swapName()`, in the place of `outgoing`, which
/// the entry must name, and removes `outgoing`'s name.
///
/// The two names are exchanged in one step (renameat2(2), RENAME_EXCHANGE), then what came out is
/// looked at: only when it is `outgoing` and `verify` (0 or an errno) has nothing against it is it
/// removed. Otherwise the exchange is undone, and the newest file that others have put under the
/// entry's name meanwhile ends there. In every case the swap name is gone at the end.
///
/// 0 or an errno: ESTALE when the entry named another file, EOPNOTSUPP when the file system has no
/// exchange, `verify`'s own.
int exchange(const Entry& entry, const FileId& incoming, const FileId& outgoing,
             const std::function<int()>& verify);

}  // namespace android::host

/// Directories of overlay file systems, in which no file may be exchanged.
#pragma once

#include "android-base/unique_fd.h"

namespace android::host {

/// 0, or EOPNOTSUPP for a directory of an overlay, and for one in the upper directory of an overlay
/// that is mounted in this process's view.
///
/// On an overlay a lease does not see a mapping whose descriptor is closed; and an overlay keeps to
/// the file that it has found in its upper directory, whatever takes that file's name there.
int refuseOverlay(const base::unique_fd& directory);

}  // namespace android::host

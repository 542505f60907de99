/// Closing files that nobody can reach any more.
#pragma once

#include "utils/unique_fd.h"

namespace android::host {

/// Closes `file`, whose last name is gone. The file system frees the blocks as it does so, and may
/// wait for its journal or its device: that is left to threads of their own, unless they have
/// fallen behind.
void closeReplaced(UniqueFd file);

}  // namespace android::host

/// Returns when the blocks of all files that `createHardLink` has replaced are free. An extension
/// of the library.
void finishHardLinks();

/// A second file that is like a first in everything but its blocks.
#pragma once

#include <sys/stat.h>

#include <functional>

namespace android::host {

/// Fills the new, empty file `to` with the content of `from`, sharing blocks where the file system
/// does copy-on-write and leaving holes as holes. 0 or an errno; EBUSY once `interrupted` says
/// true.
int copyContent(int from, int to, const struct stat& source,
                const std::function<bool()>& interrupted);

/// Gives `to` the owner, group, mode, extended attributes and times of `from`, whose status from
/// before it was read is `source`. 0 or an errno.
int copyMetadata(int from, int to, const struct stat& source);

}  // namespace android::host

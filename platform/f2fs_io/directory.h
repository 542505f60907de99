/// What the directories that files lie in say about linking them.
#pragma once

#include "android-base/unique_fd.h"
#include "f2fs_io/entry.h"

namespace android::host {

/// 0, or EOPNOTSUPP for a directory of an overlay or of a file system in user space, and for one in
/// the upper directory of an overlay that is mounted in this process's view.
///
/// On an overlay a lease does not see a mapping whose descriptor is closed; and an overlay keeps to
/// the file that it has found in its upper directory, whatever takes that file's name there. On a
/// file system in user space a lease does not see who writes to its files behind it, where it keeps
/// them or on another machine.
int refuseFileSystem(const base::unique_fd& directory);

/// Finds the nearest directory on the way to the files of `entry.directory`, that one included,
/// which others cannot search: without execute permission for others (path_resolution(7)), or with
/// an access-control list (acl(5)). None: an id of zeros. What has been found is remembered for a
/// second.
///
/// 0 or an errno.
int findPrivateDirectory(const Entry& entry, FileId* found);

}  // namespace android::host

/// Ways to a file as rights: who cannot search a directory cannot reach what lies below it.
#pragma once

#include "f2fs_io/entry.h"

namespace android::host {

/// Finds the nearest directory on the way to the files of `entry.directory`, that one included,
/// which others cannot search: without execute permission for others (path_resolution(7)), or with
/// an access-control list (acl(5)). None: an id of zeros. What has been found is remembered for a
/// second.
///
/// 0 or an errno.
int findPrivateDirectory(const Entry& entry, FileId* found);

}  // namespace android::host

/// Content that is on disk. What is not must not take the place of what is: both would be lost when
/// the power goes.
#pragma once

#include "f2fs_io/leased_file.h"

namespace android::host {

/// Has the content of a file put on disk. 0 or an errno.
///
/// The first file of a file system has all of it synced (syncfs(2)), which takes one wait for very
/// many files; from then on only those that were changed after that are waited for (fsync(2)).
int makeDurable(const LeasedFile& file);

/// The file, which was durable, has got another name: its status has changed, its content has not.
void noteLinked(const LeasedFile& file);

/// Begins anew: the clock, by which changes are told, may be set.
void forgetDurable();

}  // namespace android::host

/// What calls that were killed, or that failed half-way, have left under swap names.
#pragma once

#include "f2fs_io/entry.h"

namespace android::host {

/// When the process before this one was killed at its work: looks through the entry's
/// directory, once.
void tidyOnce(const Entry& entry);

/// Takes care of what an interrupted call on this entry has left under the swap name. What is
/// pending is concluded first. Then the file there
///  - is removed when its content has another name, or is the entry's own;
///  - gets the entry's name back when it was written to since the exchange and the entry's file was
///    not, which a line of the log at ERROR tells;
///  - stays otherwise, or while somebody writes to it: EEXIST, and a line at ERROR.
/// A file of another owner is not ours: it stays, and the swap name becomes another one.
int removeStaleName(Entry& entry);

}  // namespace android::host

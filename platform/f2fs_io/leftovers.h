/// What calls that were killed, or that failed half-way, have left under swap names.
#pragma once

#include "f2fs_io/entry.h"

namespace android::host {

/// When the process before this one was killed with files in the line: looks through the entry's
/// directory, once.
void tidyOnce(const Entry& entry);

/// Removes what an interrupted call on this entry left. EEXIST when that is the only name of a
/// content that differs from the file's own: then a writer that was open while the call was killed
/// has written there, and it is kept. A file of another owner is no leftover: it stays, and the
/// swap name becomes another one. What is in the line is waited for.
int removeLeftovers(Entry& entry);

}  // namespace android::host

/// Looks again at what calls have left in a directory. An extension of the library.
void removeLeftovers(const char* directory);

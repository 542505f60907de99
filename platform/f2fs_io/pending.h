/// Pending replacements: of files whose names links have taken already.
///
/// The old file keeps its lease and, beside the entry, a name, until everybody who was interrupted
/// while opening it has been given a processor. That is waited for once for many files: they are in
/// a list, which whoever adds to it works off when it is full, and `settleLinks` to its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "f2fs_io/swap.h"

namespace android::host {

/// How many replacements may be pending: each holds files open, and together they may hold a
/// quarter of what the process may open.
size_t mostPending();

/// Adds a replacement whose names have been exchanged, which the caller's `path` has led to. When
/// as many are pending as may be, or the oldest has been for a second, all are concluded. What
/// fails then goes to the log, and to `settleLinks`.
void addPending(Replacement replacement, const std::string& path);

/// Whether a replacement of that very name is pending. If so, its outcome is that of `path` too.
bool joinPending(const Entry& entry, const std::string& path);

/// Concludes all that are pending, and waits for those that another thread concludes.
void concludePending();

/// Leaves a note for the next process that this one was at work: until all is settled.
void noteUnfinished();

/// Whether the process before this one has left that note.
bool wasLeftUnfinished();

}  // namespace android::host

/// The line of files that are about to be replaced: the common end of linking and restoring.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "f2fs_io/swap.h"

namespace android::host {

/// A program that opens a file looks its name up first and meets the lease a microsecond later. One
/// that is interrupted in between comes back with the file that the name led to before. So after
/// the exchange the old file keeps its lease and, beside the entry, a name, until everybody who was
/// interrupted has been given a processor: when no runnable task is without one, or after 50
/// milliseconds, or more on a machine with very many. Where there are processors to spare that is
/// at once.
///
/// The wait is one for all files in the line; a thread of the line's own ends what is due. It also
/// has the copies of a restore put on disk, many at a time. While the line is full, which takes a
/// quarter of the process's descriptors, its users wait.
///
/// Hands over a replacement whose names have been exchanged, or whose `copy` is written but has no
/// name. From here on failures go to the log, and to `settleLinks`.
void standInLine(std::unique_ptr<Replacement> replacement);

/// Whether a link, or a restore, of that very name is in the line.
bool isBeingLinked(const Entry& entry);
bool isBeingRestored(const Entry& entry);

/// How many of the names of a file are about to go: of those that its number of links counts still,
/// if that has been read before.
size_t namesInLine(const FileId& outgoing);

/// Whether a process before this one has left files in the line. To be asked before the first call
/// of `standInLine`.
bool hasLineBeenLeft();

/// Returns when the line is empty.
void waitForLine();

/// Returns when nobody who was interrupted at `when`, a time of day, can still be without a
/// processor.
void waitForInterruptedTasks(const timespec& when);

}  // namespace android::host

/// Returns when all that `createHardLink` and `restoreLinkFile` have begun is over. The paths of
/// those calls that had said 0 and then had to be undone, each with the errno: the log has them
/// too. An extension of the library.
std::map<std::string, int32_t> settleLinks();

/// What the platform of this tree offers beyond the device's own: extensions of the I/O library and
/// of the allocator. Not every device has them. So they are weak here, and where one is missing its
/// address is null: a caller asks for that first.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct FileMD5Result;  // see tavo_f2fs_io.h, which is the device's own

/// `computeFileMD5` for many files, several times as fast as one by one: the files advance beside
/// each other in the processor's vector unit. Runs on the calling thread and calls back from it:
///
/// `next` gives the path of the next file, which stays valid until the file is done, and the
/// caller's own pointer for it in `file`. Null: no further file now; when none is in hand, that
/// ends the batch.
///
/// `opened` is told the status of a file that is open, before anything of it is read. With false
/// the caller no longer wants the digest, and the file is done with, without an outcome.
///
/// `done` takes the outcome of a file, as `computeFileMD5` would give it; in any order. A file that
/// cannot be opened, or is not a regular one, is done without having been `opened`.
///
/// `isAbandoned` is asked often; once true, the files in hand are done with ECANCELED and the batch
/// ends.
///
/// At most `most` files are in hand at once, and no more than 32. Memory: 128 KiB for each of them,
/// less for a short one. May be called from many threads at once.
[[gnu::weak]] void computeFileMD5Batch(
        size_t most, const std::function<const char*(void** file)>& next,
        const std::function<bool(void* file, const struct stat& status)>& opened,
        const std::function<void(void* file, const FileMD5Result& result)>& done,
        const std::function<bool()>& isAbandoned, bool enableLog);

/// Has the library ask `unwanted`, from any thread, whether the caller no longer wants what it
/// reads long files for: its call then ends with ECANCELED. Null: nobody is asked.
[[gnu::weak]] void giveUpLongFilesWhen(bool (*unwanted)());

/// Makes links certain that `createHardLink` had made before: all, or those that need no waiting,
/// which may be done in another thread while more are made. The paths of those calls that had said
/// 0 and then had to be undone, each with the errno: the log has them too.
[[gnu::weak]] std::map<std::string, int32_t> settleLinks(bool waits);

/// Restores as many of the files as it can, in one go. It does not tell which: `restoreLinkFile`
/// for each does, and has only what is left to do.
[[gnu::weak]] void restoreLinkFiles(const std::vector<std::string>& paths);

/// Whether the path ends in a name under which the library keeps a file for the moment in which it
/// exchanges it. One that a kill has left is stale, and nobody's file.
[[gnu::weak]] bool isStaleName(const char* path);

/// Removes stale temporary names from a directory, which calls that were killed or failed half-way
/// have left there. What is written under one and nowhere else gets its name back, or stays with a
/// line at ERROR.
[[gnu::weak]] void removeStaleNames(const char* directory);

/// Has the allocator keep what is freed for what will be asked for next: a scan drops the images of
/// one space and fills the memory with those of the next. Or give it back to the system, at once.
[[gnu::weak]] void keepFreedMemory(bool keep);

/// An extension of the I/O library: the digests of many files at once. Not every device's library
/// has it, so a caller declares it itself, as a weak symbol, and asks for its address first.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "tavo_f2fs_io.h"

/// `computeFileMD5` for many files, several times as fast as one by one: the files advance beside
/// each other in the processor's vector unit. Runs on the calling thread and calls back from it:
///
/// `next` gives the path of the next file, which stays valid until the file is done, and the
/// caller's own number for it in `ticket`. Null: no further file now; when none is in hand, that
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
/// Memory: 128 KiB for each of at most 32 files in hand. May be called from many threads at once.
void computeFileMD5Batch(void* caller, const char* (*next)(void* caller, uint64_t* ticket),
                         bool (*opened)(void* caller, uint64_t ticket, const struct stat* status),
                         void (*done)(void* caller, uint64_t ticket, const FileMD5Result* result),
                         bool (*isAbandoned)(void* caller), bool enableLog);

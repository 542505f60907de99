/// The device's file-system I/O library: digests, hard links in place of duplicates, and the way
/// back.
///
/// Every code is 0 for success or a positive errno. No call ever leaves a path without its content.
/// With `enableLog` each call says at DEBUG what it did. All functions may be called from many
/// threads at once.
#pragma once

#include <cstdint>

/// A digest or the reason why there is none.
struct FileMD5Result {
    int32_t code;  ///< 0, or a positive errno.
    char md5[36];  ///< 32 lower-case hexadecimal digits and a NUL; empty when `code` is not 0.
};
static_assert(sizeof(FileMD5Result) == 40);

/// The MD5 digest of the content of a regular file, symbolic links followed, in constant memory.
///
/// EINVAL for what is not a regular file or only looks like one (in /proc and /sys), EAGAIN for a
/// file that changed while it was read, else the error of opening or reading it.
FileMD5Result computeFileMD5(const char* path, bool enableLog);

/// Makes `duplicatePath` a hard link to the file that `keptPath` leads to, after comparing the two
/// byte for byte. At every instant the name leads to the same content.
///
/// 0 also when the two are one file already. Otherwise nothing has changed, and the code says why:
///   ELOOP       the duplicate is a symbolic link, or a symbolic link on the way to one of the two
///               was made neither by the file's owner, nor by root or this process's user
///   EINVAL      one of them is not a regular file
///   EXDEV       they lie on different file systems or mounts
///   EILSEQ      their sizes or their bytes differ
///   EBADE       owner, group, mode or an extended attribute (access-control list, security label)
///               differs: a link would change who may read or write the data; or the flags, the
///               encryption or the quota's project do
///   EACCES      one of them lies below a directory that others cannot search, the other does not
///               lie below the same, and others have rights: they would reach it
///   EMLINK      the kept file has as many links as the file system allows
///   EBUSY       one of them is open for writing, or was opened for writing meanwhile
///   ESTALE      one of them changed or was replaced meanwhile
///   EOPNOTSUPP  the file system cannot exchange two names atomically, has no leases, is in user
///               space, or belongs to an overlay
///   EEXIST      an interrupted call left the only copy of some other content behind; it is kept
/// or an error of the system (ENOENT, EACCES, ENOSPC, ...).
///
/// Needs the right to take a lease on both files: to own them, or CAP_LEASE (fcntl(2), F_SETLEASE).
int32_t createHardLink(const char* keptPath, const char* duplicatePath, bool enableLog);

/// Gives `path` data of its own again: a copy with the same mode, owner, times, extended attributes
/// and access-control list, on disk before it takes the name.
///
/// 0 also when the file has only this one link. Otherwise nothing has changed; the codes are those
/// of `createHardLink` where they apply (ELOOP, EINVAL, EBUSY, ESTALE, EOPNOTSUPP, EEXIST), EPERM
/// where a copy would lack the encryption, the seal or a flag, or an error of the system (ENOSPC,
/// ...).
int32_t restoreLinkFile(const char* path, bool enableLog);

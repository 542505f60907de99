/// What makes two files the same for a reader, and for those who may read.
#pragma once

#include <sys/stat.h>

#include <functional>

namespace android::host {

/// Whether nobody has written between two readings of one file's status.
bool sameContentStamp(const struct stat& before, const struct stat& after);

/// 0 when both files hold the same bytes, EILSEQ when they do not, else an errno. `interrupted`
/// (may be null) is asked after each piece; once it says true the result is EBUSY.
int compareBytes(int first, int second, const std::function<bool()>& interrupted);

/// 0 when owner, group, mode and all extended attributes (among them the access-control list and
/// the security label) are the same, EBADE when they are not, else an errno.
int compareAttributes(int first, int second);

}  // namespace android::host

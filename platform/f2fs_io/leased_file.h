/// A file that the library works on, and what it was like when writers were shut out.
#pragma once

#include <sys/stat.h>

#include "android-base/unique_fd.h"
#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/lease.h"

namespace android::host {

struct LeasedFile {
    base::unique_fd file;  ///< open for reading only
    struct stat status = {};
    Attributes attributes;
    ReadLease lease;

    FileId id() const { return idOf(status); }

    /// Takes the lease, then reads status and attributes: so they are what nobody is changing.
    /// 0 or an errno, EBUSY for a file that is open for writing.
    int takeLease();

    /// 0 while size, time, owner, mode and attributes are as they were; ESTALE, or an errno.
    int compareWithNow() const;

    /// 0 while that is so and nobody wants to write; ESTALE or EBUSY, or an errno.
    int undisturbed() const;

    /// Whether somebody has opened the file, or waits to, for writing.
    bool isInUse() const { return !lease.held(); }
};

}  // namespace android::host

/// A file whose digest is wanted.
#pragma once

#include <sys/stat.h>

#include "android-base/unique_fd.h"
#include "f2fs_io/long_file.h"

namespace android::host {

/// Reads a regular file from its start to its end, and tells whether it has stayed the same
/// meanwhile.
class DigestSource {
  public:
    /// 0 or an errno; EINVAL for what is no regular file or only looks like one.
    int open(const char* path);

    /// Up to `size` of the bytes that follow. 0 at the end, -1 with errno on failure, ECANCELED for
    /// a long file that nobody wants any more.
    ssize_t read(void* bytes, size_t size);

    /// Has the system fetch the beginning of the file, unless it is in memory already, while the
    /// caller goes on with others. Returns what of it is there at once, as `read` does, or -1.
    ssize_t readAtOnce(void* bytes, size_t size) const;

    /// 0 when nobody has changed the file since it was opened, EAGAIN otherwise, or an errno.
    int close();

    off_t size() const { return mOpened.st_size; }
    /// As it was when the file was opened.
    const struct stat& status() const { return mOpened; }

  private:
    base::unique_fd mFile;
    struct stat mOpened = {};
    LongFile mLong;
};

}  // namespace android::host

/// A name in an open directory: the means by which the library keeps hold of what it works on.
#pragma once

#include <sys/stat.h>

#include <compare>
#include <string>

#include "android-base/unique_fd.h"
#include "f2fs_io/resolve.h"

namespace android::host {

/// Which file, whatever its names.
struct FileId {
    dev_t device = 0;
    ino_t inode = 0;
    auto operator<=>(const FileId&) const = default;  // NOLINT(modernize-use-nullptr)
};

inline FileId idOf(const struct stat& st) {
    return {st.st_dev, st.st_ino};
}

/// The directory is opened once and everything else is done relative to it, so that no component of
/// the path that is swapped later leads anywhere else. Nor does one that was swapped before lead to
/// other people's files: symbolic links in the directory's path count by who made them.
struct Entry {
    base::unique_fd directory;
    struct stat directoryStatus = {};
    std::string parent;  // its path, as it was given: for the log
    std::string name;
    LinkMakers makers;  // of the links in the directory's path

    /// 0 or an errno; EINVAL for a path that ends in no name.
    int open(const char* path);

    /// Opens the file itself for reading; ELOOP for a symbolic link, which is never followed, and
    /// for a file that others' links lead to, EINVAL for what is not a regular file. Fills `st`.
    int openFile(base::unique_fd* file, struct stat* st) const;

    /// Status of `other`, a name in the same directory, links not followed.
    int status(const std::string& other, struct stat* st) const;

    /// 0 when that name leads to that file, ESTALE when to another, or an errno.
    int expect(const std::string& other, const FileId& file) const;

    /// The name that the library uses beside `name`, for the file that is about to be exchanged
    /// with it: `kSwapPrefix` and a digest of `name`, so that a call finds what an interrupted one
    /// left.
    const std::string& swapName() const;
    /// Makes it another one than it is: it is taken.
    void changeSwapName();
    static constexpr char kSwapPrefix[] = ".rux-swap-";

    /// Makes the swap name one more name of the open file `file`: of exactly that file, whatever
    /// its path leads to by now. 0 or an errno.
    int linkAsSwap(const base::unique_fd& file) const;

    mutable std::string swap;  // the swap name, once it was asked for
};

/// Opens the regular file `path` below `directory` for reading, without changing its access time
/// where the owner's rights allow that, and without waiting for the other end of a pipe. Fills
/// `st`. 0 or an errno, EINVAL for what is no regular file.
int openRegular(int directory, const char* path, int flags, base::unique_fd* file, struct stat* st);

/// Fills `st`. 0 or an errno, EINVAL for what is no regular file.
int statusOfRegular(const base::unique_fd& file, struct stat* st);

}  // namespace android::host

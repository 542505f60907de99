/// What makes two files the same for a reader, and for those who may read.
#pragma once

#include <linux/fs.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace android::host {

/// A time of a status, since the epoch.
inline std::chrono::nanoseconds timeOf(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Whether nobody has written between two readings of one file's status.
bool sameContentStamp(const struct stat& before, const struct stat& after);

/// 0 when the first `size` bytes of both files are the same, EILSEQ when they are not or one of
/// them is shorter, ECANCELED when nobody wants the answer any more, else an errno. What is a hole
/// in both is the same. `interrupted` (may be null) is asked after each piece, from several threads
/// when the files are large; once it says true the result is EBUSY.
int compareBytes(int first, int second, off_t size, const std::function<bool()>& interrupted);

/// Extended attributes, access-control lists and security labels among them (xattr(7)).
using Xattrs = std::map<std::string, std::string>;

/// All attributes that the process may see; none on a file system without. 0 or an errno.
int readXattrs(int file, Xattrs* attributes);

/// Gives `file` exactly `wanted`, touching only what differs. 0 or an errno.
int writeXattrs(int file, const Xattrs& wanted);

/// Who may do what with a file.
struct Attributes {
    uid_t uid = 0;
    gid_t gid = 0;
    mode_t mode = 0;
    Xattrs xattrs;  // among them the access-control list and the security label
    bool operator==(const Attributes&) const = default;

    /// Whether this process has the rights to give a copy the same.
    bool canBeGiven() const;

    /// Whether nobody but the owner has any rights.
    bool areOwnersAlone() const {
        return (mode & 077) == 0 && xattrs.count("system.posix_acl_access") == 0;
    }
};

/// What the file system has been told to do with an open file: the flags of ioctl_iflags(2) that
/// somebody may have set, and whether it is encrypted or sealed by fs-verity. None on a file system
/// without.
int flagsOf(int file);

/// Those of them that a copy with a name cannot be given: the seal; that blocks are written over in
/// place, which must be said before there are any; that the journal takes the content as well,
/// which needs CAP_SYS_RESOURCE; and that nobody may change or shorten it, which forbids the name.
constexpr int kNotGivenFlags =
        FS_VERITY_FL | FS_NOCOW_FL | FS_JOURNAL_DATA_FL | FS_IMMUTABLE_FL | FS_APPEND_FL;

/// Under which key and how the file system encrypts an open file: the policy of fscrypt that
/// FS_IOC_GET_ENCRYPTION_POLICY_EX gives. Empty where it does not.
std::string encryptionOf(int file);

/// The project that a quota counts an open file for (FS_IOC_FSGETXATTR in ioctl_xfs_fsgetxattr(2)).
/// 0 on a file system without.
uint32_t projectOf(int file);

/// Those of an open file whose status is `st`. 0 or an errno.
int readAttributes(int file, const struct stat& st, Attributes* attributes);

}  // namespace android::host

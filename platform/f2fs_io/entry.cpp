#include "f2fs_io/entry.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <system_error>

#include "f2fs_io/compare.h"
#include "f2fs_io/digest/md5.h"
#include "f2fs_io/lease.h"
#include "f2fs_io/overlay.h"

namespace android::host {
namespace {

/// Whether another process holds a lease on a file with that number, on whatever device: see
/// proc(5), /proc/locks.
bool isLeasedByOthers(ino_t inode) {
    std::ifstream table("/proc/locks");
    const std::string place = ":" + std::to_string(inode);  // behind the device
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number, kind, state, mode, file;
        pid_t process = 0;
        fields >> number >> kind >> state >> mode >> process >> file;
        if (kind == "LEASE" && process != getpid() && file.ends_with(place)) return true;
    }
    return false;
}

}  // namespace

int openToRead(int directory, const char* path, int flags, UniqueFd* file) {
    const int all = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags;
    file->reset(openat(directory, path, all | O_NOATIME));
    if (!file->valid() && errno == EPERM) file->reset(openat(directory, path, all));
    if (file->valid()) return 0;
    return errno == ENXIO ? EINVAL : errno;
}

int openRegular(int directory, const char* path, int flags, UniqueFd* file, struct stat* st) {
    const int error = openToRead(directory, path, flags, file);
    return error == 0 ? statusOfRegular(*file, st) : error;
}

int statusOfRegular(const UniqueFd& file, struct stat* st) {
    if (fstat(file.get(), st) != 0) return errno;
    return S_ISREG(st->st_mode) ? 0 : EINVAL;
}

int fileSystemOf(int file, dev_t device, long* type) {
    // Files come from one file system for a long time, which answers for all of them.
    thread_local dev_t knownDevice = 0;
    thread_local long knownType = 0;
    if (knownDevice == 0 || device != knownDevice) {
        struct statfs fs = {};
        if (fstatfs(file, &fs) != 0) return errno;
        knownDevice = device;
        knownType = fs.f_type;
    }
    *type = knownType;
    return 0;
}

int Entry::open(const char* path) {
    const std::string whole = path;
    const size_t slash = whole.rfind('/');
    name = slash == std::string::npos ? whole : whole.substr(slash + 1);
    if (whole.empty()) return ENOENT;
    if (name.empty() || name == "." || name == "..") return EINVAL;
    if (slash != std::string::npos) parent = whole.substr(0, slash + 1);
    return resolve(parent.empty() ? "." : parent, &directory, &makers);
}

int Entry::openFile(UniqueFd* file, struct stat* st) const {
    const int error = openRegular(directory.get(), name.c_str(), O_NOFOLLOW, file, st);
    if (error != 0) return error;
    return makers.mayLeadTo(st->st_uid) ? refuseOverlay(directory, st->st_dev) : ELOOP;
}

int Entry::status(const std::string& other, struct stat* st) const {
    return fstatat(directory.get(), other.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

std::string Entry::swapName() const {
    return ".rux-swap-" + md5OfText(name + mSalt);
}

int Entry::linkOnce(const UniqueFd& file) const {
    const std::string swap = swapName();
    // Not every kernel lets every process link a bare descriptor, but then there is its name in
    // /proc.
    if (linkat(file.get(), "", directory.get(), swap.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT && errno != EPERM) return errno;
    return linkat(AT_FDCWD, ownPathOf(file.get()).c_str(), directory.get(), swap.c_str(),
                  AT_SYMLINK_FOLLOW) == 0
                   ? 0
                   : errno;
}

int Entry::linkAsSwap(const UniqueFd& file) {
    if (const int error = linkOnce(file); error != EEXIST) return error;
    // Left by a call that was killed. It is looked for only now, as there is none as a rule.
    const int error = removeLeftovers();
    return error == 0 ? linkOnce(file) : error;
}

int Entry::removeLeftovers() {
    const std::string swap = swapName();
    struct stat left = {};
    struct stat st = {};
    if (const int error = status(swap, &left); error != 0) return error == ENOENT ? 0 : error;
    UniqueFd ours;
    UniqueFd theirs;
    ReadLease lease;
    if (const int error = openFile(&ours, &st); error != 0) return error;
    if (st.st_uid != left.st_uid) {
        std::random_device random;
        for (int i = 0; i < 4; ++i) mSalt += std::to_string(random());
        return 0;
    }
    // A program may have had the file open all the while. And another service may be in the middle
    // of a call on it: each of the two sees the other's lease, and gives way.
    if (openRegular(directory.get(), swap.c_str(), O_NOFOLLOW, &theirs, &left) != 0 ||
        lease.take(theirs.get()) != 0 || isLeasedByOthers(left.st_ino)) {
        return EEXIST;
    }
    // Does another name hold the content too, be it this entry's or that of another member?
    const bool spare =
            left.st_nlink > 1 ||
            (st.st_size == left.st_size &&
             compareBytes(ours.get(), theirs.get(), st.st_size, nullptr) == 0 && lease.held());
    if (!spare || status(swap, &st) != 0 || idOf(st) != idOf(left)) return EEXIST;
    return unlinkat(directory.get(), swap.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace android::host

/// Looks again at what calls that were killed, or that failed, have left in a directory. An
/// extension.
void removeLeftovers(const char* directory) {
    std::error_code failure;
    std::set<std::string> names;
    for (const auto& found : std::filesystem::directory_iterator(directory, failure))
        names.insert(found.path().filename());
    for (const std::string& name : names) {
        android::host::Entry entry;
        entry.name = name;
        if (names.count(entry.swapName()) == 0) continue;
        if (entry.open((std::string(directory) + "/" + name).c_str()) == 0) entry.removeLeftovers();
    }
}

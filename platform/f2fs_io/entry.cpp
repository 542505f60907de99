#include "f2fs_io/entry.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "f2fs_io/digest/md5.h"

namespace android::host {

int openRegular(int directory, const char* path, int flags, base::unique_fd* file,
                struct stat* st) {
    const int all = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags;
    file->reset(openat(directory, path, all | O_NOATIME));
    if (!file->ok() && errno == EPERM) file->reset(openat(directory, path, all));
    if (!file->ok()) return errno == ENXIO ? EINVAL : errno;
    return statusOfRegular(*file, st);
}

int statusOfRegular(const base::unique_fd& file, struct stat* st) {
    if (fstat(file.get(), st) != 0) return errno;
    return S_ISREG(st->st_mode) ? 0 : EINVAL;
}

int Entry::open(const char* path) {
    const std::string whole = path;
    const size_t slash = whole.rfind('/');
    name = slash == std::string::npos ? whole : whole.substr(slash + 1);
    if (whole.empty()) return ENOENT;
    if (name.empty() || name == "." || name == "..") return EINVAL;
    if (slash != std::string::npos) parent = whole.substr(0, slash + 1);
    if (const int error = resolve(parent.empty() ? "." : parent, &directory, &makers); error != 0)
        return error;
    return fstat(directory.get(), &directoryStatus) == 0 ? 0 : errno;
}

int Entry::openFile(base::unique_fd* file, struct stat* st) const {
    const int error = openRegular(directory.get(), name.c_str(), O_NOFOLLOW, file, st);
    if (error != 0) return error;
    return makers.mayLeadTo(st->st_uid) ? 0 : ELOOP;
}

int Entry::status(const std::string& other, struct stat* st) const {
    return fstatat(directory.get(), other.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int Entry::expect(const std::string& other, const FileId& file) const {
    struct stat st = {};
    const int error = status(other, &st);
    return error == 0 && idOf(st) != file ? ESTALE : error;
}

const std::string& Entry::swapName() const {
    if (swap.empty()) swap = kSwapPrefix + md5OfText(name);
    return swap;
}

void Entry::changeSwapName() {
    std::random_device random;
    std::string salt;
    for (int i = 0; i < 4; ++i) salt += std::to_string(random());
    swap = kSwapPrefix + md5OfText(name + salt);
}

int Entry::linkAsSwap(const base::unique_fd& file) const {
    swapName();
    // Where a process may not link a bare descriptor there still is its name in /proc.
    if (linkat(file.get(), "", directory.get(), swap.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT && errno != EPERM) return errno;
    const std::string path = ownPathOf(file.get());
    const int at = directory.get();
    return linkat(AT_FDCWD, path.c_str(), at, swap.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

}  // namespace android::host
